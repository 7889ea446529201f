// Registry values and string objects: text in and out, and what does not fit.
#include "tests/host/faulty_driver_fixture.h"

#include <array>
#include <cstring>

namespace tests {
namespace {

// A counted string of a test's own, as functions take it.
struct Counted {
    explicit Counted(const std::string& narrow) : characters(narrow.begin(), narrow.end())
    {
        const auto bytes = static_cast<USHORT>(characters.size() * sizeof(WCHAR));
        text = {bytes, bytes, reinterpret_cast<PWCHAR>(characters.data())};
    }
    operator PCUNICODE_STRING() const { return &text; }

    std::u16string characters;
    UNICODE_STRING text{};
};

std::string TextIn(const UNICODE_STRING& text)
{
    const auto* characters = reinterpret_cast<const char16_t*>(text.Buffer);
    return {characters, characters + text.Length / sizeof(WCHAR)};
}

WDFKEY OpenKey(ACCESS_MASK access)
{
    WDFKEY key = nullptr;
    EXPECT_EQ(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), access, nullptr, &key), STATUS_SUCCESS);
    return key;
}

class RegistryValues : public FaultyDriverTest {
protected:
    RegistryValues()
    {
        machine.SetRegistryString("faulty", "Text", "hello");
        machine.SetRegistryValue("faulty", "Number", 7);
        key = OpenKey(KEY_READ | KEY_WRITE);
        EXPECT_EQ(WdfStringCreate(nullptr, nullptr, &string), STATUS_SUCCESS);
    }

    [[nodiscard]] std::string StringText() const
    {
        UNICODE_STRING counted{};
        WdfStringGetUnicodeString(string, &counted);
        return TextIn(counted);
    }

    WDFKEY key = nullptr;
    WDFSTRING string = nullptr;
    const Counted text{"Text"};
    const Counted number{"Number"};
    const Counted missing{"Missing"};
    ULONG bytes = 0;
    ULONG type = 0;
};
class StringObjects : public FaultyDriverTest {};

constexpr GUID kSomeInterface = {0x0C52B1AE, 0x77A1, 0x4E0B, {0x9D, 0x31, 0x52, 0x0A, 0xC4, 0x18, 0x7F, 0x92}};

TEST_F(StringObjects, KeepACopyWithATerminator)
{
    Counted source("name");
    WDFSTRING string = nullptr;
    ASSERT_EQ(WdfStringCreate(source, nullptr, &string), STATUS_SUCCESS);
    source.characters[0] = u'?';
    UNICODE_STRING text{};
    WdfStringGetUnicodeString(string, &text);
    EXPECT_EQ(TextIn(text), "name");
    EXPECT_EQ(text.MaximumLength, 10);
    EXPECT_EQ(text.Buffer[4], 0);

    Counted half("x");
    half.text.Length = 1;
    EXPECT_EQ(WdfStringCreate(half, nullptr, &string), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(string, nullptr);
    ASSERT_EQ(WdfStringCreate(nullptr, nullptr, &string), STATUS_SUCCESS);
    WdfStringGetUnicodeString(string, &text);
    EXPECT_EQ(text.Length, 0);
    EXPECT_EQ(text.Buffer, nullptr);

    const host::ScopedIrql dispatch(DISPATCH_LEVEL);
    WdfStringGetUnicodeString(string, &text);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kIrql});
}

TEST(DriversFramework, TellsItsVersion)
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
    EXPECT_FALSE(isAvailable(1, 21, 8));
    EXPECT_EQ(fixture.TakeRules(), std::vector{Rule::kBadParameter});
    const host::ScopedIrql dispatch(DISPATCH_LEVEL);
    isAvailable(1, 21);
    (void)WdfDriverRetrieveVersionString(fixture.driver.Handle(), string);
    EXPECT_EQ(fixture.TakeRules(), (std::vector{Rule::kIrql, Rule::kIrql}));
}

