#include "Codec.hpp"

#include "MpiErrors.hpp"

#include <mpipool/FunctionRegistry.hpp>

#include <parallel/language/future/FutureErrors.hpp>

#include <cmddistributor/RuntimeException.hpp>
#include <foundation/core/str/Utf.hpp>

#include <cstring>
#include <limits>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace mpipool::codec {

namespace {

using Envelope = Veldspire::KException::KExceptionEnvelope;
using foundation::core::except::MessageArgument;
using foundation::core::except::MessageArguments;
using foundation::core::except::MessageID;
using foundation::core::str::toUtf16;
using matrix::ClassID;
namespace futureErrors = parallel::language::future::errors;

// The array kinds on the wire. Null is an empty element of a cell or struct.
enum class Kind : std::uint8_t { Null, Double, Logical, Char, Cell, Struct, FunctionHandle };

// --- bytes

// Appends values to a message being written.
class Writer {
public:
    explicit Writer(protocol::Bytes& bytes) : bytes_(bytes) {}

    template <class T>
    void put(const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
    }
    void putCount(std::size_t count) { put(static_cast<std::uint64_t>(count)); }
    template <class T>
    void putAll(std::span<const T> values) {
        if (!values.empty()) {
            bytes_.append(reinterpret_cast<const char*>(values.data()), values.size_bytes());
        }
    }
    // A count, then the characters.
    template <class Char>
    void putText(std::basic_string_view<Char> text) {
        putCount(text.size());
        putAll(std::span<const Char>(text.data(), text.size()));
    }

private:
    protocol::Bytes& bytes_;
};

// Takes values off a received message, in the order they were written.
// Reading past the end, or a count of more items than the bytes left could
// hold, throws KORVEX:mpipool:UnreadableMessage.
class Reader {
public:
    explicit Reader(std::string_view bytes)
        : next_(bytes.data()), end_(bytes.data() + bytes.size()) {}

    template <class T>
    T get() {
        static_assert(std::is_trivially_copyable_v<T>);
        T value;
        std::memcpy(&value, take(sizeof value), sizeof value);
        return value;
    }
    // `count` when the bytes left hold that many items of at least
    // `itemSize` bytes each.
    std::size_t checked(std::uint64_t count, std::size_t itemSize) const {
        if (count > left() / itemSize) {
            throw errors::UnreadableMessage(u"a count exceeds the message");
        }
        return static_cast<std::size_t>(count);
    }
    std::size_t getCount(std::size_t itemSize) { return checked(get<std::uint64_t>(), itemSize); }
    template <class T>
    void getAll(std::span<T> values) {
        if (!values.empty()) {
            std::memcpy(values.data(), take(values.size_bytes()), values.size_bytes());
        }
    }
    template <class Char>
    std::basic_string<Char> getText() {
        std::basic_string<Char> text(getCount(sizeof(Char)), Char());
        getAll(std::span<Char>(text.data(), text.size()));
        return text;
    }
    void expectEnd() const {
        if (left() != 0) {
            throw errors::UnreadableMessage(u"bytes follow the end of the message");
        }
    }
    std::size_t left() const noexcept { return static_cast<std::size_t>(end_ - next_); }

private:
    const char* take(std::size_t size) {
        if (size > left()) {
            throw errors::UnreadableMessage(u"the message ends early");
        }
        const char* at = next_;
        next_ += size;
        return at;
    }

