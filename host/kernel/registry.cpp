#include "host/kernel/registry.h"

#include <cctype>
#include <cstring>

namespace host::kernel {
namespace {

std::string Key(std::string name)
{
    for (char& letter : name) {
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return name;
}

}  // namespace

void Registry::SetDword(const std::string& service, const std::string& name, std::uint32_t value)
{
    RegistryValue entry{kTypeDword, std::vector<std::byte>(sizeof(value))};
    std::memcpy(entry.data.data(), &value, sizeof(value));
    const std::lock_guard lock(mutex_);
    parameters_[Key(service)][Key(name)] = std::move(entry);
}

void Registry::SetString(const std::string& service, const std::string& name, const std::string& text)
{
    RegistryValue entry{kTypeString, {}};
    for (const char letter : text + '\0') {
        entry.data.push_back(static_cast<std::byte>(letter));
        entry.data.push_back(std::byte{0});
    }
    const std::lock_guard lock(mutex_);
    parameters_[Key(service)][Key(name)] = std::move(entry);
}

void Registry::CreateParameters(const std::string& service)
{
    const std::lock_guard lock(mutex_);
    parameters_[Key(service)];
}

void Registry::RemoveParameters(const std::string& service)
{
    const std::lock_guard lock(mutex_);
    parameters_.erase(Key(service));
}

bool Registry::HasParameters(const std::string& service) const
{
    const std::lock_guard lock(mutex_);
    return parameters_.contains(Key(service));
}

std::optional<RegistryValue> Registry::Query(const std::string& service, const std::string& name) const
{
    const std::lock_guard lock(mutex_);
    const auto key = parameters_.find(Key(service));
    if (key == parameters_.end()) {
        return std::nullopt;
    }
    const auto value = key->second.find(Key(name));
    if (value == key->second.end()) {
        return std::nullopt;
    }
    return value->second;
}

}  // namespace host::kernel
