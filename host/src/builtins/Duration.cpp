// "duration": a length of time, made from hours, minutes and seconds.

#include "BuiltinMethod.hpp"

#include <cmath>
#include <cstdio>

namespace hostclasses {

namespace {

using Invalid = errors::InvalidDuration;

struct DurationData {
    double seconds = 0.0;
};

kcos::InternedName key() {
    static const kcos::InternedName name = kcos::internal::makeInterned("duration");
    return name;
}

const DurationData& requireData(const dvArray* array) {
    const DurationData* data = dataOf<DurationData>(array, key());
    if (data == nullptr) {
        fail<Invalid>();
    }
    return *data;
}

void construct(int& numOutputs, kcos::COSValue* outputs, std::span<const kcos::COSValue> inputs) {
    if (inputs.size() != 3) {
        fail<Invalid>();
    }
    double parts[3];
    for (std::size_t i = 0; i < 3; ++i) {
        if (!isDoubleScalar(inputs[i].getArray())) {
            fail<Invalid>();
        }
        parts[i] = dvGetDoubles(inputs[i].getArray())[0];
    }
    auto* data = dataOf<DurationData>(outputs[0].getArray(), key());
    if (data == nullptr) {
        fail<Invalid>();
    }
    data->seconds = parts[0] * 3600.0 + parts[1] * 60.0 + parts[2];
    numOutputs = 1;
}

void seconds(int& numOutputs, kcos::COSValue* outputs, std::span<const kcos::COSValue> inputs) {
    if (inputs.size() != 1) {
        fail<Invalid>();
    }
    outputs[0].setArray(dvCreateDoubleScalar(requireData(inputs[0].getArray()).seconds));
    numOutputs = 1;
}

// "hh:mm:ss", with the fraction of a second when there is one: "00:00:01.5".
std::string formatted(double total) {
    if (!std::isfinite(total)) {
        return "NaN";
    }
    const bool negative = total < 0;
    total = std::fabs(total);
    const auto hours = static_cast<long long>(total / 3600.0);
    const auto minutes = static_cast<int>((total - static_cast<double>(hours) * 3600.0) / 60.0);
    const double secs = total - static_cast<double>(hours) * 3600.0 - minutes * 60.0;
    char text[64];
    if (secs == std::floor(secs)) {
        std::snprintf(text, sizeof text, "%s%02lld:%02d:%02d", negative ? "-" : "", hours, minutes,
                      static_cast<int>(secs));
    } else {
        std::snprintf(text, sizeof text, "%s%02lld:%02d:%s%g", negative ? "-" : "", hours, minutes,
                      secs < 10.0 ? "0" : "", secs);
    }
    return text;
}

void toChar(int& numOutputs, kcos::COSValue* outputs, std::span<const kcos::COSValue> inputs) {
    if (inputs.size() != 1) {
        fail<Invalid>();
    }
    outputs[0].setArray(charRow(formatted(requireData(inputs[0].getArray()).seconds)));
    numOutputs = 1;
}

class DurationInfo : public DataClassInfo<DurationData> {
public:
    const char* getName() const override { return "duration"; }
    void initializeClass(kcos::COSClass* cls, const kcos::COSClient*) override {
        addMethod(*cls, "duration", false, construct);
        addMethod(*cls, "seconds", false, seconds);
        addMethod(*cls, "char", false, toChar);
    }
};

} // namespace

void registerDuration() {
    registerInfo("", std::unique_ptr<kcos::COSClassInfo>(new DurationInfo));
}

} // namespace hostclasses
