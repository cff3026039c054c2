#include <foundation/core/str/Utf.hpp>

#include <gtest/gtest.h>

using foundation::core::str::toUtf16;
using foundation::core::str::toUtf8;

TEST(Utf, RoundTripsEveryEncodingLength) {
    const std::string text = "a\u00e9\u20ac\U0001F600"; // 1, 2, 3 and 4 bytes
    const std::u16string wide = toUtf16(text);
    EXPECT_EQ(wide, u"a\u00e9\u20ac\U0001F600");
    EXPECT_EQ(wide.size(), 5u); // the last one is a surrogate pair
    EXPECT_EQ(toUtf8(wide), text);
    EXPECT_EQ(toUtf16(""), u"");
}

TEST(Utf, ReplacesIllFormedInput) {
    EXPECT_EQ(toUtf16("a\xff"
                      "b"),
              u"a\ufffdb");                                          // invalid lead byte
    EXPECT_EQ(toUtf16("a\xc3"), u"a\ufffd");                         // truncated sequence
    EXPECT_EQ(toUtf16("\xc0\xaf"), u"\ufffd");                       // overlong encoding
    EXPECT_EQ(toUtf16("\xed\xa0\x80"), u"\ufffd");                   // encoded surrogate
    EXPECT_EQ(toUtf8(std::u16string(1, u'\xd800')), "\xef\xbf\xbd"); // lone high surrogate
    EXPECT_EQ(toUtf8(std::u16string{u'\xdc00', u'x'}), "\xef\xbf\xbdx");
}
