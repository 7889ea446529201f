// What a driver calls an object that nobody has named.
#pragma once

#include "host/framework/object.h"

#include <string>

namespace host::framework {

// The member of a context in which the driver keeps the object's handle, "wdfWaitLockGeneral": of an object above it,
// of the driver object or of a device. Empty when it is kept elsewhere, or the image has no debug information. The
// mutex is held.
[[nodiscard]] std::string MemberThatKeeps(const Object& object);

}  // namespace host::framework
