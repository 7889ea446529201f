// The text routines that know their room: cut text ends, and says that it was cut.
#include <ntstrsafe.h>

#include <gtest/gtest.h>

#include <string>

namespace tests {
namespace {

std::u16string Units(const WCHAR* text)
{
    return reinterpret_cast<const char16_t*>(text);
}

const WCHAR* Wide(const char16_t* text)
{
    return reinterpret_cast<const WCHAR*>(text);
}

TEST(StringsWithRoom, AreCutWhereTheRoomEnds)
{
    char text[6] = "#####";
    EXPECT_EQ(RtlStringCchCopyA(text, 6, "12345"), STATUS_SUCCESS);
    EXPECT_STREQ(text, "12345");
    EXPECT_EQ(RtlStringCchCopyA(text, 4, "abcd"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::string(text, 5), std::string({'a', 'b', 'c', 0, '5'}));
    EXPECT_EQ(RtlStringCchCatA(text, 6, "de"), STATUS_SUCCESS);
    EXPECT_EQ(RtlStringCchCatA(text, 6, "f"), STATUS_BUFFER_OVERFLOW);
    EXPECT_STREQ(text, "abcde");
    EXPECT_EQ(RtlStringCchCopyNA(text, 6, "xyz", 2), STATUS_SUCCESS);
    EXPECT_EQ(RtlStringCchCatNA(text, 6, "abc", 1), STATUS_SUCCESS);
    EXPECT_STREQ(text, "xya");
    EXPECT_EQ(RtlStringCchCopyA(text, 0, "1"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCchCopyA(text, NTSTRSAFE_MAX_CCH + 1ULL, "1"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCchCatA(text, 3, "1"), STATUS_INVALID_PARAMETER);  // it does not end within
    EXPECT_STREQ(text, "xya");

    WCHAR wide[6];  // sizes in bytes
    EXPECT_EQ(RtlStringCbCopyW(wide, 8, Wide(u"1234")), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(Units(wide), u"123");
    EXPECT_EQ(RtlStringCbCatW(wide, sizeof(wide), Wide(u"45")), STATUS_SUCCESS);
    EXPECT_EQ(Units(wide), u"12345");
}

TEST(StringsWithRoom, KnowTheirLength)
{
    size_t length = 9;
    EXPECT_EQ(RtlStringCchLengthA("abc", 4, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(RtlStringCbLengthW(Wide(u"abc"), 8, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 6u);
    EXPECT_EQ(RtlStringCchLengthA("abc", 3, &length), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(RtlStringCchLengthA(nullptr, 3, nullptr), STATUS_INVALID_PARAMETER);
}

TEST(StringsWithRoom, AreFormatted)
{
    char text[6];
    EXPECT_EQ(RtlStringCbPrintfA(text, 6, "%d-%s", 12, "ab"), STATUS_SUCCESS);
    EXPECT_STREQ(text, "12-ab");
    EXPECT_EQ(RtlStringCchPrintfA(text, 4, "%u", 12345u), STATUS_BUFFER_OVERFLOW);
    EXPECT_STREQ(text, "123");
    WCHAR wide[8];
    EXPECT_EQ(RtlStringCchPrintfW(wide, 8, Wide(u"%s%I64x"), u"a", 0xFFULL), STATUS_SUCCESS);
    EXPECT_EQ(Units(wide), u"aff");
}

TEST(StringsWithRoom, OfKnownLengthAreCutWithoutAnEnd)
{
    WCHAR buffer[5] = {u'#', u'#', u'#', u'#', u'#'};
    UNICODE_STRING string = {0, 8, buffer};
    EXPECT_EQ(RtlUnicodeStringCopyString(&string, Wide(u"ab")), STATUS_SUCCESS);
    EXPECT_EQ(RtlUnicodeStringCatString(&string, Wide(u"cde")), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(string.Length, 8);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(buffer), 5), u"abcd#");
    EXPECT_EQ(RtlUnicodeStringPrintf(&string, Wide(u"%d"), 7), STATUS_SUCCESS);
    EXPECT_EQ(string.Length, 2);
    EXPECT_EQ(RtlUnicodeStringPrintf(&string, Wide(u"%d"), 12345), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(buffer), 5), u"1234#");
    UNICODE_STRING named;
    EXPECT_EQ(RtlUnicodeStringInit(&named, Wide(u"name")), STATUS_SUCCESS);
    EXPECT_EQ(named.MaximumLength, 10);
    const std::u16string tooLong(NTSTRSAFE_UNICODE_STRING_MAX_CCH, u'x');
    EXPECT_EQ(RtlUnicodeStringInit(&named, Wide(tooLong.c_str())), STATUS_INVALID_PARAMETER);
}

}  // namespace
}  // namespace tests
