// A PE image read from its bytes for checking: every access is checked, and what a linker made is not taken for
// granted.
//
// Independent of the host's loader on purpose: what both misread in the same way no check would find.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace image_check {

// Something that the file claims to hold cannot be read. The text names the place.
class FormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum Machine : std::uint16_t { kMachineX64 = 0x8664, kMachineArm64 = 0xAA64 };

enum DirectoryIndex : unsigned {
    kExports = 0,
    kImports = 1,
    kResources = 2,
    kFunctionTable = 3,
    kCertificates = 4,
    kRelocations = 5,
    kDebug = 6,
    kThreadLocalStorage = 9,
    kLoadConfiguration = 10,
    kBoundImports = 11,
    kDelayImports = 13,
    kManagedCode = 14,
    kDirectoryCount = 16,
};

// "Address" always means an offset from the image's base, "offset" one from the beginning of the file.
struct Headers {
    std::uint16_t machine;
    std::uint16_t characteristics;
    std::uint16_t magic;
    std::uint32_t entryAddress;
    std::uint64_t preferredBase;
    std::uint32_t sectionAlignment;
    std::uint32_t fileAlignment;
    std::uint16_t systemVersion[2];     // major, minor
    std::uint16_t subsystemVersion[2];  // major, minor
    std::uint32_t imageSizeBytes;
    std::uint32_t headersSizeBytes;
    std::uint32_t checksum;
    std::uint16_t subsystem;
    std::uint16_t dllCharacteristics;
};

struct Section {
    std::string name;
    std::uint32_t address;
    std::uint32_t sizeBytes;
    std::uint32_t rawOffset;
    std::uint32_t rawSizeBytes;
    std::uint32_t characteristics;

    [[nodiscard]] bool HoldsInitializedData() const { return (characteristics & 0x00000060u) != 0; }
    [[nodiscard]] bool IsDiscardable() const { return (characteristics & 0x02000000u) != 0; }
    [[nodiscard]] bool IsExecutable() const { return (characteristics & 0x20000000u) != 0; }
    [[nodiscard]] bool IsReadable() const { return (characteristics & 0x40000000u) != 0; }
    [[nodiscard]] bool IsWritable() const { return (characteristics & 0x80000000u) != 0; }
};

struct Directory {
    std::uint32_t address = 0;
    std::uint32_t sizeBytes = 0;
};

struct ImportedModule {
    std::string name;
    std::vector<std::string> names;
    unsigned ordinals = 0;  // how many are imported by number
};

struct Relocation {
    std::uint32_t address;
    unsigned type;
};

// The functions that the unwind tables cover: begin <= address < end.
struct FunctionRange {
    std::uint32_t begin;
    std::uint32_t end;
    unsigned version;  // of its unwind data; 1 for the packed form, which has none
};

struct DebugEntry {
    std::uint32_t type;
    std::string pdbName;                           // CodeView entries only
    std::uint32_t extendedDllCharacteristics = 0;  // entries of that type only
};

struct LoadConfiguration {
    std::uint32_t sizeBytes;
    std::uint64_t guardCheckSlot;
    std::uint64_t guardDispatchSlot;
    std::uint32_t guardFlags;
    std::vector<std::uint32_t> guardedFunctions;  // addresses
};

// By which a type, a name or a language is found: a text, or a number when there is none.
struct ResourceId {
    std::uint32_t number = 0;
    std::string text;

    bool operator==(const ResourceId&) const = default;
    bool operator<(const ResourceId& other) const;
};

struct Resource {
    ResourceId type;
    ResourceId name;
    ResourceId language;
    std::uint32_t address;
    std::uint32_t sizeBytes;
};

// The constructors throw FormatError unless both headers and the section table can be read; the others when the table
// in question cannot.
class PeReader {
public:
    explicit PeReader(std::vector<std::uint8_t> bytes);
    static PeReader FromFile(const std::filesystem::path& file);

    [[nodiscard]] const std::vector<std::uint8_t>& bytes() const { return bytes_; }
    [[nodiscard]] const Headers& headers() const { return headers_; }
    [[nodiscard]] const std::vector<Section>& sections() const { return sections_; }
    [[nodiscard]] Directory directory(unsigned index) const { return directories_[index]; }

    [[nodiscard]] const Section* SectionOf(std::uint64_t address) const;
    // Offset of sizeBytes bytes at an address that the file holds; not those that are only zeros in memory.
    [[nodiscard]] std::uint64_t OffsetOf(std::uint64_t address, std::uint64_t sizeBytes) const;
    [[nodiscard]] std::uint32_t ComputedChecksum() const;

    [[nodiscard]] std::vector<ImportedModule> Imports() const;
    [[nodiscard]] std::vector<Relocation> Relocations() const;
    [[nodiscard]] std::vector<FunctionRange> FunctionRanges() const;
    [[nodiscard]] std::vector<DebugEntry> DebugEntries() const;
    // In the order of the tree; the places of their data are as the tree says, not checked.
    [[nodiscard]] std::vector<Resource> Resources() const;
    [[nodiscard]] std::optional<LoadConfiguration> GuardConfiguration() const;
    // Where the load configuration says that the stack protector's cookie lies; 0 when it names none.
    [[nodiscard]] std::uint64_t CookieAddress() const;

    template <class T>
    [[nodiscard]] T At(std::uint64_t offset) const
    {
        T value;
        std::memcpy(&value, Range(offset, sizeof(T)), sizeof(T));
        return value;
    }

    template <class T>
    [[nodiscard]] T AtAddress(std::uint64_t address) const
    {
        return At<T>(OffsetOf(address, sizeof(T)));
    }

private:
    [[nodiscard]] const std::uint8_t* Range(std::uint64_t offset, std::uint64_t sizeBytes) const;
    [[nodiscard]] std::string TextAtAddress(std::uint64_t address) const;
    [[nodiscard]] std::string TextWithin(std::uint64_t offset, std::uint64_t sizeBytes) const;
    void ReadOptionalHeader(std::uint64_t offset, std::uint16_t sizeBytes);
    void ReadSections(std::uint64_t offset, std::uint16_t count);

    std::vector<std::uint8_t> bytes_;
    Headers headers_{};
    std::uint64_t checksumOffset_ = 0;
    Directory directories_[kDirectoryCount]{};
    std::vector<Section> sections_;
};

}  // namespace image_check
