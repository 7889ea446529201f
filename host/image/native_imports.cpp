#include "host/image/native_imports.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <algorithm>
#include <cstdint>

namespace host::image {
namespace {

template <class T>
const T* Table(const link_map& map, Elf64_Sxword tag)
{
    for (const Elf64_Dyn* entry = map.l_ld; entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == tag) {
            return reinterpret_cast<const T*>(entry->d_un.d_ptr);
        }
    }
    return nullptr;
}

}  // namespace

std::vector<std::string> UndefinedSymbols(void* handle)
{
    std::vector<std::string> names;
    link_map* map = nullptr;
    if (dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0) {
        return names;
    }
    const auto* symbols = Table<Elf64_Sym>(*map, DT_SYMTAB);
    const auto* strings = Table<char>(*map, DT_STRTAB);
    const auto* hashes = Table<std::uint32_t>(*map, DT_GNU_HASH);
    if (symbols == nullptr || strings == nullptr || hashes == nullptr) {
        return names;
    }
    const std::uint32_t firstDefined = hashes[1];  // the table of hashes leaves out what comes before: all others
    for (std::uint32_t index = 1; index < firstDefined; ++index) {
        const Elf64_Sym& symbol = symbols[index];
        const char* name = strings + symbol.st_name;
        if (symbol.st_shndx == SHN_UNDEF && ELF64_ST_BIND(symbol.st_info) == STB_GLOBAL &&
            dlsym(RTLD_DEFAULT, name) == nullptr && dlsym(handle, name) == nullptr) {
            names.emplace_back(name);
        }
    }
    std::ranges::sort(names);
    return names;
}

}  // namespace host::image
