#include <cmddistributor/RuntimeException.hpp>

#include <utility>

namespace cmddistributor {

RuntimeException::RuntimeException(int executionStatus, const std::string& message,
                                   std::exception_ptr workError)
    : std::runtime_error(message), executionStatus_(executionStatus),
      workError_(std::move(workError)) {}

} // namespace cmddistributor
