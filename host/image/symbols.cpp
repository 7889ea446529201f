#include "host/image/symbols.h"
#include "host/checks/source_lines.h"
#include "host/image/link_map.h"

#include <cxxabi.h>
#include <elf.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>

namespace host::image {
namespace {

using checks::BareName;
using checks::Symbol;
using checks::Symbols;

std::string Demangled(const char* name)
{
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                                           &std::free);
    if (status != 0 || text == nullptr) {
        return name;
    }
    std::string full = text.get();
    constexpr const char* kAnonymous = "(anonymous namespace)::";
    for (std::size_t at = full.find(kAnonymous); at != std::string::npos; at = full.find(kAnonymous)) {
        full.erase(at, std::strlen(kAnonymous));
    }
    return BareName(full);
}

Symbols ReadOnce(const std::filesystem::path& file, std::vector<Symbol> (*read)(const std::filesystem::path&))
{
    struct Entry {
        std::filesystem::file_time_type written;
        std::uintmax_t sizeBytes;
        Symbols symbols;
    };
    static std::mutex mutex;
    static std::map<std::filesystem::path, Entry> entries;
    std::error_code error;
    const auto written = std::filesystem::last_write_time(file, error);
    const std::uintmax_t sizeBytes = std::filesystem::file_size(file, error);
    if (error) {
        return std::make_shared<const std::vector<Symbol>>();
    }
    const std::lock_guard lock(mutex);
    const auto [found, isNew] = entries.try_emplace(file);
    Entry& entry = found->second;
    if (isNew || entry.written != written || entry.sizeBytes != sizeBytes) {
        std::vector<Symbol> symbols = read(file);
        std::ranges::sort(symbols, {}, &Symbol::offset);
        entry = {written, sizeBytes, std::make_shared<const std::vector<Symbol>>(std::move(symbols))};
    }
    return entry.symbols;
}

std::vector<Symbol> ReadMapFile(const std::filesystem::path& map)
{
    std::vector<Symbol> symbols;
    for (const LinkMapEntry& entry : ReadLinkMap(map)) {
        if (entry.kind == LinkMapEntry::Kind::kSymbol) {
            symbols.push_back({entry.offset, BareName(entry.name)});
        }
    }
    return symbols;
}

std::vector<Symbol> ReadElf(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::error_code error;
    const std::uintmax_t sizeBytes = std::filesystem::file_size(file, error);
    std::vector<char> bytes(error ? 0 : sizeBytes);
    stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    const auto at = [&bytes]<class T>(std::uint64_t offset, T& value) {
        if (offset > bytes.size() || sizeof(T) > bytes.size() - offset) {
            return false;
        }
        std::memcpy(&value, bytes.data() + offset, sizeof(T));
        return true;
    };

    std::vector<Symbol> symbols;
    Elf64_Ehdr header;
    if (!at(0, header)) {
        return symbols;
    }
    for (unsigned index = 0; index < header.e_shnum; ++index) {
        Elf64_Shdr section;
        Elf64_Shdr names;
        if (!at(header.e_shoff + std::uint64_t{index} * sizeof(section), section) || section.sh_type != SHT_SYMTAB ||
            !at(header.e_shoff + std::uint64_t{section.sh_link} * sizeof(names), names)) {
            continue;
        }
        for (std::uint64_t offset = 0; offset + sizeof(Elf64_Sym) <= section.sh_size; offset += sizeof(Elf64_Sym)) {
            Elf64_Sym symbol;
            if (!at(section.sh_offset + offset, symbol) || ELF64_ST_TYPE(symbol.st_info) != STT_FUNC ||
                symbol.st_value == 0 || names.sh_offset + symbol.st_name >= bytes.size()) {
                continue;
            }
            symbols.push_back({symbol.st_value, Demangled(bytes.data() + names.sh_offset + symbol.st_name)});
        }
    }
    return symbols;
}

}  // namespace

Symbols MapFileSymbols(const std::filesystem::path& image)
{
    std::filesystem::path map = image;
    map.replace_extension(".map");
    return ReadOnce(map, ReadMapFile);
}

Symbols ElfSymbols(const std::filesystem::path& file)
{
    return ReadOnce(file, ReadElf);
}

}  // namespace host::image
