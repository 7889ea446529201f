// Registry values and string objects: text in and out, and what does not fit.
#include "tests/host/faulty_driver_fixture.h"

#include <array>
#include <cstring>

namespace tests {
namespace {

// A counted string of a test's own.
struct Counted {
    explicit Counted(const std::string& narrow) : characters(narrow.begin(), narrow.end())
    {
        const auto bytes = static_cast<USHORT>(characters.size() * sizeof(WCHAR));
        text = {bytes, bytes, reinterpret_cast<PWCHAR>(characters.data())};
    }
    std::u16string characters;
    UNICODE_STRING text{};
};

std::string TextIn(const UNICODE_STRING& text)
{
    const auto* characters = reinterpret_cast<const char16_t*>(text.Buffer);
    return {characters, characters + text.Length / sizeof(WCHAR)};
}

class RegistryFixture : public FaultyDriverFixture {
public:
    RegistryFixture()
    {
        machine.SetRegistryString("faulty", "Text", "hello");
        machine.SetRegistryValue("faulty", "Number", 7);
        EXPECT_EQ(WdfDriverOpenParametersRegistryKey(driver.Handle(), KEY_READ | KEY_WRITE, nullptr, &key),
                  STATUS_SUCCESS);
        EXPECT_EQ(WdfStringCreate(nullptr, nullptr, &string), STATUS_SUCCESS);
    }

    [[nodiscard]] UNICODE_STRING StringText() const
    {
        UNICODE_STRING text{};
        WdfStringGetUnicodeString(string, &text);
        return text;
    }

    WDFKEY key = nullptr;
    WDFSTRING string = nullptr;
    const Counted text{"Text"};
    const Counted number{"Number"};
    const Counted missing{"Missing"};
};

TEST(StringObjects, KeepACopyWithATerminator)
{
    FaultyDriverFixture fixture;
    Counted source("name");
    WDFSTRING string = nullptr;
    ASSERT_EQ(WdfStringCreate(&source.text, nullptr, &string), STATUS_SUCCESS);
    source.characters[0] = u'?';
    UNICODE_STRING text{};
    WdfStringGetUnicodeString(string, &text);
    EXPECT_EQ(TextIn(text), "name");
    EXPECT_EQ(text.MaximumLength, 10);
    EXPECT_EQ(text.Buffer[4], 0);

    Counted half("x");
    half.text.Length = 1;
    EXPECT_EQ(WdfStringCreate(&half.text, nullptr, &string), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(string, nullptr);
    ASSERT_EQ(WdfStringCreate(nullptr, nullptr, &string), STATUS_SUCCESS);
    WdfStringGetUnicodeString(string, &text);
    EXPECT_EQ(text.Length, 0);
    EXPECT_EQ(text.Buffer, nullptr);

    const host::ScopedIrql dispatch(DISPATCH_LEVEL);
    WdfStringGetUnicodeString(string, &text);
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kIrql});
}

TEST(StringObjects, TellTheVersionOfTheFramework)
{
    FaultyDriverFixture fixture({.frameworkMinor = 21});
    WDFSTRING string = nullptr;
    UNICODE_STRING text{};
    ASSERT_EQ(WdfStringCreate(nullptr, nullptr, &string), STATUS_SUCCESS);
    EXPECT_EQ(WdfDriverRetrieveVersionString(fixture.driver.Handle(), string), STATUS_SUCCESS);
    WdfStringGetUnicodeString(string, &text);
    EXPECT_EQ(TextIn(text), "Kernel Mode Driver Framework version 01.021.0");

    const auto isAvailable = [&](ULONG major, ULONG minor, ULONG size = 12) {
        WDF_DRIVER_VERSION_AVAILABLE_PARAMS parameters;
        WDF_DRIVER_VERSION_AVAILABLE_PARAMS_INIT(&parameters, major, minor);
        parameters.Size = size;
        return WdfDriverIsVersionAvailable(fixture.driver.Handle(), &parameters);
    };
    EXPECT_TRUE(isAvailable(1, 21));
    EXPECT_TRUE(isAvailable(1, 0));
    EXPECT_FALSE(isAvailable(1, 22));
    EXPECT_FALSE(isAvailable(2, 0));
    EXPECT_EQ(fixture.TakeRules(), std::vector<Rule>{});
    EXPECT_FALSE(isAvailable(1, 21, 8));
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kBadParameter});
    const host::ScopedIrql dispatch(DISPATCH_LEVEL);
    isAvailable(1, 21);
    (void)WdfDriverRetrieveVersionString(fixture.driver.Handle(), string);
    EXPECT_EQ(fixture.TakeRules(), (std::vector{Rule::kIrql, Rule::kIrql}));
}

