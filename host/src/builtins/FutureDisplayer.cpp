// "parallel.internal.future.FutureDisplayer": prints a future array as a
// table of ID, State, FinishDateTime, Function and Error, reading each
// element's properties as the language does. Odd values show as "?".

#include "BuiltinMethod.hpp"

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <foundation/core/str/Utf.hpp>
#include <kcos/Language.hpp>
#include <kvm/KVM.hpp>

#include <cstdio>
#include <sstream>

namespace hostclasses {

namespace {

using Invalid = errors::InvalidDisplayer;

struct DisplayerData {
    std::string className = "parallel.Future";
};

kcos::InternedName key() {
    static const kcos::InternedName name =
        kcos::internal::makeInterned("parallel.internal.future.FutureDisplayer");
    return name;
}

void construct(int& numOutputs, kcos::COSValue* outputs, std::span<const kcos::COSValue> inputs) {
    if (inputs.size() != 1 || !isCharRow(inputs[0].getArray())) {
        fail<Invalid>();
    }
    auto* data = dataOf<DisplayerData>(outputs[0].getArray(), key());
    if (data == nullptr) {
        fail<Invalid>();
    }
    data->className = textOf(inputs[0].getArray());
    numOutputs = 1;
}

// The text of the first error message in an error value, or "".
std::string errorText(const dvArray* error) {
    if (error == nullptr || dvGetNumberOfElements(error) == 0) {
        return "";
    }
    if (dvGetClassID(error) == matrix::ClassID::Cell) {
        for (std::size_t i = 0; i < dvGetNumberOfElements(error); ++i) {
            if (std::string text = errorText(dvGetCell(error, i)); !text.empty()) {
                return text;
            }
        }
        return "";
    }
    return foundation::core::str::toUtf8(
        Veldspire::KException::KExceptionEnvelope(error).GetMessage());
}

std::string dateText(const dvArray* date) {
    if (dvGetNumberOfElements(date) == 0) {
        return "";
    }
    return textOf(omInvokeMethod("char", 1, {date}, COSGetPublicClient()).at(0).get());
}

std::string functionText(const dvArray* function) {
    if (dvGetClassID(function) != matrix::ClassID::FunctionHandle) {
        return "";
    }
    return "@" + dvGetFunctionHandleName(function);
}

// One row of the table: the element's properties, or "deleted".
std::string row(std::size_t index, const kcos::COSInterfacePtr& element) {
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "   %3zu  ", index + 1);
    if (!element || element->isDestroyed()) {
        return std::string(prefix) + "deleted";
    }
    auto cell = [&](const char* name, auto&& show) -> std::string {
        try {
            const matrix::unique_dvArray object(omCreateKCOSScalar(element));
            return show(omGetProperty(object.get(), name, COSGetPublicClient()).get());
        } catch (...) {
            return "?";
        }
    };
    const std::string id = cell("ID", [](const dvArray* value) {
        char text[32];
        std::snprintf(text, sizeof text, "%g", dvGetDoubles(value)[0]);
        return std::string(text);
    });
    const std::string state = cell("State", [](const dvArray* value) { return textOf(value); });
    const std::string finished = cell("FinishDateTime", dateText);
    const std::string function = cell("Function", functionText);
    const std::string error = cell("Error", errorText);
    char line[512];
    std::snprintf(line, sizeof line, "%s%4s  %-12s %-21s %-20s %s", prefix, id.c_str(),
                  state.c_str(), finished.c_str(), function.c_str(), error.c_str());
    std::string text = line;
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

void doDisp(int& numOutputs, kcos::COSValue*, std::span<const kcos::COSValue> inputs) {
    if (inputs.size() != 2) {
        fail<Invalid>();
    }
    const DisplayerData* data = dataOf<DisplayerData>(inputs[0].getArray(), key());
    const dvArray* futures = inputs[1].getArray();
    if (data == nullptr || futures == nullptr || dvGetClassID(futures) != matrix::ClassID::Object) {
        fail<Invalid>();
    }
    std::ostringstream out;
    const matrix::Dimensions& dims = dvGetDimensions(futures);
    out << "  ";
    for (std::size_t i = 0; i < dims.size(); ++i) {
        out << (i > 0 ? "x" : "") << dims[i];
    }
    out << ' ' << data->className << " array:\n";
    const std::size_t count = dvGetNumberOfElements(futures);
    if (count > 0) {
        char header[256];
        std::snprintf(header, sizeof header, "   %3s  %4s  %-12s %-21s %-20s %s\n", "", "ID",
                      "State", "FinishDateTime", "Function", "Error");
        out << '\n' << header << "   " << std::string(84, '-') << '\n';
        for (std::size_t i = 0; i < count; ++i) {
            out << row(i, omGetArrayElement(futures, i)) << '\n';
        }
    }
    kvm::print(foundation::core::str::toUtf16(out.str()));
    numOutputs = 0;
}

class DisplayerInfo : public DataClassInfo<DisplayerData> {
public:
    const char* getName() const override { return "FutureDisplayer"; }
    void initializeClass(kcos::COSClass* cls, const kcos::COSClient*) override {
        addMethod(*cls, "FutureDisplayer", false, construct);
        addMethod(*cls, "doDisp", false, doDisp);
    }
};

} // namespace

void registerFutureDisplayer() {
    registerInfo("parallel.internal.future",
                 std::unique_ptr<kcos::COSClassInfo>(new DisplayerInfo));
}

} // namespace hostclasses
