// What the init functions of devices check.
#pragma once

#include "host/framework/devices.h"

namespace host::framework {

// Whether it is the init structure that device add got, and not consumed yet; else false, with a violation.
[[nodiscard]] bool IsUsable(const PlatformCall& call, const WDFDEVICE_INIT* init);

// Whether a structure has one of these sizes; else false, with a violation.
[[nodiscard]] bool HasSize(const PlatformCall& call, ULONG size, std::initializer_list<std::size_t> expected);

}  // namespace host::framework
