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
    Set(service, name, std::move(entry));
}

void Registry::SetString(const std::string& service, const std::string& name, const std::string& text)
{
    RegistryValue entry{kTypeString, {}};
    for (const char letter : text + '\0') {
        entry.data.push_back(static_cast<std::byte>(letter));
        entry.data.push_back(std::byte{0});
    }
    Set(service, name, std::move(entry));
}

void Registry::SetData(const std::string& service, const std::string& name, std::uint32_t type,
                       std::vector<std::byte> data)
{
    Set(service, name, {type, std::move(data)});
}

bool Registry::Remove(const std::string& service, const std::string& name)
{
    const std::lock_guard lock(mutex_);
    const auto key = parameters_.find(Key(service));
    return key != parameters_.end() && key->second.erase(Key(name)) != 0;
}

void Registry::Set(const std::string& service, const std::string& name, RegistryValue value)
{
    const std::lock_guard lock(mutex_);
    RegistryValue& entry = parameters_[Key(service)][Key(name)];
    value.name = entry.name.empty() ? name : entry.name;
    value.serial = entry.name.empty() ? ++nextSerial_ : entry.serial;
    entry = std::move(value);
}

std::vector<RegistryNumber> Registry::Numbers(const std::string& service) const
{
    const std::lock_guard lock(mutex_);
    std::map<std::uint64_t, RegistryNumber> bySerial;
    if (const auto key = parameters_.find(Key(service)); key != parameters_.end()) {
        for (const auto& [lowerCaseName, value] : key->second) {
            if (value.type == kTypeDword && value.data.size() == sizeof(std::uint32_t)) {
                RegistryNumber& number = bySerial[value.serial];
                number.name = value.name;
                std::memcpy(&number.value, value.data.data(), sizeof(number.value));
            }
        }
    }
    std::vector<RegistryNumber> numbers;
    for (auto& [serial, number] : bySerial) {
        numbers.push_back(std::move(number));
    }
    return numbers;
}

void Registry::CreateParameters(const std::string& service)
{
    const std::lock_guard lock(mutex_);
    parameters_[Key(service)];
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
