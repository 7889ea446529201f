// A program of the system's that answers a question: its standard output for an input.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace host::checks {

// Found on the PATH by its name, arguments[0]. Empty when it is not installed, or has not ended within 20 seconds; what
// it prints as errors is dropped. The input must fit into a pipe (64 KiB). May be called from the fault handler.
[[nodiscard]] std::optional<std::string> AskTool(const std::vector<std::string>& arguments, const std::string& input);

}  // namespace host::checks
