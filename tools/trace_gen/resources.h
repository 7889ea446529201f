// What makes the driver's events readable, event template and message table, as the .res file that a linker takes.
#pragma once

#include "tools/trace_gen/event_template.h"

namespace trace_gen {

[[nodiscard]] Bytes ResourceFile(const ProviderDescription& provider);

}  // namespace trace_gen
