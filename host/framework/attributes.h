// Object attributes as a creation gets them.
#pragma once

#include "host/framework/object.h"

namespace host::framework {

enum class ParentRule { kOptional, kForbidden, kRequired };

// The status that attributes earn at creation, checked in the framework's order.
[[nodiscard]] NTSTATUS CheckAttributes(const WDF_OBJECT_ATTRIBUTES* attributes, ObjectType type, ParentRule parentRule);

}  // namespace host::framework
