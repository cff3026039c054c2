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

// Dates from epoch ticks in UTC shown in local time, and durations from hours,
// minutes and seconds, are read through the futures' properties
// (FuturePropertiesTest.cpp); what only the language reaches is left here.
TEST_F(HostClasses, EmptyDateTimeAndBadArguments) {
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
