// What the platform's modules export to images: names and addresses, module by module.
#pragma once

#include <ntddk.h>

#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace host::image {

struct Export {
    const char* name;
    void* address;           // function with the platform's calling convention
    bool hasResult = false;  // it returns a status or a pointer
};

template <class Function>
inline constexpr bool kHasResult = false;
template <class Result, class... Arguments>
inline constexpr bool kHasResult<Result NTAPI(Arguments...)> =
    std::is_same_v<Result, NTSTATUS> || std::is_pointer_v<Result>;
template <class Result, class... Arguments>
inline constexpr bool kHasResult<Result NTAPI_VARIADIC(Arguments..., ...)> = kHasResult<Result NTAPI(Arguments...)>;

template <class Function>
constexpr Export Of(const char* name, Function* function)
{
    return {name, reinterpret_cast<void*>(function), kHasResult<Function>};
}

// Adds to a module's exports; module names are compared without case. Adding a name again replaces it.
void AddExports(std::string_view module, std::span<const Export> exports);

// All names, of all modules; or those of the functions that return a status or a pointer.
[[nodiscard]] std::vector<std::string> ExportNames();
[[nodiscard]] std::vector<std::string> ExportsWithResult();

[[nodiscard]] bool HasModule(std::string_view module);

// The names that a module exports, sorted.
[[nodiscard]] std::vector<std::string> ExportsOf(std::string_view module);

// Null when the module has no such export.
[[nodiscard]] void* FindExport(std::string_view module, std::string_view name);

// The framework's functions are called through a table, by their index. The name of one that this host does not play;
// null for one that it does.
using AbsentEntryName = const char* (*)(unsigned index);
void SetAbsentEntryName(AbsentEntryName find);
[[nodiscard]] const char* FindAbsentEntry(unsigned index);

}  // namespace host::image