TEST_F(RegistryValues, AreReadWholeOrNotAtAll)
{
    std::array<char, 12> buffer{};
    const auto query = [&](const Counted& name, ULONG room) {
        return WdfRegistryQueryValue(key, name, room, room == 0 ? nullptr : buffer.data(), &bytes, &type);
    };
    EXPECT_EQ(query(text, 0), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(bytes, 12u);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(query(text, 11), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(WdfRegistryQueryValue(key, text, 12, buffer.data(), nullptr, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(buffer[8], 'o');
    EXPECT_EQ(query(missing, 12), STATUS_OBJECT_NAME_NOT_FOUND);

    WDFMEMORY memory = nullptr;
    std::size_t memoryBytes = 0;
    ASSERT_EQ(WdfRegistryQueryMemory(key, number, PagedPool, nullptr, &memory, &type), STATUS_SUCCESS);
    ULONG value = 0;
    std::memcpy(&value, WdfMemoryGetBuffer(memory, &memoryBytes), sizeof(value));
    EXPECT_EQ(memoryBytes, sizeof(value));
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(type, REG_DWORD);
    EXPECT_EQ(WdfRegistryQueryMemory(key, missing, PagedPool, nullptr, &memory, &type), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(memory, nullptr);
}

TEST_F(RegistryValues, OfTextLoseTheirTerminator)
{
    EXPECT_EQ(WdfRegistryQueryString(key, text, string), STATUS_SUCCESS);
    EXPECT_EQ(StringText(), "hello");
    EXPECT_EQ(WdfRegistryQueryString(key, number, string), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(StringText(), "hello");

    Counted value("123456");  // as long as the value with its terminator
    USHORT length = 0;
    value.text.Length = 0;
    EXPECT_EQ(WdfRegistryQueryUnicodeString(key, text, &length, &value.text), STATUS_SUCCESS);
    EXPECT_EQ(length, 12);
    EXPECT_EQ(TextIn(value.text), "hello");
    value.text.MaximumLength = 10;
    value.text.Length = 0;
    EXPECT_EQ(WdfRegistryQueryUnicodeString(key, text, &length, &value.text), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(value.text.Length, 0);
    EXPECT_EQ(WdfRegistryQueryUnicodeString(key, number, &length, nullptr), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(length, 4);
    EXPECT_EQ(WdfRegistryQueryUnicodeString(key, number, nullptr, &value.text), STATUS_OBJECT_TYPE_MISMATCH);
}

TEST_F(RegistryValues, AreWrittenWithATerminator)
{
    EXPECT_EQ(WdfRegistryAssignUnicodeString(key, missing, Counted("new")), STATUS_SUCCESS);
    EXPECT_EQ(WdfRegistryQueryString(key, missing, string), STATUS_SUCCESS);
    EXPECT_EQ(StringText(), "new");
    EXPECT_EQ(WdfRegistryAssignString(key, number, string), STATUS_SUCCESS);
    EXPECT_EQ(WdfRegistryQueryValue(key, number, 0, nullptr, &bytes, &type), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(bytes, 8u);
    EXPECT_EQ(type, REG_SZ);
}

TEST_F(RegistryValues, AreReadAndWrittenWhereTheKeyAllows)
{
    ULONG value = 0;
    for (const ACCESS_MASK access : {KEY_READ | KEY_WRITE, KEY_READ + 0, KEY_WRITE + 0}) {
        SCOPED_TRACE(access);
        const WDFKEY narrow = OpenKey(access);
        const NTSTATUS write = (access & ~ACCESS_MASK{KEY_READ}) != 0 ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
        const NTSTATUS read = (access & ~ACCESS_MASK{KEY_WRITE}) != 0 ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
        EXPECT_EQ(WdfRegistryAssignULong(narrow, number, 7), write);
        EXPECT_EQ(WdfRegistryQueryULong(narrow, number, &value), read);
        EXPECT_EQ(WdfRegistryAssignString(narrow, text, string), write);
        EXPECT_EQ(WdfRegistryQueryString(narrow, text, string), read);
        WdfRegistryClose(narrow);
    }
}

TEST_F(RegistryValues, HaveNamesOfAnyCaseAndKeysAreDeadWhenClosed)
{
    ULONG value = 0;
    EXPECT_EQ(WdfRegistryQueryULong(key, Counted("nUMBER"), &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 7u);
    WdfRegistryClose(key);
    WdfRegistryClose(key);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadHandle});
}

TEST_F(StringObjects, AndOtherTextMustBeWholeCharactersWithinABuffer)
{
    WCHAR characters[] = u"Text";
    WDFKEY key = nullptr;
    // Nothing was ever written there.
    EXPECT_EQ(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ + 0, nullptr, &key),
              STATUS_OBJECT_NAME_NOT_FOUND);
    key = OpenKey(KEY_READ | KEY_WRITE);
    ULONG number = 0;
    const WDFDEVICE device = table.Device;
    for (UNICODE_STRING malformed : {UNICODE_STRING{3, 8, characters}, UNICODE_STRING{2, 7, characters},
                                     UNICODE_STRING{8, 4, characters}, UNICODE_STRING{2, 8, nullptr}}) {
        SCOPED_TRACE(malformed.Length);
        EXPECT_EQ(WdfRegistryQueryULong(key, &malformed, &number), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(WdfRegistryAssignULong(key, &malformed, 7), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(WdfDeviceCreateSymbolicLink(device, &malformed), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(WdfDeviceCreateDeviceInterface(device, &kSomeInterface, &malformed), STATUS_INVALID_PARAMETER);
        WdfDeviceSetDeviceInterfaceState(device, &kSomeInterface, &malformed, FALSE);  // which can answer no status
        PCALLBACK_OBJECT callback = nullptr;
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &malformed, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        EXPECT_EQ(ExCreateCallback(&callback, &attributes, FALSE, TRUE), STATUS_OBJECT_NAME_INVALID);
        EXPECT_EQ(MmGetSystemRoutineAddress(&malformed), nullptr);
        EXPECT_EQ(TakeRules(), std::vector(3, Rule::kBadParameter));
    }
}

}  // namespace
}  // namespace tests
