#include "host/checks/modules.h"

#include <algorithm>
#include <cstdio>

namespace host::checks {
namespace {

std::string Offset(std::uint64_t value)
{
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

void Modules::Add(const void* base, std::size_t sizeBytes, std::string name, Symbols symbols)
{
    const auto begin = reinterpret_cast<std::uint64_t>(base);
    const std::lock_guard lock(mutex_);
    byBase_[begin] = Module{begin, sizeBytes, std::move(name), std::move(symbols)};
}

void Modules::Remove(const void* base)
{
    const std::lock_guard lock(mutex_);
    byBase_.erase(reinterpret_cast<std::uint64_t>(base));
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

std::string Modules::Describe(const void* address) const
{
    const std::lock_guard lock(mutex_);
    const Module* module = Find(address);
    if (module == nullptr) {
        return "host";
    }
    const std::uint64_t offset = reinterpret_cast<std::uint64_t>(address) - module->base;
    if (const Symbol* symbol = Around(*module->symbols, offset)) {
        return module->name + "!" + symbol->name + Offset(offset - symbol->offset);
    }
    return module->name + Offset(offset);
}

std::string Modules::NameAt(const void* address) const
{
    const std::lock_guard lock(mutex_);
    const Module* module = Find(address);
    return module == nullptr ? std::string() : module->name;
}

std::string Modules::FunctionAt(const void* address) const
{
    const std::lock_guard lock(mutex_);
    const Module* module = Find(address);
    if (module == nullptr) {
        return {};
    }
    const Symbol* symbol = Around(*module->symbols, reinterpret_cast<std::uint64_t>(address) - module->base);
    return symbol == nullptr ? std::string() : symbol->name;
}

bool Modules::Contains(const void* address) const
{
    const std::lock_guard lock(mutex_);
    return Find(address) != nullptr;
}

}  // namespace host::checks
