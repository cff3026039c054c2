#pragma once

// Values passed through the class-object system's entry points (method
// calls, property reads): nothing, a host array, or a bare logical value for
// outputs declared "logical scalar". A value holding an array owns one
// counted reference to it. One thread at a time.

#include <host/Export.hpp>
#include <matrix/dvArray.hpp>

#include <boost/intrusive_ptr.hpp>

#include <variant>

namespace kcos {

class QZHOST_API COSValue {
public:
    COSValue() noexcept = default;
    explicit COSValue(matrix::unique_dvArray array) noexcept;
    explicit COSValue(boost::intrusive_ptr<dvArray> array) noexcept;
    // Takes over the reference that `array` carries (matrix::to_korvex).
    static COSValue adopt(dvArray* array) noexcept;

    bool holdsArray() const noexcept;
    bool holdsBool() const noexcept;

    // The array, not transferred; null unless holdsArray().
    dvArray* getArray() const noexcept;
    // Throws std::logic_error "Value is not a logical value." unless holdsBool().
    bool getBool() const;

    void setArray(matrix::unique_dvArray array) noexcept;
    // Takes over the reference that `array` carries; null empties the value.
    void setRawArray(dvArray* array) noexcept;
    void setBool(bool value) noexcept;
    void reset() noexcept;
    // The array with its reference; empties the value. Null unless holdsArray().
    matrix::unique_dvArray releaseArray() noexcept;

private:
    std::variant<std::monostate, boost::intrusive_ptr<dvArray>, bool> value_;
};

// Who is asking: access checks compare a member's access value with the
// client's level. The public client (the language user) reaches members of
// access Public only; the class client reaches every member.
class QZHOST_API COSClient {
public:
    explicit constexpr COSClient(int accessLevel) noexcept : accessLevel_(accessLevel) {}
    bool mayAccess(int memberAccess) const noexcept { return memberAccess <= accessLevel_; }
    // The client of the class's own code (all access).
    static const COSClient* getClassClient() noexcept;

private:
    int accessLevel_;
};

// Member access values.
namespace access {
inline constexpr int Public = 0;
inline constexpr int Private = 2;
} // namespace access

} // namespace kcos

// The client of the language's user: public members only.
QZHOST_API const kcos::COSClient* COSGetPublicClient() noexcept;
