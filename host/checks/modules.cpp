#include "host/checks/modules.h"

#include <algorithm>
#include <cstdio>

namespace host::checks {
namespace {

// Of an address in something; nothing for its begin.
std::string Offset(std::uint64_t value)
{
    if (value == 0) {
        return {};
    }
    char text[24];
    std::snprintf(text, sizeof(text), "+0x%llx", static_cast<unsigned long long>(value));
    return text;
}

const Symbol* Around(const std::vector<Symbol>& symbols, std::uint64_t offset)
{
    const auto after = std::upper_bound(symbols.begin(), symbols.end(), offset,
                                        [](std::uint64_t at, const Symbol& symbol) { return at < symbol.offset; });
    return after == symbols.begin() ? nullptr : &*std::prev(after);
}

}  // namespace

std::string CodePlace::Text() const
{
    if (function.empty()) {
        return module + Offset(offset) + (isUnloaded ? ", which is unloaded" : "");
    }
    return module + "!" + function + (isUnloaded ? ", which is unloaded" : Offset(functionOffset));
}

void Modules::Add(const void* base, std::size_t sizeBytes, std::string name, std::filesystem::path file,
                  Symbols symbols)
{
    const auto begin = reinterpret_cast<std::uint64_t>(base);
    const std::lock_guard lock(mutex_);
    std::erase_if(byBase_, [&](const auto& known) {
        const Module& other = known.second;
        return other.base < begin + sizeBytes && begin < other.base + other.sizeBytes;
    });
    byBase_[begin] = Module{begin, sizeBytes, std::move(name), std::move(file), std::move(symbols)};
}

void Modules::Remove(const void* base)
{
    const std::lock_guard lock(mutex_);
    if (const auto found = byBase_.find(reinterpret_cast<std::uint64_t>(base)); found != byBase_.end()) {
        found->second.isUnloaded = true;
    }
}

const Modules::Module* Modules::Find(const void* address) const
{
    const auto at = reinterpret_cast<std::uint64_t>(address);
    const auto after = byBase_.upper_bound(at);
    if (after == byBase_.begin()) {
        return nullptr;
    }
    const Module& module = std::prev(after)->second;
    return at - module.base < module.sizeBytes ? &module : nullptr;
}

std::optional<CodePlace> Modules::PlaceOf(const void* address) const
{
    const std::lock_guard lock(mutex_);
    const Module* module = Find(address);
    if (module == nullptr) {
        return std::nullopt;
    }
    CodePlace place{.module = module->name,
                    .file = module->file,
                    .offset = reinterpret_cast<std::uint64_t>(address) - module->base,
                    .isUnloaded = module->isUnloaded};
    if (const Symbol* symbol = Around(*module->symbols, place.offset)) {
        place.function = symbol->name;
        place.functionOffset = place.offset - symbol->offset;
    }
    return place;
}

std::string Modules::Describe(const void* address) const
{
    const std::optional<CodePlace> place = PlaceOf(address);
    return place ? place->Text() : "host";
}

std::string Modules::NameAt(const void* address) const
{
    const std::lock_guard lock(mutex_);
    const Module* module = Find(address);
    return module == nullptr || module->isUnloaded ? std::string() : module->name;
}

std::string Modules::FunctionAt(const void* address) const
{
    const std::lock_guard lock(mutex_);
    const Module* module = Find(address);
    if (module == nullptr || module->isUnloaded) {
        return {};
    }
    const Symbol* symbol = Around(*module->symbols, reinterpret_cast<std::uint64_t>(address) - module->base);
    return symbol == nullptr ? std::string() : symbol->name;
}

bool Modules::Contains(const void* address) const
{
    const std::lock_guard lock(mutex_);
    const Module* module = Find(address);
    return module != nullptr && !module->isUnloaded;
}

}  // namespace host::checks
