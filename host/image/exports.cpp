#include "host/image/exports.h"

#include <cctype>
#include <map>
#include <mutex>
#include <string>

namespace host::image {
namespace {

struct Table {
    std::mutex mutex;
    AbsentEntryName absentEntryName = nullptr;
    std::map<std::string, std::map<std::string, Export, std::less<>>> modules;
};

Table& TheTable()
{
    static Table table;
    return table;
}

std::string LowerCase(std::string_view text)
{
    std::string lower(text);
    for (char& letter : lower) {
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return lower;
}

template <class Condition>
std::vector<std::string> NamesOf(const Condition& isWanted)
{
    Table& table = TheTable();
    const std::lock_guard lock(table.mutex);
    std::vector<std::string> names;
    for (const auto& [module, exports] : table.modules) {
        for (const auto& [name, each] : exports) {
            if (isWanted(each)) {
                names.push_back(name);
            }
        }
    }
    return names;
}

}  // namespace

void AddExports(std::string_view module, std::span<const Export> exports)
{
    Table& table = TheTable();
    const std::lock_guard lock(table.mutex);
    auto& names = table.modules[LowerCase(module)];
    for (const Export& entry : exports) {
        names[entry.name] = entry;
    }
}

std::vector<std::string> ExportNames()
{
    return NamesOf([](const Export&) { return true; });
}

std::vector<std::string> ExportsWithResult()
{
    return NamesOf([](const Export& each) { return each.hasResult; });
}

bool HasModule(std::string_view module)
{
    Table& table = TheTable();
    const std::lock_guard lock(table.mutex);
    return table.modules.contains(LowerCase(module));
}

std::vector<std::string> ExportsOf(std::string_view module)
{
    Table& table = TheTable();
    const std::lock_guard lock(table.mutex);
    std::vector<std::string> names;
    for (const auto& [name, address] : table.modules[LowerCase(module)]) {
        names.push_back(name);
    }
    return names;
}

void* FindExport(std::string_view module, std::string_view name)
{
    Table& table = TheTable();
    const std::lock_guard lock(table.mutex);
    const auto found = table.modules.find(LowerCase(module));
    if (found == table.modules.end()) {
        return nullptr;
    }
    const auto entry = found->second.find(name);
    return entry == found->second.end() ? nullptr : entry->second.address;
}

void SetAbsentEntryName(AbsentEntryName find)
{
    Table& table = TheTable();
    const std::lock_guard lock(table.mutex);
    table.absentEntryName = find;
}

const char* FindAbsentEntry(unsigned index)
{
    Table& table = TheTable();
    const std::lock_guard lock(table.mutex);
    return table.absentEntryName == nullptr ? nullptr : table.absentEntryName(index);
}

}  // namespace host::image
