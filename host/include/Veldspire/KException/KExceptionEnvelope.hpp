#pragma once

// Error envelopes of the interpreter: an error with an error identifier, a
// message identifier and arguments, a message text, a call stack and causes.
// Envelopes are values: copying one copies its causes. An envelope becomes a
// host value as an error object (KExceptionObject) inside a 1-by-1 object
// array of class "KException" (kcos::array::create of GetExceptionObject()).
// Any thread; one envelope object is not written by two threads at once.

#include <foundation/core/except/Exception.hpp>
#include <host/Export.hpp>
#include <matrix/dvArray.hpp>

#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace cmddistributor {
class RuntimeException;
}

namespace Veldspire::KException {

class KExceptionObject;

class QZHOST_API KExceptionEnvelope : public std::exception {
public:
    // From a typed exception. An IUserException that is not an
    // IMsgIDException gets the identifier "KORVEX:unknown:UserError".
    // `stack` is the call-stack structure (dvCreateStackStruct); null means
    // an empty one. `fillStackOnThrow` asks the interpreter to record the
    // stack when the envelope is thrown to the language.
    KExceptionEnvelope(const foundation::core::except::IUserException& error,
                       matrix::unique_dvArray stack, bool fillStackOnThrow = false);
    // From an identifier and a message text, with no message arguments.
    KExceptionEnvelope(std::string errorId, std::u16string message);
    // From an error object array (1-by-1 of class "KException"); anything
    // else throws std::invalid_argument "Array is not an error object.".
    explicit KExceptionEnvelope(const dvArray* errorObject);

    KExceptionEnvelope(const KExceptionEnvelope&);
    KExceptionEnvelope(KExceptionEnvelope&&) noexcept;
    KExceptionEnvelope& operator=(const KExceptionEnvelope&);
    KExceptionEnvelope& operator=(KExceptionEnvelope&&) noexcept;
    ~KExceptionEnvelope() override;

    void AddCause(const KExceptionEnvelope& cause);
    void AddCauses(const std::vector<KExceptionEnvelope>& causes);

    // Equal identifiers, message texts, arguments and causes (in order). The
    // stacks are not compared.
    bool operator==(const KExceptionEnvelope& other) const;

    // The error identifier, as the language reports it.
    const std::string& GetID() const noexcept;
    const foundation::core::except::MessageID& GetMessageID() const noexcept;
    const foundation::core::except::MessageArguments& GetArguments() const noexcept;
    const std::u16string& GetMessage() const noexcept;
    const std::vector<KExceptionEnvelope>& GetCauses() const noexcept;
    // The call-stack structure; never null.
    const dvArray* GetStack() const noexcept;
    bool GetFillStackOnThrow() const noexcept;
    const char* what() const noexcept override;

    // A new error object holding a copy of this envelope.
    std::shared_ptr<KExceptionObject> GetExceptionObject() const;

private:
    struct Data;
    const Data& data() const noexcept;
    std::unique_ptr<Data> data_;
};

// The error object of the language: the element type of an error array.
class QZHOST_API KExceptionObject : public matrix::dvObject {
public:
    explicit KExceptionObject(KExceptionEnvelope envelope);
    const std::string& className() const noexcept override;
    const KExceptionEnvelope& envelope() const noexcept { return envelope_; }

private:
    KExceptionEnvelope envelope_;
};

// The envelope of an error that the command distributor reported: the error
// of the failed work when it carries one, otherwise an envelope with the
// identifier "KORVEX:cmddistributor:RuntimeError" and the exception's text.
QZHOST_API KExceptionEnvelope CreateKException(const cmddistributor::RuntimeException& error);

} // namespace Veldspire::KException
