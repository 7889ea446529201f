// A PE file's headers, read with every access checked. Layout and rules as the system's loader applies them to drivers.
#pragma once

#include "host/environment.h"

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace host::image {

struct PeSection {
    std::string name;
    std::uint32_t virtualAddress;
    std::uint32_t virtualSize;
    std::uint32_t rawOffset;
    std::uint32_t rawSize;
    std::uint32_t characteristics;

    [[nodiscard]] bool IsExecutable() const { return (characteristics & 0x20000000u) != 0; }
    [[nodiscard]] bool IsWritable() const { return (characteristics & 0x80000000u) != 0; }
    [[nodiscard]] bool IsReadable() const { return (characteristics & 0x40000000u) != 0; }
    [[nodiscard]] bool IsDiscardable() const { return (characteristics & 0x02000000u) != 0; }
};

struct PeDirectory {
    std::uint32_t address = 0;
    std::uint32_t sizeBytes = 0;
};

enum PeDirectoryIndex : unsigned {
    kDirectoryImport = 1,
    kDirectoryException = 3,
    kDirectoryRelocation = 5,
    kDirectoryTls = 9,
    kDirectoryLoadConfig = 10,
    kDirectoryBoundImport = 11,
    kDirectoryDelayImport = 13,
    kDirectoryCount = 16,
};

inline constexpr std::uint32_t kPageSize = 4096;

// Refuses by throwing HostError: "<file>: <place>: <reason>".
class PeFile {
public:
    explicit PeFile(const std::filesystem::path& file);

    [[nodiscard]] const std::vector<std::uint8_t>& bytes() const { return bytes_; }
    [[nodiscard]] const std::vector<PeSection>& sections() const { return sections_; }
    [[nodiscard]] PeDirectory directory(unsigned index) const { return directories_[index]; }
    [[nodiscard]] std::uint64_t preferredBase() const { return preferredBase_; }
    [[nodiscard]] std::uint32_t imageSize() const { return imageSize_; }
    [[nodiscard]] std::uint32_t headersSize() const { return headersSize_; }
    [[nodiscard]] std::uint32_t entryAddress() const { return entryAddress_; }

    [[noreturn]] void Refuse(const std::string& place, const std::string& reason) const;

private:
    template <class T>
    [[nodiscard]] T At(std::uint64_t offset, const char* place) const
    {
        if (offset + sizeof(T) > bytes_.size()) {
            Refuse(place, "the file ends at byte " + std::to_string(bytes_.size()));
        }
        T value;
        std::memcpy(&value, bytes_.data() + offset, sizeof(T));
        return value;
    }
    void ReadHeaders();
    void ReadOptionalHeader(std::uint64_t offset, std::uint16_t size);
    void ReadSections(std::uint64_t offset, std::uint16_t count);
    void CheckSection(const PeSection& section, std::uint32_t earliestAddress) const;
    void CheckSum(std::uint64_t fieldOffset) const;

    std::string file_;
    std::vector<std::uint8_t> bytes_;
    std::vector<PeSection> sections_;
    PeDirectory directories_[kDirectoryCount]{};
    std::uint64_t preferredBase_ = 0;
    std::uint32_t imageSize_ = 0;
    std::uint32_t headersSize_ = 0;
    std::uint32_t entryAddress_ = 0;
};

}  // namespace host::image
