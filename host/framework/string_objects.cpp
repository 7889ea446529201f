#include "host/framework/string_objects.h"

#include "host/framework/functions.h"

#include <algorithm>

namespace host::framework {

void Assign(kernel::Kernel& kernel, StringObject& string, std::span<const std::byte> characters)
{
    constexpr std::byte kTerminator[sizeof(WCHAR)] = {};
    const std::size_t bytes = characters.size() + sizeof(kTerminator);
    auto buffer = std::make_unique<LentBuffer>(kernel, bytes, "the characters of a string object");
    std::ranges::copy(kTerminator, std::ranges::copy(characters, buffer->get()).out);
    string.text = {static_cast<USHORT>(characters.size()), static_cast<USHORT>(bytes),
                   reinterpret_cast<PWCHAR>(buffer->get())};
    string.buffer = std::move(buffer);
}

namespace functions {

NTSTATUS NTAPI StringCreate(PWDF_DRIVER_GLOBALS globals, PCUNICODE_STRING text, PWDF_OBJECT_ATTRIBUTES attributes,
                            WDFSTRING* handle)
{
    const PlatformCall call("WdfStringCreate", HOST_CALLER, PASSIVE_LEVEL);
    ClearOnEntry(handle);
    if (text != nullptr && !kernel::IsWellFormed(*text)) {
        return STATUS_INVALID_PARAMETER;
    }
    return Create<StringObject>(call, globals, attributes, handle, "String", [&](StringObject& string) {
        if (text != nullptr) {
            Assign(Framework::Current().kernel, string,
                   {reinterpret_cast<const std::byte*>(text->Buffer), text->Length});
        }
    });
}

void NTAPI StringGetUnicodeString(PWDF_DRIVER_GLOBALS, WDFSTRING handle, PUNICODE_STRING text)
{
    const PlatformCall call("WdfStringGetUnicodeString", HOST_CALLER, PASSIVE_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* string = framework.objects.Resolve<StringObject>(call, handle, "String");
    if (string != nullptr && Requires(call, text, "UnicodeString")) {
        *text = string->text;
    }
}

}  // namespace functions
}  // namespace host::framework
