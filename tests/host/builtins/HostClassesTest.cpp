#include <builtins/HostClasses.hpp>

#include <foundation/core/str/Utf.hpp>
#include <kcos/COSClass.hpp>
#include <kcos/Errors.hpp>
#include <kcos/Language.hpp>
#include <kcos/array.hpp>
#include <kvm/KVM.hpp>

#include <gtest/gtest.h>

namespace {

using kcos::internal::makeInterned;

matrix::unique_dvArray number(double value) {
    return dvCreateDoubleScalar(value);
}
matrix::unique_dvArray chars(const char* text) {
    return matrix::create(text, std::char_traits<char>::length(text));
}
std::string textOf(const dvArray* array) {
    return foundation::core::str::toUtf8(dvGetChars(array));
}

class HostClasses : public ::testing::Test {
protected:
    std::shared_ptr<kvm::KVM> interpreter = kvm::KVM::create();

    static matrix::unique_dvArray construct(const char* name,
                                            const std::vector<const dvArray*>& args) {
        std::vector<dvArray*> raw;
        for (const dvArray* arg : args) {
            raw.push_back(const_cast<dvArray*>(arg));
        }
        return matrix::unique_dvArray(omConstructObjectWithClient(
            makeInterned(name), static_cast<int>(raw.size()), raw.data(), COSGetPublicClient()));
    }
    static matrix::unique_dvArray call(const char* method, std::vector<const dvArray*> inputs) {
        return std::move(omInvokeMethod(method, 1, inputs, COSGetPublicClient()).at(0));
    }
    static matrix::unique_dvArray epochUtc(double ticks, double perSecond) {
        const auto x = number(ticks), convert = chars("ConvertFrom"), epoch = chars("epochtime"),
                   tps = chars("TicksPerSecond"), per = number(perSecond), zone = chars("TimeZone"),
                   utc = chars("UTC");
        return construct("datetime", {x.get(), convert.get(), epoch.get(), tps.get(), per.get(),
                                      zone.get(), utc.get()});
    }
};

// Only the language reaches these; dates from epoch ticks and their time zone
// are read through the futures' properties (FuturePropertiesTest.cpp).
TEST_F(HostClasses, DateTimeTextAndSubsasgnLeavesItsInputAsItWas) {
    const auto date = epochUtc(1.5e6, 1e6);
    EXPECT_EQ(textOf(call("char", {date.get()}).get()), "01-Jan-1970 00:00:01");
    auto subscript = matrix::detail::do_create_struct({1, 1}, {"type", "subs"});
    dvSetField(subscript.get(), 0, "type", chars("."));
    dvSetField(subscript.get(), 0, "subs", chars("TimeZone"));
    const auto local = chars("local");
    dvArray* inputs[] = {date.get(), subscript.get(), local.get()};
    dvArray* result = nullptr;
    omCallMethod(makeInterned("datetime"), makeInterned("subsasgn"), COSGetPublicClient(), 1,
                 &result, 3, inputs, false);
    const matrix::unique_dvArray shifted(result);
    EXPECT_EQ(textOf(omGetProperty(date.get(), "TimeZone", COSGetPublicClient()).get()), "UTC");
}

// The futures' properties give durations in seconds only.
TEST_F(HostClasses, DurationsFromHoursMinutesSecondsEmptyDateTimesAndBadArguments) {
    const auto one = number(1), half = number(1.5);
    const auto d = construct("duration", {one.get(), one.get(), half.get()});
    EXPECT_DOUBLE_EQ(dvGetDoubles(call("seconds", {d.get()}).get())[0], 3661.5);

    dvArray* empty = nullptr;
    omCallMethod(makeInterned("datetime"), makeInterned("empty"), COSGetPublicClient(), 1, &empty,
                 0, nullptr, true);
    const matrix::unique_dvArray none(empty);
    EXPECT_EQ(dvGetNumberOfElements(call("posixtime", {none.get()}).get()), 0u);
    EXPECT_EQ(textOf(call("char", {none.get()}).get()), "");

    const auto x = number(1), bad = chars("Nonsense");
    EXPECT_ANY_THROW(construct("datetime", {x.get(), bad.get(), x.get()}));
    EXPECT_ANY_THROW(construct("datetime", {bad.get()}));
    EXPECT_ANY_THROW(epochUtc(1, 0));
    EXPECT_ANY_THROW(construct("duration", {x.get()}));
    EXPECT_ANY_THROW(construct("duration", {x.get(), x.get(), bad.get()}));
}

TEST_F(HostClasses, TheDisplayerPrintsATableAndNeverThrowsOnOddValues) {
    const auto name = chars("parallel.Future");
    const auto displayer = construct("parallel.internal.future.FutureDisplayer", {name.get()});
    // Objects of a class without the future properties, and a deleted one.
    const auto date = epochUtc(0, 1);
    auto objects = kcos::array::create({1, 2}, makeInterned("datetime"));
    omSetArrayElement(objects.get(), 0, omGetArrayElement(date.get(), 0));
    std::u16string shown;
    {
        kvm::DiarySink sink(shown);
        dvArray* inputs[] = {displayer.get(), objects.get()};
        omCallMethod(makeInterned("parallel.internal.future.FutureDisplayer"),
                     makeInterned("doDisp"), COSGetPublicClient(), 0, nullptr, 2, inputs, false);
    }
    const std::string text = foundation::core::str::toUtf8(shown);
    EXPECT_NE(text.find("1x2 parallel.Future array:"), std::string::npos) << text;
    EXPECT_NE(text.find("?"), std::string::npos) << text;
    EXPECT_NE(text.find("deleted"), std::string::npos) << text;
    EXPECT_ANY_THROW(construct("parallel.internal.future.FutureDisplayer", {}));
}

} // namespace
