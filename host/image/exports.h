// What the platform's modules export to images: names and addresses, module by module.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace host::image {

struct Export {
    const char* name;
    void* address;  // function with the platform's calling convention
};

template <class Function>
constexpr Export Of(const char* name, Function* function)
{
    return {name, reinterpret_cast<void*>(function)};
}

// Adds to a module's exports; module names are compared without case. Adding a name again replaces it.
void AddExports(std::string_view module, std::span<const Export> exports);

// All names, of all modules.
[[nodiscard]] std::vector<std::string> ExportNames();

[[nodiscard]] bool HasModule(std::string_view module);

// The names that a module exports, sorted.
[[nodiscard]] std::vector<std::string> ExportsOf(std::string_view module);

// Null when the module has no such export.
[[nodiscard]] void* FindExport(std::string_view module, std::string_view name);

}  // namespace host::image
