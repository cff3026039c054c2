// "datetime": a point in time (seconds since 1970 UTC) and a time zone.
// A value class: "subsasgn" gives a new object and leaves its input as it was.

#include "BuiltinMethod.hpp"

#include <foundation/core/str/Utf.hpp>
#include <kcos/Language.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <ctime>

namespace hostclasses {

namespace {

using Invalid = errors::InvalidDateTime;

struct DateTimeData {
    double seconds = 0.0;
    std::string zone; // "UTC", "local", or empty
};

kcos::InternedName key() {
    static const kcos::InternedName name = kcos::internal::makeInterned("datetime");
    return name;
}

DateTimeData& requireData(const dvArray* array) {
    DateTimeData* data = dataOf<DateTimeData>(array, key());
    if (data == nullptr) {
        fail<Invalid>();
    }
    return *data;
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

double doubleArgument(const kcos::COSValue& value) {
    if (!isDoubleScalar(value.getArray())) {
        fail<Invalid>();
    }
    return dvGetDoubles(value.getArray())[0];
}

std::string textArgument(const kcos::COSValue& value) {
    if (!isCharRow(value.getArray())) {
        fail<Invalid>();
    }
    return textOf(value.getArray());
}

std::string zoneArgument(const kcos::COSValue& value) {
    std::string zone = textArgument(value);
    if (zone != "UTC" && zone != "local" && !zone.empty()) {
        fail<Invalid>();
    }
    return zone;
}

// datetime(X, name, value, ...) reads epoch ticks.
void construct(int& numOutputs, kcos::COSValue* outputs, std::span<const kcos::COSValue> inputs) {
    DateTimeData& data = requireData(outputs[0].getArray());
    if (inputs.size() % 2 == 0) {
        fail<Invalid>();
    }
    const double ticks = doubleArgument(inputs[0]);
    double ticksPerSecond = 1.0;
    bool epoch = false;
    std::string zone;
    for (std::size_t i = 1; i < inputs.size(); i += 2) {
        const std::string name = lowered(textArgument(inputs[i]));
        if (name == "convertfrom") {
            if (lowered(textArgument(inputs[i + 1])) != "epochtime") {
                fail<Invalid>();
            }
            epoch = true;
        } else if (name == "tickspersecond") {
            ticksPerSecond = doubleArgument(inputs[i + 1]);
            if (!(ticksPerSecond > 0.0)) {
                fail<Invalid>();
            }
        } else if (name == "timezone") {
            zone = zoneArgument(inputs[i + 1]);
        } else {
            fail<Invalid>();
        }
    }
    if (!epoch) {
        fail<Invalid>();
    }
    data.seconds = ticks / ticksPerSecond;
    data.zone = std::move(zone);
    numOutputs = 1;
}

// subsasgn(d, struct("type", ".", "subs", "TimeZone"), zone)
void subsasgn(int& numOutputs, kcos::COSValue* outputs, std::span<const kcos::COSValue> inputs) {
    if (inputs.size() != 3) {
        fail<Invalid>();
    }
    const DateTimeData& original = requireData(inputs[0].getArray());
    const dvArray* subscript = inputs[1].getArray();
    if (subscript == nullptr || dvGetClassID(subscript) != matrix::ClassID::Struct ||
        dvGetNumberOfElements(subscript) != 1) {
        fail<Invalid>();
    }
    const auto field = [subscript](const char* name) -> std::string {
        const auto& names = dvGetFieldNames(subscript);
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            fail<Invalid>();
        }
        const dvArray* value = dvGetField(subscript, 0, name);
        if (!isCharRow(value)) {
            fail<Invalid>();
        }
        return textOf(value);
    };
    if (field("type") != "." || field("subs") != "TimeZone") {
        fail<Invalid>();
    }
    matrix::unique_dvArray result = newObject(*kcos::COSClass::getClass(key()));
    DateTimeData& copy = requireData(result.get());
    copy.seconds = original.seconds;
    copy.zone = zoneArgument(inputs[2]);
    outputs[0].setArray(std::move(result));
    numOutputs = 1;
}

bool isEmptyArray(const kcos::COSValue& value) {
    return value.getArray() != nullptr && dvGetNumberOfElements(value.getArray()) == 0;
}

void posixtime(int& numOutputs, kcos::COSValue* outputs, std::span<const kcos::COSValue> inputs) {
    if (inputs.size() != 1) {
        fail<Invalid>();
    }
    outputs[0].setArray(isEmptyArray(inputs[0])
                            ? matrix::detail::do_create_numeric({0, 0}, matrix::ClassID::Double)
                            : dvCreateDoubleScalar(requireData(inputs[0].getArray()).seconds));
    numOutputs = 1;
}

// "23-Nov-2026 14:03:12", in UTC for "UTC" and in local time otherwise.
std::string formatted(const DateTimeData& data) {
    if (!std::isfinite(data.seconds)) {
        return "NaT";
    }
    const auto whole = static_cast<std::time_t>(std::floor(data.seconds));
    std::tm parts{};
    if (data.zone == "UTC") {
        gmtime_r(&whole, &parts);
    } else {
        localtime_r(&whole, &parts);
    }
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, "%d-%b-%Y %H:%M:%S", &parts);
    return std::string(text, length);
}

void toChar(int& numOutputs, kcos::COSValue* outputs, std::span<const kcos::COSValue> inputs) {
    if (inputs.size() != 1) {
        fail<Invalid>();
    }
    outputs[0].setArray(isEmptyArray(inputs[0])
                            ? charRow("")
                            : charRow(formatted(requireData(inputs[0].getArray()))));
    numOutputs = 1;
}

void empty(int& numOutputs, kcos::COSValue* outputs, std::span<const kcos::COSValue> inputs) {
    if (!inputs.empty()) {
        matrix::detail::error_maxrhs();
    }
    outputs[0].setRawArray(omCreateKCOSEmpty(key()));
    numOutputs = 1;
}

class TimeZoneProperty : public kcos::COSPropT {
public:
    TimeZoneProperty()
        : kcos::COSPropT(kcos::internal::makeInterned("TimeZone"),
                         kcos::COSTypeRepository::getType(kcos::internal::makeInterned("any")),
                         kcos::access::Public, kcos::access::Private,
                         kcos::property_attribute::Visible | kcos::property_attribute::Dependent,
                         nullptr) {}
    void getValue(kcos::COSValue* out, kcos::COSInterface* object) const override {
        const auto* data = static_cast<const DateTimeData*>(object->getData(key()));
        out->setArray(charRow(data != nullptr ? data->zone : std::string()));
    }
};

class DateTimeInfo : public DataClassInfo<DateTimeData> {
public:
    const char* getName() const override { return "datetime"; }
    void initializeClass(kcos::COSClass* cls, const kcos::COSClient*) override {
        addProperty(*cls, new TimeZoneProperty());
        addMethod(*cls, "datetime", false, construct);
        addMethod(*cls, "empty", true, empty);
        addMethod(*cls, "subsasgn", false, subsasgn);
        addMethod(*cls, "posixtime", false, posixtime);
        addMethod(*cls, "char", false, toChar);
    }
};

} // namespace

void registerDateTime() {
    registerInfo("", std::unique_ptr<kcos::COSClassInfo>(new DateTimeInfo));
}

} // namespace hostclasses
