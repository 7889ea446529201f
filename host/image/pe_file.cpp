#include "host/image/pe_file.h"

#include <fstream>

namespace host::image {
namespace {

#if defined(__x86_64__)
constexpr std::uint16_t kMachine = 0x8664;
constexpr const char* kMachineName = "x64";
#else
constexpr std::uint16_t kMachine = 0xAA64;
constexpr const char* kMachineName = "ARM64";
#endif

constexpr std::uint16_t kMagicPe32Plus = 0x20B;
constexpr std::uint16_t kSubsystemNative = 1;
constexpr std::uint16_t kRelocationsStripped = 0x0001;
constexpr std::uint16_t kExecutableImage = 0x0002;
constexpr std::uint32_t kImageSizeMaximum = 64u << 20;
constexpr std::uint64_t kCheckSumOffset = 64;  // in the optional header

std::string Hex(std::uint64_t value)
{
    constexpr const char* kDigits = "0123456789ABCDEF";
    std::string text;
    do {
        text.insert(text.begin(), kDigits[value & 15]);
        value >>= 4;
    } while (value != 0);
    return "0x" + text;
}

}  // namespace

PeFile::PeFile(const std::filesystem::path& file) : file_(file.string())
{
    std::ifstream stream(file, std::ios::binary | std::ios::ate);
    const std::streamoff sizeBytes = stream.tellg();
    bytes_.resize(sizeBytes > 0 ? static_cast<std::size_t>(sizeBytes) : 0);
    stream.seekg(0);
    stream.read(reinterpret_cast<char*>(bytes_.data()), static_cast<std::streamsize>(bytes_.size()));
    ReadHeaders();
}

void PeFile::Refuse(const std::string& place, const std::string& reason) const
{
    throw HostError(file_ + ": " + place + ": " + reason);
}

void PeFile::ReadHeaders()
{
    if (At<std::uint16_t>(0, "DOS header") != 0x5A4D) {
        Refuse("DOS header", "does not begin with MZ");
    }
    const std::uint32_t peOffset = At<std::uint32_t>(60, "DOS header");
    if (At<std::uint32_t>(peOffset, "PE header") != 0x00004550) {
        Refuse("PE header", "no PE signature at " + Hex(peOffset));
    }
    const std::uint64_t fileHeader = std::uint64_t{peOffset} + 4;
    const auto machine = At<std::uint16_t>(fileHeader, "file header");
    if (machine != kMachine) {
        Refuse("file header",
               "machine " + Hex(machine) + ", but this host runs " + kMachineName + " images (" + Hex(kMachine) + ")");
    }
    const auto sectionCount = At<std::uint16_t>(fileHeader + 2, "file header");
    const auto optionalSize = At<std::uint16_t>(fileHeader + 16, "file header");
    const auto characteristics = At<std::uint16_t>(fileHeader + 18, "file header");
    if ((characteristics & kExecutableImage) == 0) {
        Refuse("file header", "not marked executable");
    }
    if ((characteristics & kRelocationsStripped) != 0) {
        Refuse("file header", "relocations are stripped, and the image must move");
    }
    const std::uint64_t optional = fileHeader + 20;
    ReadOptionalHeader(optional, optionalSize);
    ReadSections(optional + optionalSize, sectionCount);
    CheckSum(optional + kCheckSumOffset);
}

void PeFile::ReadOptionalHeader(std::uint64_t offset, std::uint16_t size)
{
    constexpr const char* kPlace = "optional header";
    if (size < 112 + 8 * kDirectoryCount) {
        Refuse(kPlace, "only " + std::to_string(size) + " bytes");
    }
    if (At<std::uint16_t>(offset, kPlace) != kMagicPe32Plus) {
        Refuse(kPlace, "not PE32+");
    }
    entryAddress_ = At<std::uint32_t>(offset + 16, kPlace);
    preferredBase_ = At<std::uint64_t>(offset + 24, kPlace);
    if (At<std::uint32_t>(offset + 32, kPlace) != kPageSize) {
        Refuse(kPlace, "section alignment is not 4096");
    }
    imageSize_ = At<std::uint32_t>(offset + 56, kPlace);
    headersSize_ = At<std::uint32_t>(offset + 60, kPlace);
    if (imageSize_ == 0 || imageSize_ > kImageSizeMaximum || imageSize_ % kPageSize != 0) {
        Refuse(kPlace, "image size " + Hex(imageSize_) + " is no multiple of 4096 up to 64 MiB");
    }
    if (headersSize_ > imageSize_ || headersSize_ > bytes_.size() || headersSize_ < offset + size) {
        Refuse(kPlace, "header size " + Hex(headersSize_) + " does not fit");
    }
    if (At<std::uint16_t>(offset + 68, kPlace) != kSubsystemNative) {
        Refuse(kPlace, "subsystem is not native (1)");
    }
    if (At<std::uint32_t>(offset + 108, kPlace) != kDirectoryCount) {
        Refuse(kPlace, "not sixteen data directories");
    }
    for (unsigned index = 0; index < kDirectoryCount; ++index) {
        directories_[index] = {At<std::uint32_t>(offset + 112 + 8 * index, kPlace),
                               At<std::uint32_t>(offset + 116 + 8 * index, kPlace)};
    }
    for (const unsigned index : {kDirectoryTls, kDirectoryBoundImport, kDirectoryDelayImport}) {
        if (directories_[index].address != 0) {
            Refuse("data directory " + std::to_string(index), "drivers have none of this kind");
        }
    }
}

void PeFile::ReadSections(std::uint64_t offset, std::uint16_t count)
{
    std::uint32_t earliestAddress = (headersSize_ + kPageSize - 1) / kPageSize * kPageSize;
    bool entryIsExecutable = false;
    for (unsigned index = 0; index < count; ++index) {
        const std::uint64_t header = offset + 40ull * index;
        PeSection section;
        for (unsigned letter = 0; letter < 8; ++letter) {
            const char value = At<char>(header + letter, "section header");
            if (value == '\0') {
                break;
            }
            section.name.push_back(value);
        }
        section.virtualSize = At<std::uint32_t>(header + 8, "section header");
        section.virtualAddress = At<std::uint32_t>(header + 12, "section header");
        section.rawSize = At<std::uint32_t>(header + 16, "section header");
        section.rawOffset = At<std::uint32_t>(header + 20, "section header");
        section.characteristics = At<std::uint32_t>(header + 36, "section header");
        CheckSection(section, earliestAddress);
        earliestAddress = section.virtualAddress + (section.virtualSize + kPageSize - 1) / kPageSize * kPageSize;
        if (section.IsExecutable() && entryAddress_ >= section.virtualAddress &&
            entryAddress_ - section.virtualAddress < section.virtualSize) {
            entryIsExecutable = true;
        }
        sections_.push_back(section);
    }
    if (!entryIsExecutable) {
        Refuse("entry point", Hex(entryAddress_) + " lies in no executable section");
    }
}

void PeFile::CheckSection(const PeSection& section, std::uint32_t earliestAddress) const
{
    const std::string place = "section " + section.name;
    if (section.virtualSize == 0 || section.virtualAddress % kPageSize != 0 ||
        section.virtualAddress < earliestAddress || section.virtualSize > imageSize_ ||
        section.virtualAddress > imageSize_ - section.virtualSize) {
        Refuse(place, "addresses " + Hex(section.virtualAddress) + " and " + Hex(section.virtualSize) +
                          " bytes on do not fit after " + Hex(earliestAddress) + " into an image of " +
                          Hex(imageSize_));
    }
    if (section.rawSize > bytes_.size() || section.rawOffset > bytes_.size() - section.rawSize) {
        Refuse(place, "its data lie beyond the end of the file");
    }
    if (section.IsExecutable() && section.IsWritable()) {
        Refuse(place, "writable and executable");
    }
}

void PeFile::CheckSum(std::uint64_t fieldOffset) const
{
    const auto stored = At<std::uint32_t>(fieldOffset, "checksum");
    std::uint32_t sum = 0;
    for (std::size_t index = 0; index < bytes_.size(); index += 2) {
        if (index == fieldOffset || index == fieldOffset + 2) {
            continue;
        }
        const std::uint32_t high = index + 1 < bytes_.size() ? bytes_[index + 1] : 0u;
        sum += bytes_[index] | high << 8;
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum += static_cast<std::uint32_t>(bytes_.size());
    if (stored != sum) {
        Refuse("checksum", "the header says " + Hex(stored) + ", the contents " + Hex(sum));
    }
}

}  // namespace host::image
