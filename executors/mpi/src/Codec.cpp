#include "Codec.hpp"

#include "MpiErrors.hpp"

#include <mpipool/FunctionRegistry.hpp>

#include <parallel/language/future/FutureErrors.hpp>

#include <cmddistributor/RuntimeException.hpp>
#include <foundation/core/str/Utf.hpp>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/array_wrapper.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/vector.hpp>

#include <limits>
#include <sstream>
#include <streambuf>
#include <type_traits>
#include <variant>

namespace mpipool::codec {

namespace {

using Envelope = Veldspire::KException::KExceptionEnvelope;
using Writer = boost::archive::binary_oarchive;
using Reader = boost::archive::binary_iarchive;
using foundation::core::except::MessageArgument;
using foundation::core::except::MessageArguments;
using foundation::core::except::MessageID;
using foundation::core::str::toUtf16;
using matrix::ClassID;
namespace futureErrors = parallel::language::future::errors;

// Neither side needs archive headers or object tracking: both run one build.
constexpr unsigned int kArchiveFlags =
    boost::archive::no_header | boost::archive::no_codecvt | boost::archive::no_tracking;

// The array kinds on the wire. Null is an empty element of a cell or struct.
enum class Kind : std::uint8_t { Null, Double, Logical, Char, Cell, Struct, FunctionHandle };

// Reads an archive straight out of a received buffer.
class ReadBuffer : public std::streambuf {
public:
    explicit ReadBuffer(const protocol::Bytes& bytes) {
        char* begin = const_cast<char*>(bytes.data()); // only read: streambuf wants char*
        setg(begin, begin, begin + bytes.size());
    }
};

template <class Write>
protocol::Bytes written(Write write) {
    std::stringbuf buffer(std::ios::out | std::ios::binary);
    {
        Writer archive(buffer, kArchiveFlags);
        write(archive);
    }
    return std::move(buffer).str();
}

// --- text

void saveText(Writer& out, std::u16string_view text) {
    const std::uint64_t size = text.size();
    out << size;
    if (size != 0) {
        out << boost::serialization::make_array(text.data(), text.size());
    }
}

std::u16string loadText(Reader& in) {
    std::uint64_t size = 0;
    in >> size;
    std::u16string text;
    text.resize(size); // a string the archive holds: reading fails past its end
    if (size != 0) {
        in >> boost::serialization::make_array(text.data(), text.size());
    }
    return text;
}

// --- arrays

Kind kindOf(const dvArray* array) {
    if (array == nullptr) {
        return Kind::Null;
    }
    switch (dvGetClassID(array)) {
    case ClassID::Double:
        return Kind::Double;
    case ClassID::Logical:
        return Kind::Logical;
    case ClassID::Char:
        return Kind::Char;
    case ClassID::Cell:
        return Kind::Cell;
    case ClassID::Struct:
        return Kind::Struct;
    case ClassID::FunctionHandle:
        return Kind::FunctionHandle;
    default:
        throw errors::UnsupportedArray(toUtf16(dvGetClassName(array)));
    }
}

template <class T>
void saveElements(Writer& out, std::span<const T> elements) {
    if (!elements.empty()) {
        out << boost::serialization::make_array(elements.data(), elements.size());
    }
}

template <class T>
void loadElements(Reader& in, std::span<T> elements) {
    if (!elements.empty()) {
        in >> boost::serialization::make_array(elements.data(), elements.size());
    }
}

void saveArray(Writer& out, const dvArray* array) {
    const Kind kind = kindOf(array);
    out << static_cast<std::uint8_t>(kind);
    if (kind == Kind::Null) {
        return;
    }
    out << dvGetDimensions(array);
    const std::size_t count = dvGetNumberOfElements(array);
    switch (kind) {
    case Kind::Double:
        saveElements(out, dvGetDoubles(array));
        break;
    case Kind::Logical:
        saveElements(out, dvGetLogicals(array));
        break;
    case Kind::Char: {
        const std::u16string_view chars = dvGetChars(array);
        saveElements(out, std::span<const char16_t>(chars.data(), chars.size()));
        break;
    }
    case Kind::Cell:
        for (std::size_t i = 0; i < count; ++i) {
            saveArray(out, dvGetCell(array, i));
        }
        break;
    case Kind::Struct: {
        const std::vector<std::string>& fields = dvGetFieldNames(array);
        out << fields;
        for (std::size_t i = 0; i < count; ++i) {
            for (const std::string& field : fields) {
                saveArray(out, dvGetField(array, i, field));
            }
        }
        break;
    }
    case Kind::FunctionHandle: {
        const std::string& name = dvGetFunctionHandleName(array);
        if (!isRegistered(name)) {
            throw errors::UnregisteredFunction(toUtf16(name));
        }
        out << name;
        break;
    }
    case Kind::Null:
        break;
    }
}

std::size_t elementCount(const matrix::Dimensions& dims) {
    std::size_t count = 1;
    for (const std::size_t extent : dims) {
        if (extent != 0 && count > std::numeric_limits<std::size_t>::max() / extent) {
            throw errors::UnreadableMessage(u"array dimensions overflow");
        }
        count *= extent;
    }
    return count;
}

matrix::unique_dvArray loadArray(Reader& in) {
    std::uint8_t kind = 0;
    in >> kind;
    if (static_cast<Kind>(kind) == Kind::Null) {
        return nullptr;
    }
    matrix::Dimensions dims;
    in >> dims;
    matrix::unique_dvArray array;
    switch (static_cast<Kind>(kind)) {
    case Kind::Double:
        array = matrix::detail::do_create_uninitnumeric(dims, ClassID::Double);
        loadElements(in, dvGetMutableDoubles(array.get()));
        break;
    case Kind::Logical:
        array = matrix::detail::do_create_uninitnumeric(dims, ClassID::Logical);
        loadElements(in, dvGetMutableLogicals(array.get()));
        break;
    case Kind::Char: {
        std::u16string chars(elementCount(dims), u'\0');
        loadElements(in, std::span<char16_t>(chars.data(), chars.size()));
        array = matrix::createChars(dims, std::move(chars));
        break;
    }
    case Kind::Cell: {
        array = matrix::detail::do_create_cell(dims);
        const std::size_t count = dvGetNumberOfElements(array.get());
        for (std::size_t i = 0; i < count; ++i) {
            dvSetCell(array.get(), i, loadArray(in));
        }
        break;
    }
    case Kind::Struct: {
        std::vector<std::string> fields;
        in >> fields;
        array = matrix::detail::do_create_struct(dims, fields);
        const std::size_t count = dvGetNumberOfElements(array.get());
        for (std::size_t i = 0; i < count; ++i) {
            for (const std::string& field : fields) {
                dvSetField(array.get(), i, field, loadArray(in));
            }
        }
        break;
    }
    case Kind::FunctionHandle: {
        std::string name;
        in >> name;
        array = matrix::from_korvex(functionHandle(name).detach());
        break;
    }
    default:
        throw errors::UnreadableMessage(u"unknown kind of array");
    }
    return array;
}

// --- errors

// An error that arrived from another process, as its identifiers, arguments
// and text. Only used to build an envelope.
class RemoteError final : public foundation::core::except::IMsgIDException,
                          public foundation::core::except::IUserException {
public:
    RemoteError(std::string errorId, MessageID messageId, MessageArguments arguments,
                std::u16string message)
        : errorId_(std::move(errorId)), messageId_(std::move(messageId)),
          arguments_(std::move(arguments)), message_(std::move(message)),
          what_(foundation::core::str::toUtf8(message_)) {}

    const MessageID& get_message_id() const noexcept override { return messageId_; }
    const std::string& get_error_id() const noexcept override { return errorId_; }
    const MessageArguments& get_arguments() const noexcept override { return arguments_; }
    std::u16string get_message() const override { return message_; }
    const char* what() const noexcept override { return what_.c_str(); }
    [[noreturn]] void rethrow() const override { throw *this; }

private:
    std::string errorId_;
    MessageID messageId_;
    MessageArguments arguments_;
    std::u16string message_;
    std::string what_;
};

void saveArgument(Writer& out, const MessageArgument& argument) {
    out << static_cast<std::uint8_t>(argument.index());
    std::visit(
        [&out](const auto& value) {
            if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::u16string>) {
                saveText(out, value);
            } else {
                out << value;
            }
        },
        argument);
}

MessageArgument loadArgument(Reader& in) {
    std::uint8_t index = 0;
    in >> index;
    switch (index) {
    case 0: {
        std::int64_t value = 0;
        in >> value;
        return value;
    }
    case 1: {
        std::uint64_t value = 0;
        in >> value;
        return value;
    }
    case 2: {
        double value = 0;
        in >> value;
        return value;
    }
    case 3:
        return loadText(in);
    default:
        throw errors::UnreadableMessage(u"unknown kind of message argument");
    }
}

void saveError(Writer& out, const Envelope& error) {
    out << error.GetID() << error.GetMessageID().component << error.GetMessageID().key;
    const std::uint64_t numArguments = error.GetArguments().size();
    out << numArguments;
    for (const MessageArgument& argument : error.GetArguments()) {
        saveArgument(out, argument);
    }
    saveText(out, error.GetMessage());
    saveArray(out, error.GetStack());
    const bool fillStackOnThrow = error.GetFillStackOnThrow();
    out << fillStackOnThrow;
    const std::uint64_t numCauses = error.GetCauses().size();
    out << numCauses;
    for (const Envelope& cause : error.GetCauses()) {
        saveError(out, cause);
    }
}

Envelope loadError(Reader& in) {
    std::string errorId;
    MessageID messageId;
    in >> errorId >> messageId.component >> messageId.key;
    std::uint64_t numArguments = 0;
    in >> numArguments;
    MessageArguments arguments;
    for (std::uint64_t i = 0; i < numArguments; ++i) {
        arguments.push_back(loadArgument(in));
    }
    std::u16string message = loadText(in);
    matrix::unique_dvArray stack = loadArray(in);
    bool fillStackOnThrow = false;
    in >> fillStackOnThrow;
    Envelope error(RemoteError(std::move(errorId), std::move(messageId), std::move(arguments),
                               std::move(message)),
                   std::move(stack), fillStackOnThrow);
    std::uint64_t numCauses = 0;
    in >> numCauses;
    for (std::uint64_t i = 0; i < numCauses; ++i) {
        error.AddCause(loadError(in));
    }
    return error;
}

Envelope envelopeOf(const foundation::core::except::IUserException& error) {
    return Envelope(error, matrix::dvCreateStackStruct(0));
}

template <class Read>
auto readHeader(Read read) {
    try {
        return read();
    } catch (const std::exception& e) {
        throw errors::UnreadableMessage(toUtf16(e.what()));
    }
}

} // namespace

