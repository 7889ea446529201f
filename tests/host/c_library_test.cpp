// The kernel's C library as images import it: the platform's sizes of characters and numbers, and what each routine
// does when there is no room.
#include "host/image/exports.h"
#include "host/machine.h"

#include <ntstrsafe.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

namespace tests {
namespace {

template <class Function>
Function* Imported(const char* name)
{
    auto* function = reinterpret_cast<Function*>(host::image::FindExport("ntoskrnl.exe", name));
    EXPECT_NE(function, nullptr) << name;
    return function;
}

template <class T>
std::basic_string<T> Text(const T* text)
{
    return text;
}

TEST(CLibrary, FormatsAsThePlatformDoes)
{
    host::Machine machine;
    using Print = int NTAPI_VARIADIC(char*, size_t, const char*, ...);
    auto* print = Imported<Print>("_snprintf");
    const char16_t units[] = u"wide";
    UNICODE_STRING counted = {6, 10, reinterpret_cast<PWSTR>(const_cast<char16_t*>(units))};
    const auto format = [&](const char* form, auto... values) {
        char text[128] = {};
        const int length = print(text, sizeof(text), form, values...);
        EXPECT_EQ(static_cast<std::size_t>(length), std::strlen(text)) << form;
        return std::string(text);
    };
    EXPECT_EQ(format("%d %u %ld %lu", -5, 5u, -6, 4000000000u), "-5 5 -6 4000000000");  // long has 32 bits
    EXPECT_EQ(format("%I64d %llx %Iu %zu", -7LL, 0xABCDEF0123ULL, 8ULL, 9ULL), "-7 abcdef0123 8 9");
    EXPECT_EQ(format("%hd %hhu %i", 0x18000, 0x1FF, -1), "-32768 255 -1");
    EXPECT_EQ(format("%08X|%-6d|%+d|%#o|%.3d|%*d", 0xBEEF, 12, 3, 8, 7, 4, 5), "0000BEEF|12    |+3|010|007|   5");
    EXPECT_EQ(format("%p", reinterpret_cast<void*>(0x1234ABCD)), "000000001234ABCD");
    EXPECT_EQ(
        format("%s|%S|%ws|%hs|%wZ|%.2s|%6s|%-6s|%c", "thin", units, units, "thin", &counted, "thin", "a", "b", 'x'),
        "thin|wide|wide|thin|wid|th|     a|b     |x");
    EXPECT_EQ(format("%s %wZ 100%% %f", nullptr, nullptr, 1.5), "(null) (null) 100% 1.500000");
    EXPECT_EQ(format("%.4s", std::array{'n', 'o', 'n', 'e'}.data()), "none");  // without an end

    using WidePrint = int NTAPI_VARIADIC(char16_t*, size_t, const char16_t*, ...);
    char16_t wide[32];
    EXPECT_EQ(Imported<WidePrint>("_snwprintf")(wide, 32, u"%s-%S-%hs-%d", units, "thin", "thin", 4), 16);
    EXPECT_EQ(Text(wide), u"wide-thin-thin-4");
}

TEST(CLibrary, SaysWhenThereIsNoRoom)
{
    host::Machine machine;
    using Print = int NTAPI_VARIADIC(char*, size_t, const char*, ...);
    using PrintSome = int NTAPI_VARIADIC(char*, size_t, size_t, const char*, ...);
    using Copy = int NTAPI(char16_t*, size_t, const char16_t*);
    using CopySome = int NTAPI(char16_t*, size_t, const char16_t*, size_t);
    char text[8] = "#######";
    EXPECT_EQ(Imported<Print>("_snprintf")(text, 4, "%s", "12345"), -1);
    EXPECT_EQ(Text(text), "1234###");  // full, without an end
    EXPECT_EQ(Imported<Print>("_snprintf")(text, 4, "%s", "abcd"), 4);
    EXPECT_EQ(Text(text), "abcd###");
    EXPECT_EQ(Imported<Print>("sprintf_s")(text, 4, "%s", "1234"), -1);
    EXPECT_EQ(Text(text), "");
    constexpr size_t kTruncate = ~size_t{0};
    EXPECT_EQ(Imported<PrintSome>("_snprintf_s")(text, 4, kTruncate, "%s", "1234"), -1);
    EXPECT_EQ(Text(text), "123");

    char16_t wide[6] = u"#####";
    EXPECT_EQ(Imported<Copy>("wcscpy_s")(wide, 4, u"1234"), 34);
    EXPECT_EQ(Text(wide), u"");
    EXPECT_EQ(Imported<Copy>("wcscpy_s")(wide, 4, u"123"), 0);
    EXPECT_EQ(Imported<Copy>("wcscat_s")(wide, 6, u"45"), 0);
    EXPECT_EQ(Text(wide), u"12345");
    EXPECT_EQ(Imported<CopySome>("wcsncpy_s")(wide, 3, u"abc", kTruncate), 80);
    EXPECT_EQ(Text(wide), u"ab");
    char block[4] = {1, 2, 3, 4};
    EXPECT_EQ((Imported<int NTAPI(void*, size_t, const void*, size_t)>("memcpy_s"))(block, 2, "abc", 3), 34);
    EXPECT_EQ(std::string(block, 4), std::string("\0\0\3\4", 4));
}

TEST(CLibrary, FindsAndComparesWideText)
{
    host::Machine machine;
    using Compare = int NTAPI(const char16_t*, const char16_t*);
    EXPECT_EQ(Imported<Compare>("_wcsicmp")(u"FaN", u"fAn"), 0);
    EXPECT_LT(Imported<Compare>("wcscmp")(u"FaN", u"fAn"), 0);
    EXPECT_GT(Imported<Compare>("wcscmp")(u"fan2", u"fan"), 0);
    EXPECT_EQ((Imported<int NTAPI(const char16_t*, const char16_t*, size_t)>("_wcsnicmp"))(u"fanA", u"FANB", 3), 0);
    const char16_t text[] = u"a/b/c";
    EXPECT_EQ((Imported<char16_t * NTAPI(const char16_t*, int)>("wcschr"))(text, u'/'), text + 1);
    EXPECT_EQ((Imported<char16_t * NTAPI(const char16_t*, int)>("wcsrchr"))(text, u'/'), text + 3);
    EXPECT_EQ((Imported<char16_t * NTAPI(const char16_t*, int)>("wcsrchr"))(text, 0), text + 5);
    EXPECT_EQ((Imported<char16_t * NTAPI(const char16_t*, const char16_t*)>("wcsstr"))(text, u"b/"), text + 2);
    EXPECT_EQ((Imported<char16_t * NTAPI(const char16_t*, const char16_t*)>("wcsstr"))(text, u"x"), nullptr);
    char padded[4] = "###";
    EXPECT_EQ((Imported<char * NTAPI(char*, const char*, size_t)>("strncpy"))(padded, "a", 4), padded);
    EXPECT_EQ(std::string(padded, 4), std::string("a\0\0\0", 4));
}

// ---- The text routines that know their room: cut text ends, and says that it was cut ----

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
