#pragma once

// Encoding of the messages of Protocol.hpp as flat byte buffers: fixed-size
// values in this machine's byte layout, every count and size as 64 bits.
// Arrays cross as values: double, logical and char arrays with their
// elements, cell and struct arrays element by element, function handles by
// registered name; any dimensions, empty ones included, nested to any depth
// (arrays are walked with a work list, not by recursion). Errors cross as
// envelopes: identifiers, message arguments and text, call stack and causes,
// causes nested at most kMaxCauseDepth deep. Every process of a cluster runs
// the same build on the same kind of machine, so the byte layout is shared.
// Decoding checks every count against the bytes left before it allocates
// anything for it: a short or garbled buffer gives
// KORVEX:mpipool:UnreadableMessage, never a crash.
//
// Threads: any thread; the functions share no state.

#include "Protocol.hpp"

#include <parallel/language/future/OutputsOrErrorPropertyDvArray.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <matrix/dvArray.hpp>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace mpipool::codec {

using parallel::language::future::DvArrayVector;
using parallel::language::future::OutputsOrError;
using TaskId = std::uint64_t;

// How deep the causes of an error nest at most in a message (an error whose
// causes have no causes nests 1 deep). A deeper error is sent as
// KORVEX:mpipool:CausesTooDeep.
inline constexpr std::size_t kMaxCauseDepth = 256;

// kTask. Throws KORVEX:mpipool:UnregisteredFunction (the function, or a
// function handle among the inputs, is not registered) and
// KORVEX:mpipool:UnsupportedArray (an input cannot be sent).
protocol::Bytes encodeTask(TaskId id, const dvArray* function, unsigned int numOutputs,
                           std::span<const boost::intrusive_ptr<dvArray>> inputs);

// What encodeTask would refuse, found without encoding (the cluster pool
// checks at submit and encodes when it sends): the same errors. Walks nested
// cells and structs without recursion.
void checkSendable(const dvArray* function, const DvArrayVector& inputs);

struct TaskMessage {
    TaskId id = 0;
    std::string function;
    unsigned int numOutputs = 0;
    DvArrayVector inputs;
    // Set when the inputs could not be rebuilt here (say, a function handle
    // whose name this process does not know): the evaluation fails with it.
    std::exception_ptr inputError;
};
// Throws KORVEX:mpipool:UnreadableMessage when not even the id can be read.
TaskMessage decodeTask(std::string_view bytes);

// What became of an evaluation on its worker.
enum class Outcome : std::uint8_t { Outputs, Error };

// kResult. Outputs that cannot be sent turn into the error that says so; an
// error is sent as the envelope the language would see locally.
protocol::Bytes encodeResult(TaskId id, Outcome outcome, const OutputsOrError& result,
                             const std::u16string& diary);

struct ResultMessage {
    TaskId id = 0;
    Outcome outcome = Outcome::Outputs;
    // Outputs, or the error as a Veldspire::KException::KExceptionEnvelope.
    OutputsOrError result{std::optional<DvArrayVector>()};
    std::u16string diary;
};
// Outputs that cannot be rebuilt here become the error that says so. Throws
// KORVEX:mpipool:UnreadableMessage when not even the id can be read.
ResultMessage decodeResult(std::string_view bytes);

// The envelope the language would make of `error` (the same conversion the
// futures library applies to the errors of local work).
Veldspire::KException::KExceptionEnvelope toEnvelope(const std::exception_ptr& error);

} // namespace mpipool::codec
