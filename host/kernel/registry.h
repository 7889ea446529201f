// The registry, as far as drivers see it: values below the Parameters key of their service.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace host::kernel {

inline constexpr std::uint32_t kTypeString = 1;
inline constexpr std::uint32_t kTypeDword = 4;

struct RegistryValue {
    std::uint32_t type;
    std::vector<std::byte> data;
    std::string name = {};     // as it was first written
    std::uint64_t serial = 0;  // in order of first writing
};

struct RegistryNumber {
    std::string name;
    std::uint32_t value;
};

// Service and value names are compared without case.
class Registry {
public:
    void SetDword(const std::string& service, const std::string& name, std::uint32_t value);
    void SetString(const std::string& service, const std::string& name, const std::string& text);
    void SetData(const std::string& service, const std::string& name, std::uint32_t type, std::vector<std::byte> data);
    bool Remove(const std::string& service, const std::string& name);  // false when there is no such value
    void CreateParameters(const std::string& service);
    [[nodiscard]] bool HasParameters(const std::string& service) const;
    // All numbers below a key, oldest first.
    [[nodiscard]] std::vector<RegistryNumber> Numbers(const std::string& service) const;
    [[nodiscard]] std::optional<RegistryValue> Query(const std::string& service, const std::string& name) const;

private:
    void Set(const std::string& service, const std::string& name, RegistryValue value);

    mutable std::mutex mutex_;
    std::map<std::string, std::map<std::string, RegistryValue>> parameters_;
    std::uint64_t nextSerial_ = 0;
};

}  // namespace host::kernel
