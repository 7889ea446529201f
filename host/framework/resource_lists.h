// The resources that a device got. The devices of this machine have no hardware, so their lists are empty.
#pragma once

#include "host/framework/object.h"

namespace host::framework {

struct DeviceObject;

struct ResourceListObject final : Object {
    explicit ResourceListObject(DriverInstance* owner) : Object(ObjectType::kResourceList, owner) { noDelete = true; }
};

template <>
inline constexpr ObjectType kTypeOf<ResourceListObject> = ObjectType::kResourceList;

// A list of a device that starts, which exists as long as the device. Called without the mutex.
[[nodiscard]] WDFCMRESLIST NewResourceList(Framework& framework, DeviceObject& device);

}  // namespace host::framework