    const char* next_;
    const char* end_;
};

// Room for a small message at once: appending would grow it several times.
constexpr std::size_t kFirstRoom = 256;

template <class Write>
protocol::Bytes written(Write write) {
    protocol::Bytes bytes;
    bytes.reserve(kFirstRoom);
    Writer out(bytes);
    write(out);
    return bytes;
}

// Runs `read`; a failure that is not already an error of the host becomes
// KORVEX:mpipool:UnreadableMessage.
template <class Read>
auto readOrThrow(Read read) {
    try {
        return read();
    } catch (const foundation::core::except::IUserException&) {
        throw;
    } catch (const std::exception& e) {
        throw errors::UnreadableMessage(toUtf16(e.what()));
    }
}

// --- arrays
//
// An array goes as its kind, then for all but Null its dimensions and what
// its kind holds: the elements of a double, logical or char array, the field
// names of a structure, the name of a function handle. The elements of a
// cell, and the field values of a structure element by element, follow as
// arrays of their own: the whole is the array tree in pre-order, written and
// read with a list of the open cells and structures, so that nesting depth
// costs heap, not stack.

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

// A cell or structure whose elements are being written or read: `next` of
// `count` (the cell's elements, or the structure's elements times fields).
template <class Array>
struct Open {
    Array array;
    std::size_t next = 0;
    std::size_t count = 0;
};

// Element `i` of an open cell or structure (for a structure, field
// i % fields of element i / fields).
const dvArray* elementOf(const dvArray* array, std::size_t i) {
    if (dvGetClassID(array) == ClassID::Cell) {
        return dvGetCell(array, i);
    }
    const std::vector<std::string>& fields = dvGetFieldNames(array);
    return dvGetField(array, i / fields.size(), fields[i % fields.size()]);
}

void setElement(dvArray* array, std::size_t i, matrix::unique_dvArray element) {
    if (dvGetClassID(array) == ClassID::Cell) {
        dvSetCell(array, i, std::move(element));
        return;
    }
    const std::vector<std::string>& fields = dvGetFieldNames(array);
    dvSetField(array, i / fields.size(), fields[i % fields.size()], std::move(element));
}

// The name of the function handle `handle`, which must be registered.
const std::string& registeredName(const dvArray* handle) {
    const std::string& name = dvGetFunctionHandleName(handle);
    if (!isRegistered(name)) {
        throw errors::UnregisteredFunction(toUtf16(name));
    }
    return name;
}

// How many arrays `array` holds (for a structure, elements times fields).
std::size_t heldCount(const dvArray* array) {
    if (dvGetClassID(array) == ClassID::Cell) {
        return dvGetNumberOfElements(array);
    }
    return dvGetNumberOfElements(array) * dvGetFieldNames(array).size();
}

// Writes one array without the arrays it holds; returns how many it holds.
std::size_t saveOne(Writer& out, const dvArray* array) {
    const Kind kind = kindOf(array);
    out.put(kind);
    if (kind == Kind::Null) {
        return 0;
    }
    const matrix::Dimensions& dims = dvGetDimensions(array);
    out.putCount(dims.size());
    for (const std::size_t extent : dims) {
        out.putCount(extent);
    }
    switch (kind) {
    case Kind::Double:
        out.putAll(dvGetDoubles(array));
        return 0;
    case Kind::Logical:
        out.putAll(dvGetLogicals(array));
        return 0;
    case Kind::Char:
        out.putText(dvGetChars(array));
        return 0;
    case Kind::Cell:
        return heldCount(array);
    case Kind::Struct: {
        const std::vector<std::string>& fields = dvGetFieldNames(array);
        out.putCount(fields.size());
        for (const std::string& field : fields) {
            out.putText(std::string_view(field));
        }
        return heldCount(array);
    }
    case Kind::FunctionHandle:
        out.putText(std::string_view(registeredName(array)));
        return 0;
    case Kind::Null:
        break;
    }
    return 0;
}

void saveArray(Writer& out, const dvArray* root) {
    std::vector<Open<const dvArray*>> open;
    const dvArray* array = root;
    for (;;) {
        if (const std::size_t count = saveOne(out, array); count != 0) {
            open.push_back({array, 0, count});
        }
        while (!open.empty() && open.back().next == open.back().count) {
            open.pop_back();
        }
        if (open.empty()) {
            return;
        }
        array = elementOf(open.back().array, open.back().next++);
    }
}

std::size_t elementCount(const matrix::Dimensions& dims) {
    std::size_t count = 1;
    for (const std::size_t extent : dims) {
        if (__builtin_mul_overflow(count, extent, &count)) {
            throw errors::UnreadableMessage(u"array dimensions overflow");
        }
    }
    return count;
}

template <class T>
matrix::unique_dvArray loadNumeric(Reader& in, const matrix::Dimensions& dims, ClassID classID,
                                   std::span<T> (*elements)(dvArray*)) {
    in.checked(elementCount(dims), sizeof(T));
    matrix::unique_dvArray array = matrix::detail::do_create_uninitnumeric(dims, classID);
    in.getAll(elements(array.get()));
    return array;
}

// Reads one array without the arrays it holds, and how many it holds (each
// at least one byte, checked against the bytes left).
std::pair<matrix::unique_dvArray, std::size_t> loadOne(Reader& in) {
    const auto kind = in.get<Kind>();
    if (kind == Kind::Null) {
        return {nullptr, 0};
    }
    matrix::Dimensions dims(in.getCount(sizeof(std::uint64_t)));
    for (std::size_t& extent : dims) {
        extent = in.get<std::uint64_t>();
    }
    switch (kind) {
    case Kind::Double:
        return {loadNumeric(in, dims, ClassID::Double, &dvGetMutableDoubles), 0};
    case Kind::Logical:
        return {loadNumeric(in, dims, ClassID::Logical, &dvGetMutableLogicals), 0};
    case Kind::Char:
        return {matrix::createChars(dims, in.getText<char16_t>()), 0};
    case Kind::Cell: {
        const std::size_t count = in.checked(elementCount(dims), 1);
        return {matrix::detail::do_create_cell(dims), count};
    }
    case Kind::Struct: {
        const std::size_t numFields = in.getCount(sizeof(std::uint64_t));
        std::vector<std::string> fields;
        for (std::size_t i = 0; i < numFields; ++i) {
            fields.push_back(in.getText<char>());
        }
        const std::size_t count = elementCount(dims);
        if (!fields.empty()) {
            in.checked(count, fields.size());
        }
        return {matrix::detail::do_create_struct(dims, fields), count * fields.size()};
    }
    case Kind::FunctionHandle:
        return {matrix::from_korvex(functionHandle(in.getText<char>()).detach()), 0};
    default:
        throw errors::UnreadableMessage(u"unknown kind of array");
    }
}

matrix::unique_dvArray loadArray(Reader& in) {
    std::vector<Open<matrix::unique_dvArray>> open;
    for (;;) {
        auto [array, count] = loadOne(in);
        if (count != 0) {
            open.push_back({std::move(array), 0, count});
            continue;
        }
        // `array` is whole: it fills the next element of the innermost open
        // array, which may be whole then in turn.
        for (;;) {
            if (open.empty()) {
                return std::move(array);
            }
            Open<matrix::unique_dvArray>& parent = open.back();
            setElement(parent.array.get(), parent.next++, std::move(array));
            if (parent.next != parent.count) {
                break;
            }
            array = std::move(parent.array);
            open.pop_back();
        }
    }
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
    out.put(static_cast<std::uint8_t>(argument.index()));
    std::visit(
        [&out](const auto& value) {
            if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::u16string>) {
                out.putText(std::u16string_view(value));
            } else {
                out.put(value);
            }
        },
        argument);
}

