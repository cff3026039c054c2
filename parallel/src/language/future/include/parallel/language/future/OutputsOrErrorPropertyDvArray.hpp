#pragma once

#include <parallel/language/future/Export.hpp>

#include <foundation/core/util/Expected.hpp>
#include <kcos/array.hpp>
#include <matrix/dvArray.hpp>

#include <boost/intrusive_ptr.hpp>

#include <memory>
#include <optional>
#include <vector>

namespace parallel::language::future {

using DvArrayVector = std::vector<boost::intrusive_ptr<dvArray>>;
// The outputs of finished work, nothing yet (empty optional), or its error.
using OutputsOrError = foundation::core::util::Expected<std::optional<DvArrayVector>>;
using PropertyDvArray = std::unique_ptr<dvArray, kcos::property_array_deleter>;

// The outputs-or-error of one task converted once into a host array, as a
// future caches it: a 1-by-N cell of the outputs, or an error object.
// Move only. No synchronisation: its owner says which thread touches it.
class QZ_FUTURE_API OutputsOrErrorPropertyDvArray {
public:
    OutputsOrErrorPropertyDvArray() noexcept = default;
    // Outputs become a 1-by-N cell (0-by-0 for none); nothing yet stays null;
    // an error, or a failure while building the cell, becomes an error object.
    explicit OutputsOrErrorPropertyDvArray(const OutputsOrError& outputsOrError);

    OutputsOrErrorPropertyDvArray(OutputsOrErrorPropertyDvArray&&) noexcept = default;
    OutputsOrErrorPropertyDvArray& operator=(OutputsOrErrorPropertyDvArray&&) noexcept = default;

    dvArray* get() const noexcept { return array_.get(); }
    bool isError() const noexcept { return isError_; }
    dvArray* getIfError() const noexcept { return isError_ ? array_.get() : nullptr; }
    dvArray* getIfOutputs() const noexcept { return isError_ ? nullptr : array_.get(); }

private:
    PropertyDvArray array_;
    bool isError_ = false;
};

} // namespace parallel::language::future
