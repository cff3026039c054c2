// The cluster pool's message codec without MPI: arrays and errors through
// encode and decode, nested causes, damaged messages.

#include "Codec.hpp"

#include <mpipool/FunctionRegistry.hpp>

#include <support/ErrorIds.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace mpipool::codec {
namespace {

using Array = boost::intrusive_ptr<dvArray>;
using Envelope = Veldspire::KException::KExceptionEnvelope;
using testsupport::idOf;
using testsupport::thrownBy;
constexpr const char* kUnreadable = "KORVEX:mpipool:UnreadableMessage";
struct CodecTag {
    static constexpr const char* component = "KORVEX:codecTest";
    static constexpr const char* key = "Failed";
};

Array own(matrix::unique_dvArray array) {
    return {matrix::to_korvex(std::move(array)), false};
}

const Array& function() {
    static const Array registered = [] {
        registerFunction("codecTest", [](std::size_t, const DvArrayVector& in) { return in; });
        return functionHandle("codecTest");
    }();
    return registered;
}

// One array of every kind, empty and N-d ones among them.
DvArrayVector everyKind() {
    using matrix::detail::do_create_numeric;
    Array cube = own(do_create_numeric({2, 3, 4}, matrix::ClassID::Double));
    dvGetMutableDoubles(cube.get())[5] = -2.5;
    Array flags = own(do_create_numeric({1, 3}, matrix::ClassID::Logical));
    dvGetMutableLogicals(flags.get())[1] = 1;
    Array cell = own(matrix::detail::do_create_cell({1, 3}));
    dvSetCell(cell.get(), 0, matrix::createChars({2, 2}, u"abcd"));
    dvSetCell(cell.get(), 2, dvCreateDoubleScalar(7));
    Array record = own(matrix::detail::do_create_struct({2, 1}, {"a", "b"}));
    dvSetField(record.get(), 1, "a", matrix::detail::do_shared_copy(cell.get()));
    dvSetField(record.get(), 0, "b", matrix::detail::do_shared_copy(function().get()));
    Array empties[] = {own(do_create_numeric({0, 3}, matrix::ClassID::Double)),
                       own(matrix::create(u"", 0)), own(matrix::detail::do_create_cell({2, 0, 5})),
                       own(matrix::detail::do_create_struct({1, 2}, {}))};
    DvArrayVector arrays{cube, flags, cell, record, function(), nullptr};
    arrays.insert(arrays.end(), std::begin(empties), std::end(empties));
    return arrays;
}

// An error with a message argument of every kind and a call stack.
Envelope richError() {
    return Envelope(foundation::core::except::Exception<CodecTag>(
                        std::int64_t{-1}, std::uint64_t{2}, 0.5, std::u16string(u"x")),
                    matrix::dvCreateStackStruct(2), true);
}

protocol::Bytes resultWith(const Envelope& error) {
    return encodeResult(5, Outcome::Error, OutputsOrError(std::make_exception_ptr(error)), u"d");
}

void append(std::string& bytes, std::initializer_list<std::uint64_t> words) {
    for (const std::uint64_t word : words) {
        bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
    }
}

// Cells nest to any depth (the pool's tests send a 100,000-deep one); causes
// nest as deep as a message carries them, and not one deeper.
TEST(Codec, CausesNestToTheBoundAndNoDeeper) {
    auto causedBy = [](Envelope cause) { // envelopes copy their causes: short texts copy fast
        Envelope error("a:b", u"c");
        std::vector<Envelope> causes;
        causes.push_back(std::move(cause));
        error.AddCauses(causes);
        return error;
    };
    Envelope chain = richError();
    for (std::size_t i = 1; i <= kMaxCauseDepth; ++i) {
        chain = causedBy(std::move(chain));
    }
    EXPECT_TRUE(toEnvelope(decodeResult(resultWith(chain)).result.error()) == chain);
    EXPECT_EQ(idOf(decodeResult(resultWith(causedBy(chain))).result.error()),
              "KORVEX:mpipool:CausesTooDeep");
}

TEST(Codec, DamagedMessagesGiveTheTypedError) {
    const protocol::Bytes messages[] = {encodeTask(4, function().get(), 1, everyKind()),
                                        resultWith(richError())};
    // Whole, they round-trip: every kind of array, every kind of message argument.
    const TaskMessage task = decodeTask(messages[0]);
    ASSERT_EQ(task.inputs.size(), everyKind().size());
    for (std::size_t i = 0; i < task.inputs.size(); ++i) {
        EXPECT_TRUE(dvIsEqual(task.inputs[i].get(), everyKind()[i].get())) << "array " << i;
    }
    const Envelope decoded = toEnvelope(decodeResult(messages[1]).result.error());
    EXPECT_TRUE(decoded == richError() && decoded.GetFillStackOnThrow()) << decoded.what();
    for (std::size_t m = 0; m < 2; ++m) {
        const protocol::Bytes& whole = messages[m];
        auto failureOf = [m](const protocol::Bytes& bytes) {
            return m == 0 ? decodeTask(bytes).inputError : decodeResult(bytes).result.error();
        };
        for (std::size_t size = 0; size < whole.size(); ++size) {
            const protocol::Bytes cut = whole.substr(0, size);
            const std::string id =
                size < sizeof(TaskId) ? thrownBy([&] { failureOf(cut); }) : idOf(failureOf(cut));
            ASSERT_EQ(id, kUnreadable) << "message " << m << " cut to " << size;
        }
        EXPECT_EQ(idOf(failureOf(whole + '\0')), kUnreadable);
        for (std::size_t at = 0; at < whole.size(); ++at) {
            protocol::Bytes garbled = whole;
            garbled[at] = static_cast<char>(~garbled[at]);
            // Decoded, or a typed error (a result's error may itself be garbled).
            const std::string id = idOf(failureOf(garbled));
            ASSERT_TRUE(m == 1 ? !id.empty() : id.empty() || id.starts_with("KORVEX:"))
                << id << " at " << at;
        }
    }
}

TEST(Codec, HugeCountsInATinyMessageAreRefusedBeforeAllocating) {
    // A task without inputs, then a count of inputs and the start of one:
    // its kind byte and the words that follow it.
    auto task = [](std::uint64_t numInputs, char kind, std::initializer_list<std::uint64_t> words) {
        protocol::Bytes bytes = encodeTask(9, function().get(), 1, {});
        bytes.resize(bytes.size() - sizeof(std::uint64_t));
        append(bytes, {numInputs});
        bytes += kind;
        append(bytes, words);
        return bytes + std::string(64, '\0');
    };
    constexpr char kDouble = 1, kChar = 3, kCell = 4, kStruct = 5;
    constexpr auto kHuge = std::uint64_t{1} << 60;
    for (const protocol::Bytes& bytes :
         {task(kHuge, kDouble, {2, 1, 1}), task(1, kDouble, {kHuge}),
          task(1, kDouble, {2, 1 << 24, 1}), task(1, kDouble, {2, 1 << 30, 1 << 30}),
          task(1, kChar, {2, 1, 1, kHuge}), task(1, kCell, {2, 1 << 20, 1 << 20}),
          task(1, kStruct, {2, 1, 1, kHuge}), task(1, kStruct, {2, 1 << 20, 1 << 20, 1, 1})}) {
        const TaskMessage decoded = decodeTask(bytes);
        EXPECT_EQ(decoded.id, 9u);
        const foundation::core::except::MessageArguments reason{u"a count exceeds the message"};
        EXPECT_TRUE(toEnvelope(decoded.inputError).GetArguments() == reason);
    }
}

} // namespace
} // namespace mpipool::codec
