#include <Veldspire/KException/KExceptionEnvelope.hpp>

#include <cmddistributor/RuntimeException.hpp>
#include <foundation/core/str/Utf.hpp>

#include <stdexcept>
#include <utility>

namespace KORVEX::cmddistributor {
struct RuntimeError {
    static constexpr const char* component = "KORVEX:cmddistributor";
    static constexpr const char* key = "RuntimeError";
};
} // namespace KORVEX::cmddistributor

namespace Veldspire::KException {

using foundation::core::except::IMsgIDException;
using foundation::core::except::IUserException;
using foundation::core::except::MessageArguments;
using foundation::core::except::MessageID;

struct KExceptionEnvelope::Data {
    std::string errorId;
    MessageID messageId;
    MessageArguments arguments;
    std::u16string message;
    std::string what; // the message in UTF-8
    boost::intrusive_ptr<dvArray> stack;
    bool fillStackOnThrow = false;
    std::vector<KExceptionEnvelope> causes;
};

namespace {

// "a:b:c" -> {"a:b", "c"}; an identifier without ":" is all key.
MessageID splitIdentifier(const std::string& id) {
    const auto colon = id.rfind(':');
    if (colon == std::string::npos) {
        return {{}, id};
    }
    return {id.substr(0, colon), id.substr(colon + 1)};
}

boost::intrusive_ptr<dvArray> stackOrEmpty(matrix::unique_dvArray stack) {
    if (!stack) {
        stack = matrix::dvCreateStackStruct(0);
    }
    return boost::intrusive_ptr<dvArray>(stack.release(), false);
}

} // namespace

KExceptionEnvelope::KExceptionEnvelope(const IUserException& error, matrix::unique_dvArray stack,
                                       bool fillStackOnThrow)
    : data_(std::make_unique<Data>()) {
    if (const auto* withId = dynamic_cast<const IMsgIDException*>(&error)) {
        data_->errorId = withId->get_error_id();
        data_->messageId = withId->get_message_id();
        data_->arguments = withId->get_arguments();
    } else {
        data_->errorId = "KORVEX:unknown:UserError";
        data_->messageId = splitIdentifier(data_->errorId);
        data_->arguments = {error.get_message()};
    }
    data_->message = error.get_message();
    data_->what = foundation::core::str::toUtf8(data_->message);
    data_->stack = stackOrEmpty(std::move(stack));
    data_->fillStackOnThrow = fillStackOnThrow;
}

KExceptionEnvelope::KExceptionEnvelope(std::string errorId, std::u16string message)
    : data_(std::make_unique<Data>()) {
    data_->messageId = splitIdentifier(errorId);
    data_->errorId = std::move(errorId);
    data_->message = std::move(message);
    data_->what = foundation::core::str::toUtf8(data_->message);
    data_->stack = stackOrEmpty(nullptr);
}

KExceptionEnvelope::KExceptionEnvelope(const dvArray* errorObject) {
    std::shared_ptr<KExceptionObject> object;
    if (errorObject != nullptr && dvGetClassID(errorObject) == matrix::ClassID::Object &&
        dvGetDimensions(errorObject) == matrix::Dimensions{1, 1}) {
        object = std::dynamic_pointer_cast<KExceptionObject>(dvGetObject(errorObject, 0));
    }
    if (!object) {
        throw std::invalid_argument("Array is not an error object.");
    }
    data_ = std::make_unique<Data>(*object->envelope().data_);
}

KExceptionEnvelope::KExceptionEnvelope(const KExceptionEnvelope& other)
    : std::exception(other), data_(other.data_ ? std::make_unique<Data>(*other.data_) : nullptr) {}

KExceptionEnvelope::KExceptionEnvelope(KExceptionEnvelope&&) noexcept = default;

KExceptionEnvelope& KExceptionEnvelope::operator=(const KExceptionEnvelope& other) {
    if (this != &other) {
        data_ = other.data_ ? std::make_unique<Data>(*other.data_) : nullptr;
    }
    return *this;
}

KExceptionEnvelope& KExceptionEnvelope::operator=(KExceptionEnvelope&&) noexcept = default;

KExceptionEnvelope::~KExceptionEnvelope() = default;

void KExceptionEnvelope::AddCause(const KExceptionEnvelope& cause) {
    AddCauses({cause});
}

void KExceptionEnvelope::AddCauses(const std::vector<KExceptionEnvelope>& causes) {
    if (!data_) {
        data_ = std::make_unique<Data>();
    }
    data_->causes.insert(data_->causes.end(), causes.begin(), causes.end());
}

bool KExceptionEnvelope::operator==(const KExceptionEnvelope& other) const {
    const Data& a = data();
    const Data& b = other.data();
    return a.errorId == b.errorId && a.messageId == b.messageId && a.arguments == b.arguments &&
           a.message == b.message && a.causes == b.causes;
}

const std::string& KExceptionEnvelope::GetID() const noexcept {
    return data().errorId;
}

const MessageID& KExceptionEnvelope::GetMessageID() const noexcept {
    return data().messageId;
}

const MessageArguments& KExceptionEnvelope::GetArguments() const noexcept {
    return data().arguments;
}

const std::u16string& KExceptionEnvelope::GetMessage() const noexcept {
    return data().message;
}

const std::vector<KExceptionEnvelope>& KExceptionEnvelope::GetCauses() const noexcept {
    return data().causes;
}

const dvArray* KExceptionEnvelope::GetStack() const noexcept {
    return data().stack.get();
}

bool KExceptionEnvelope::GetFillStackOnThrow() const noexcept {
    return data().fillStackOnThrow;
}

const char* KExceptionEnvelope::what() const noexcept {
    return data().what.c_str();
}

std::shared_ptr<KExceptionObject> KExceptionEnvelope::GetExceptionObject() const {
    return std::make_shared<KExceptionObject>(*this);
}

const KExceptionEnvelope::Data& KExceptionEnvelope::data() const noexcept {
    // A moved-from envelope reads as empty, with a null stack.
    static const Data empty;
    return data_ ? *data_ : empty;
}

KExceptionObject::KExceptionObject(KExceptionEnvelope envelope) : envelope_(std::move(envelope)) {}

const std::string& KExceptionObject::className() const noexcept {
    static const std::string name = "KException";
    return name;
}

KExceptionEnvelope CreateKException(const cmddistributor::RuntimeException& error) {
    if (const auto& workError = error.getWorkError()) {
        try {
            std::rethrow_exception(workError);
        } catch (const KExceptionEnvelope& envelope) {
            return envelope;
        } catch (const IUserException& userError) {
            return KExceptionEnvelope(userError, nullptr);
        } catch (...) {
            // Any other work error is reported through the distributor's own text.
        }
    }
    using RuntimeError = foundation::core::except::Exception<KORVEX::cmddistributor::RuntimeError>;
    return KExceptionEnvelope(RuntimeError(foundation::core::str::toUtf16(error.what())), nullptr);
}

} // namespace Veldspire::KException
