#pragma once

#include <host/Export.hpp>

#include <exception>
#include <stdexcept>
#include <string>

namespace cmddistributor {

// An error reported by the command distributor for a work item: its
// execution status, a message, and the work's own error when it failed with
// one. Any thread.
class QZHOST_API RuntimeException : public std::runtime_error {
public:
    RuntimeException(int executionStatus, const std::string& message,
                     std::exception_ptr workError = nullptr);
    int getExecutionStatus() const noexcept { return executionStatus_; }
    const std::exception_ptr& getWorkError() const noexcept { return workError_; }

private:
    int executionStatus_;
    std::exception_ptr workError_;
};

} // namespace cmddistributor