Envelope toEnvelope(const std::exception_ptr& error) {
    if (!error) {
        return envelopeOf(futureErrors::UnknownGetErrors());
    }
    try {
        std::rethrow_exception(error);
    } catch (const cmddistributor::RuntimeException& e) {
        return Veldspire::KException::CreateKException(e);
    } catch (const Envelope& e) {
        return e;
    } catch (const foundation::core::except::IUserException& e) {
        return envelopeOf(e);
    } catch (const std::exception& e) {
        return envelopeOf(futureErrors::StdException(toUtf16(e.what())));
    } catch (...) {
        return envelopeOf(futureErrors::UnknownGetErrors());
    }
}

protocol::Bytes encodeTask(TaskId id, const dvArray* function, unsigned int numOutputs,
                           const DvArrayVector& inputs) {
    const std::string& name = dvGetFunctionHandleName(function);
    if (!isRegistered(name)) {
        throw errors::UnregisteredFunction(toUtf16(name));
    }
    return written([&](Writer& out) {
        const std::uint64_t numInputs = inputs.size();
        out << id << name << numOutputs << numInputs;
        for (const auto& input : inputs) {
            saveArray(out, input.get());
        }
    });
}

TaskMessage decodeTask(const protocol::Bytes& bytes) {
    ReadBuffer buffer(bytes);
    TaskMessage task;
    std::uint64_t numInputs = 0;
    std::optional<Reader> in;
    readHeader([&] {
        in.emplace(buffer, kArchiveFlags);
        *in >> task.id >> task.function >> task.numOutputs >> numInputs;
        return 0;
    });
    try {
        for (std::uint64_t i = 0; i < numInputs; ++i) {
            task.inputs.emplace_back(matrix::to_korvex(loadArray(*in)), false);
        }
    } catch (...) {
        task.inputs.clear();
        task.inputError = std::current_exception();
    }
    return task;
}

