// The kernel's C library as images import it: the platform's sizes of characters and numbers, and what each routine does
// when there is no room.
#include "host/image/exports.h"
#include "host/machine.h"

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

}  // namespace
}  // namespace tests