TEST(RegistryValues, AreReadWholeOrNotAtAll)
{
    RegistryFixture fixture;
    std::array<char, 12> buffer{};
    ULONG bytes = 0;
    ULONG type = 0;
    EXPECT_EQ(WdfRegistryQueryValue(fixture.key, &fixture.text.text, 0, nullptr, &bytes, &type),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(bytes, 12u);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(WdfRegistryQueryValue(fixture.key, &fixture.text.text, 11, buffer.data(), &bytes, &type),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(WdfRegistryQueryValue(fixture.key, &fixture.text.text, 12, buffer.data(), nullptr, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(buffer[8], 'o');
    EXPECT_EQ(WdfRegistryQueryValue(fixture.key, &fixture.missing.text, 12, buffer.data(), nullptr, nullptr),
              STATUS_OBJECT_NAME_NOT_FOUND);

    WDFMEMORY memory = nullptr;
    std::size_t memoryBytes = 0;
    ASSERT_EQ(WdfRegistryQueryMemory(fixture.key, &fixture.number.text, PagedPool, nullptr, &memory, &type),
              STATUS_SUCCESS);
    ULONG number = 0;
    std::memcpy(&number, WdfMemoryGetBuffer(memory, &memoryBytes), sizeof(number));
    EXPECT_EQ(memoryBytes, sizeof(number));
    EXPECT_EQ(number, 7u);
    EXPECT_EQ(type, REG_DWORD);
    EXPECT_EQ(WdfRegistryQueryMemory(fixture.key, &fixture.missing.text, PagedPool, nullptr, &memory, &type),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(memory, nullptr);
}

TEST(RegistryValues, OfTextLoseTheirTerminator)
{
    RegistryFixture fixture;
    EXPECT_EQ(WdfRegistryQueryString(fixture.key, &fixture.text.text, fixture.string), STATUS_SUCCESS);
    EXPECT_EQ(TextIn(fixture.StringText()), "hello");
    EXPECT_EQ(WdfRegistryQueryString(fixture.key, &fixture.number.text, fixture.string), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(TextIn(fixture.StringText()), "hello");

    Counted value("123456");  // as long as the value with its terminator
    USHORT bytes = 0;
    value.text.Length = 0;
    EXPECT_EQ(WdfRegistryQueryUnicodeString(fixture.key, &fixture.text.text, &bytes, &value.text), STATUS_SUCCESS);
    EXPECT_EQ(bytes, 12);
    EXPECT_EQ(TextIn(value.text), "hello");
    value.text.MaximumLength = 10;
    value.text.Length = 0;
    EXPECT_EQ(WdfRegistryQueryUnicodeString(fixture.key, &fixture.text.text, &bytes, &value.text),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(value.text.Length, 0);
    EXPECT_EQ(WdfRegistryQueryUnicodeString(fixture.key, &fixture.number.text, &bytes, nullptr),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(bytes, 4);
    EXPECT_EQ(WdfRegistryQueryUnicodeString(fixture.key, &fixture.number.text, nullptr, &value.text),
              STATUS_OBJECT_TYPE_MISMATCH);
}

TEST(RegistryValues, AreWrittenWithATerminatorWhereTheKeyAllows)
{
    RegistryFixture fixture;
    const Counted value("new");
    EXPECT_EQ(WdfRegistryAssignUnicodeString(fixture.key, &fixture.missing.text, &value.text), STATUS_SUCCESS);
    EXPECT_EQ(WdfRegistryQueryString(fixture.key, &fixture.missing.text, fixture.string), STATUS_SUCCESS);
    EXPECT_EQ(TextIn(fixture.StringText()), "new");
    EXPECT_EQ(WdfRegistryAssignString(fixture.key, &fixture.number.text, fixture.string), STATUS_SUCCESS);
    ULONG bytes = 0;
    ULONG type = 0;
    EXPECT_EQ(WdfRegistryQueryValue(fixture.key, &fixture.number.text, 0, nullptr, &bytes, &type),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(bytes, 8u);
    EXPECT_EQ(type, REG_SZ);

    for (const ACCESS_MASK access : {ACCESS_MASK{KEY_READ}, ACCESS_MASK{KEY_WRITE}}) {
        const bool mayWrite = access == KEY_WRITE;
        WDFKEY narrow = nullptr;
        ASSERT_EQ(WdfDriverOpenParametersRegistryKey(fixture.driver.Handle(), access, nullptr, &narrow),
                  STATUS_SUCCESS);
        EXPECT_EQ(WdfRegistryAssignString(narrow, &fixture.text.text, fixture.string),
                  mayWrite ? STATUS_SUCCESS : STATUS_ACCESS_DENIED);
        EXPECT_EQ(WdfRegistryQueryString(narrow, &fixture.text.text, fixture.string),
                  mayWrite ? STATUS_ACCESS_DENIED : STATUS_SUCCESS);
    }
}

}  // namespace
}  // namespace tests