protocol::Bytes encodeTaskId(TaskId id) {
    return written([&](Writer& out) { out << id; });
}

TaskId decodeTaskId(const protocol::Bytes& bytes) {
    return readHeader([&] {
        ReadBuffer buffer(bytes);
        Reader in(buffer, kArchiveFlags);
        TaskId id = 0;
        in >> id;
        return id;
    });
}

protocol::Bytes encodeResult(TaskId id, Outcome outcome, const OutputsOrError& result,
                             const std::u16string& diary) {
    auto write = [&](Outcome kind, const OutputsOrError& payload) {
        return written([&](Writer& out) {
            out << id << static_cast<std::uint8_t>(kind);
            saveText(out, diary);
            if (kind == Outcome::Outputs) {
                const DvArrayVector& outputs = payload.value().value();
                const std::uint64_t numOutputs = outputs.size();
                out << numOutputs;
                for (const auto& output : outputs) {
                    saveArray(out, output.get());
                }
            } else if (kind == Outcome::Error) {
                saveError(out, toEnvelope(payload.error()));
            }
        });
    };
    try {
        return write(outcome, result);
    } catch (...) {
        // Outputs that cannot be sent: the evaluation fails with the reason.
        return write(Outcome::Error, OutputsOrError(std::current_exception()));
    }
}

ResultMessage decodeResult(const protocol::Bytes& bytes) {
    ReadBuffer buffer(bytes);
    ResultMessage message;
    std::optional<Reader> in;
    readHeader([&] {
        in.emplace(buffer, kArchiveFlags);
        std::uint8_t outcome = 0;
        *in >> message.id >> outcome;
        message.outcome = static_cast<Outcome>(outcome);
        message.diary = loadText(*in);
        return 0;
    });
    try {
        if (message.outcome == Outcome::Outputs) {
            std::uint64_t numOutputs = 0;
            *in >> numOutputs;
            DvArrayVector outputs;
            for (std::uint64_t i = 0; i < numOutputs; ++i) {
                outputs.emplace_back(matrix::to_korvex(loadArray(*in)), false);
            }
            message.result = OutputsOrError(std::optional<DvArrayVector>(std::move(outputs)));
        } else if (message.outcome == Outcome::Error) {
            message.result = OutputsOrError(std::make_exception_ptr(loadError(*in)));
        }
    } catch (...) {
        message.outcome = Outcome::Error;
        message.result = OutputsOrError(std::current_exception());
    }
    return message;
}

} // namespace mpipool::codec