MessageArgument loadArgument(Reader& in) {
    switch (in.get<std::uint8_t>()) {
    case 0:
        return in.get<std::int64_t>();
    case 1:
        return in.get<std::uint64_t>();
    case 2:
        return in.get<double>();
    case 3:
        return in.getText<char16_t>();
    default:
        throw errors::UnreadableMessage(u"unknown kind of message argument");
    }
}

// Causes nest at most kMaxCauseDepth deep, so these recurse that deep at most
// (the envelopes themselves copy and compare their causes recursively).
void saveError(Writer& out, const Envelope& error, std::size_t depth = 0) {
    if (depth > kMaxCauseDepth) {
        throw errors::CausesTooDeep(static_cast<std::uint64_t>(kMaxCauseDepth));
    }
    out.putText(std::string_view(error.GetID()));
    out.putText(std::string_view(error.GetMessageID().component));
    out.putText(std::string_view(error.GetMessageID().key));
    out.putCount(error.GetArguments().size());
    for (const MessageArgument& argument : error.GetArguments()) {
        saveArgument(out, argument);
    }
    out.putText(std::u16string_view(error.GetMessage()));
    saveArray(out, error.GetStack());
    out.put(static_cast<std::uint8_t>(error.GetFillStackOnThrow()));
    out.putCount(error.GetCauses().size());
    for (const Envelope& cause : error.GetCauses()) {
        saveError(out, cause, depth + 1);
    }
}

Envelope loadError(Reader& in, std::size_t depth = 0) {
    if (depth > kMaxCauseDepth) {
        throw errors::CausesTooDeep(static_cast<std::uint64_t>(kMaxCauseDepth));
    }
    std::string errorId = in.getText<char>();
    MessageID messageId;
    messageId.component = in.getText<char>();
    messageId.key = in.getText<char>();
    // An argument is a kind byte and at least eight bytes.
    const std::size_t numArguments = in.getCount(1 + sizeof(std::uint64_t));
    MessageArguments arguments;
    for (std::size_t i = 0; i < numArguments; ++i) {
        arguments.push_back(loadArgument(in));
    }
    std::u16string message = in.getText<char16_t>();
    matrix::unique_dvArray stack = loadArray(in);
    if (stack && dvGetClassID(stack.get()) != ClassID::Struct) {
        throw errors::UnreadableMessage(u"an error's call stack is not a structure");
    }
    const bool fillStackOnThrow = in.get<std::uint8_t>() != 0;
    Envelope error(RemoteError(std::move(errorId), std::move(messageId), std::move(arguments),
                               std::move(message)),
                   std::move(stack), fillStackOnThrow);
    // Envelopes take causes by copy: added at once, each is copied once.
    const std::size_t numCauses = in.getCount(1);
    std::vector<Envelope> causes;
    for (std::size_t i = 0; i < numCauses; ++i) {
        causes.push_back(loadError(in, depth + 1));
    }
    error.AddCauses(causes);
    return error;
}

