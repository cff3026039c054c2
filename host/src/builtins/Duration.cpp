// "duration": a length of time, made from hours, minutes and seconds.

#include "BuiltinMethod.hpp"

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

class DurationInfo : public DataClassInfo<DurationData> {
public:
    const char* getName() const override { return "duration"; }
    void initializeClass(kcos::COSClass* cls, const kcos::COSClient*) override {
        addMethod(*cls, "duration", false, construct);
        addMethod(*cls, "seconds", false, seconds);
    }
};

} // namespace

void registerDuration() {
    registerInfo("", std::unique_ptr<kcos::COSClassInfo>(new DurationInfo));
}

} // namespace hostclasses
