// Source lines of code in images, inlined functions included, read from PDB or DWARF by LLVM's symbolizer.
#pragma once

#include "host/checks/modules.h"

#include <string>
#include <vector>

namespace host::checks {

// The bare function name of a full one: "void __cdecl `anonymous namespace'::Find<3>(void *)" gives Find.
[[nodiscard]] std::string BareName(const std::string& name);

// "fan.sys!OnThermal (fan.cpp:41) → zepn.sys!Notifier_HelperSendState (state_posting.cpp:81)", in the order given. An
// inlined function stands after the one that it is part of. Without the symbolizer, or where an image's debug
// information is not to be had, "zepn.sys!Notifier_HelperSendState+0x51", and a remark at the end says why. Asks once
// for each place in a process.
[[nodiscard]] std::string PathText(const std::vector<CodePlace>& path);

}  // namespace host::checks