Envelope envelopeOf(const foundation::core::except::IUserException& error) {
    return Envelope(error, matrix::dvCreateStackStruct(0));
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

void checkSendable(const dvArray* function, const DvArrayVector& inputs) {
    registeredName(function);
    std::vector<const dvArray*> containers; // cells and structs still to look into
    const auto check = [&containers](const dvArray* array) {
        switch (kindOf(array)) {
        case Kind::FunctionHandle:
            registeredName(array);
            break;
        case Kind::Cell:
        case Kind::Struct:
            containers.push_back(array);
            break;
        default:
            break;
        }
    };
    for (const auto& input : inputs) {
        check(input.get());
    }
    while (!containers.empty()) {
        const dvArray* container = containers.back();
        containers.pop_back();
        for (std::size_t i = 0, n = heldCount(container); i < n; ++i) {
            check(elementOf(container, i));
        }
    }
}

protocol::Bytes encodeTask(TaskId id, const dvArray* function, unsigned int numOutputs,
                           std::span<const boost::intrusive_ptr<dvArray>> inputs) {
    const std::string& name = registeredName(function);
    return written([&](Writer& out) {
        out.put(id);
        out.putText(std::string_view(name));
        out.putCount(numOutputs);
        out.putCount(inputs.size());
        for (const auto& input : inputs) {
            saveArray(out, input.get());
        }
    });
}

TaskMessage decodeTask(std::string_view bytes) {
    Reader in(bytes);
    TaskMessage task;
    task.id = readOrThrow([&] { return in.get<TaskId>(); });
    try {
        readOrThrow([&] {
            task.function = in.getText<char>();
            const auto numOutputs = in.get<std::uint64_t>();
            if (numOutputs > std::numeric_limits<unsigned int>::max()) {
                throw errors::UnreadableMessage(u"too many outputs");
            }
            task.numOutputs = static_cast<unsigned int>(numOutputs);
            const std::size_t numInputs = in.getCount(1); // an input is at least a kind
            for (std::size_t i = 0; i < numInputs; ++i) {
                task.inputs.emplace_back(matrix::to_korvex(loadArray(in)), false);
            }
            in.expectEnd();
        });
    } catch (...) {
        task.inputs.clear();
        task.inputError = std::current_exception();
    }
    return task;
}

protocol::Bytes encodeResult(TaskId id, Outcome outcome, const OutputsOrError& result,
                             const std::u16string& diary) {
    auto write = [&](Outcome kind, const OutputsOrError& payload) {
        return written([&](Writer& out) {
            out.put(id);
            out.put(kind);
            out.putText(std::u16string_view(diary));
            if (kind == Outcome::Outputs) {
                const DvArrayVector& outputs = payload.value().value();
                out.putCount(outputs.size());
                for (const auto& output : outputs) {
                    saveArray(out, output.get());
                }
            } else {
                saveError(out, toEnvelope(payload.error()));
            }
        });
    };
    try {
        return write(outcome, result);
    } catch (...) {
        // Outputs or an error that cannot be sent: the evaluation fails with the reason.
        return write(Outcome::Error, OutputsOrError(std::current_exception()));
    }
}

ResultMessage decodeResult(std::string_view bytes) {
    Reader in(bytes);
    ResultMessage message;
    message.id = readOrThrow([&] { return in.get<TaskId>(); });
    try {
        readOrThrow([&] {
            message.outcome = in.get<Outcome>();
            message.diary = in.getText<char16_t>();
            if (message.outcome == Outcome::Outputs) {
                const std::size_t numOutputs = in.getCount(1); // an output is at least a kind
                DvArrayVector outputs;
                for (std::size_t i = 0; i < numOutputs; ++i) {
                    outputs.emplace_back(matrix::to_korvex(loadArray(in)), false);
                }
                message.result = OutputsOrError(std::optional<DvArrayVector>(std::move(outputs)));
            } else if (message.outcome == Outcome::Error) {
                message.result = OutputsOrError(std::make_exception_ptr(loadError(in)));
            } else {
                throw errors::UnreadableMessage(u"unknown outcome");
            }
            in.expectEnd();
        });
    } catch (...) {
        message.outcome = Outcome::Error;
        message.result = OutputsOrError(std::current_exception());
    }
    return message;
}

} // namespace mpipool::codec
