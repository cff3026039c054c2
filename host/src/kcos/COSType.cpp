// Data types: "any", "logical scalar", and class names.

#include <kcos/COSClass.hpp>
#include <kcos/COSType.hpp>
#include <kcos/array.hpp>

#include <map>
#include <mutex>
#include <vector>

namespace kcos {

namespace {

// Collects the objects held in `array`, recursing into cells and structures.
void collectInterfaces(const dvArray* array, std::vector<COSInterface*>& out) {
    if (array == nullptr) {
        return;
    }
    const std::size_t count = dvGetNumberOfElements(array);
    switch (dvGetClassID(array)) {
    case matrix::ClassID::Object:
        for (std::size_t i = 0; i < count; ++i) {
            if (auto* object = dynamic_cast<COSInterface*>(dvGetObject(array, i).get())) {
                out.push_back(object);
            }
        }
        break;
    case matrix::ClassID::Cell:
        for (std::size_t i = 0; i < count; ++i) {
            collectInterfaces(dvGetCell(array, i), out);
        }
        break;
    case matrix::ClassID::Struct:
        for (std::size_t i = 0; i < count; ++i) {
            for (const std::string& field : dvGetFieldNames(array)) {
                collectInterfaces(dvGetField(array, i, field), out);
            }
        }
        break;
    default:
        break;
    }
}

class VectorEnumeration : public EnumerationUtil<COSInterface*> {
public:
    explicit VectorEnumeration(std::vector<COSInterface*> items) : items_(std::move(items)) {}
    bool hasMoreElements() const override { return next_ < items_.size(); }
    COSInterface* nextElement() override {
        if (next_ >= items_.size()) {
            throw ENoElements();
        }
        return items_[next_++];
    }

private:
    std::vector<COSInterface*> items_;
    std::size_t next_ = 0;
};

} // namespace

COSDataType::COSDataType(InternedName name) : name_(name) {}
COSDataType::~COSDataType() = default;

bool COSDataType::accepts(const COSValue& value) const {
    const std::string& name = name_.str();
    if (name == "any") {
        return true;
    }
    if (name == "logical scalar") {
        return value.holdsBool() ||
               (value.getArray() != nullptr && dvIsLogicalScalar(value.getArray()));
    }
    const dvArray* array = value.getArray();
    if (array == nullptr || dvGetClassID(array) != matrix::ClassID::Object) {
        return false;
    }
    const COSClass* wanted = COSClass::getClass(name_);
    const COSClass* actual = COSClass::getClass(internal::makeInterned(dvGetClassName(array)));
    return wanted != nullptr && actual != nullptr && actual->isSubclassOf(*wanted);
}

Enumeration<COSInterface*> COSDataType::getInterfaces(const dvArray* value) const {
    std::vector<COSInterface*> objects;
    collectInterfaces(value, objects);
    return Enumeration<COSInterface*>(std::make_unique<VectorEnumeration>(std::move(objects)));
}

COSDataTypePtr COSTypeRepository::getType(InternedName name) {
    static std::mutex mutex;
    static auto* types = new std::map<InternedName, COSDataTypePtr>();
    const std::lock_guard lock(mutex);
    COSDataTypePtr& type = (*types)[name];
    if (!type) {
        type = std::make_shared<const COSDataType>(name);
    }
    return type;
}

} // namespace kcos
