#pragma once

// Building blocks of the host's built-in classes. Interpreter thread.

#include <kcos/COSClass.hpp>
#include <kcos/COSInterface.hpp>
#include <kcos/array.hpp>

#include <foundation/core/except/Exception.hpp>

#include <functional>
#include <memory>
#include <span>
#include <string>

namespace hostclasses {

// Errors of the built-in classes; texts in the host catalogue.
namespace errors {
struct InvalidDateTime {
    static constexpr const char* component = "KORVEX:datetime";
    static constexpr const char* key = "InvalidInput";
};
struct InvalidDuration {
    static constexpr const char* component = "KORVEX:duration";
    static constexpr const char* key = "InvalidInput";
};
struct InvalidDisplayer {
    static constexpr const char* component = "KORVEX:FutureDisplayer";
    static constexpr const char* key = "InvalidInput";
};
} // namespace errors

template <class Tag>
[[noreturn]] void fail() {
    throw foundation::core::except::Exception<Tag>();
}

// A method whose body is a function of (outputs requested and produced,
// outputs, inputs). Inputs and outputs of any type and number: the body
// checks them.
class BuiltinMethod : public kcos::COSMethodBase {
public:
    using Body = std::function<void(int& numOutputs, kcos::COSValue* outputs,
                                    std::span<const kcos::COSValue> inputs)>;
    BuiltinMethod(const char* name, bool isStatic, Body body);
    void invoke(const kcos::COSClient*, int& numOutputs, kcos::COSValue* outputs, int numInputs,
                const kcos::COSValue* inputs) override;

private:
    Body body_;
};

// Adds `member` to `cls`, which owns it from then on.
void addMethod(kcos::COSClass& cls, const char* name, bool isStatic, BuiltinMethod::Body body);
void addProperty(kcos::COSClass& cls, kcos::COSPropT* property);

// The instance data of type T of the single object of a 1-by-1 array of
// class `key`; null when there is none.
template <class T>
T* dataOf(const dvArray* array, kcos::InternedName key) {
    if (array == nullptr || dvGetClassID(array) != matrix::ClassID::Object ||
        dvGetNumberOfElements(array) != 1) {
        return nullptr;
    }
    kcos::COSInterface* object = omGetLiveArrayElement(const_cast<dvArray*>(array), 0);
    return object != nullptr && !object->isDestroyed() ? static_cast<T*>(object->getData(key))
                                                       : nullptr;
}

// A char row of UTF-8 text; the text of a char array.
matrix::unique_dvArray charRow(const std::string& text);
std::string textOf(const dvArray* array);
bool isCharRow(const dvArray* array);
bool isDoubleScalar(const dvArray* array);

// A new 1-by-1 array holding a new object of `cls` with its instance data.
matrix::unique_dvArray newObject(kcos::COSClass& cls);

// A class whose objects carry a `Data` as instance data.
template <class Data>
class DataClassInfo : public kcos::COSClassInfo {
public:
    bool hasNativeInstanceData() const override { return true; }
    void* createInstanceData() override { return new Data(); }
    void destroyInstanceData(kcos::COSInterface*, void* data) override {
        delete static_cast<Data*>(data);
    }
};

// Registers `info` in `package`, which owns it from then on.
void registerInfo(const char* package, std::unique_ptr<kcos::COSClassInfo> info);

// Registration of each class.
void registerDateTime();
void registerDuration();
void registerFutureDisplayer();

} // namespace hostclasses
