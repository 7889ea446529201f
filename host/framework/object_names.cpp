#include "host/framework/object_names.h"

#include "host/checks/type_members.h"
#include "host/environment.h"
#include "host/framework/devices.h"

#include <optional>

namespace host::framework {
namespace {

// The driver's threads may write there meanwhile.
[[clang::no_sanitize("thread")]] std::optional<std::size_t> OffsetOf(WDFOBJECT handle, const Context& context)
{
    const auto* handles = static_cast<WDFOBJECT const volatile*>(context.memory);
    for (std::size_t index = 0; index < context.sizeBytes / sizeof(WDFOBJECT); ++index) {
        if (handles[index] == handle) {
            return index * sizeof(WDFOBJECT);
        }
    }
    return std::nullopt;
}

std::string MemberOf(const Object* keeper, WDFOBJECT handle)
{
    if (keeper == nullptr) {
        return {};
    }
    for (const Context& context : keeper->contexts) {
        const std::optional<std::size_t> offset = OffsetOf(handle, context);
        const auto image = offset ? Environment::Current().modules.PlaceOf(context.type) : std::nullopt;
        if (image) {
            return checks::MemberName(image->file, context.type->ContextName, *offset);
        }
    }
    return {};
}

}  // namespace

std::string MemberThatKeeps(const Object& object)
{
    std::string name;
    for (const Object* above = object.parent(); above != nullptr && name.empty(); above = above->parent()) {
        name = MemberOf(above, object.handle);
    }
    if (object.driver == nullptr || !name.empty()) {
        return name;
    }
    name = MemberOf(object.driver->driver, object.handle);
    for (const DeviceObject* device : object.driver->devices) {
        name = name.empty() ? MemberOf(device, object.handle) : name;
    }
    return name;
}

}  // namespace host::framework
