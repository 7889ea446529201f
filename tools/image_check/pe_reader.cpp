#include "tools/image_check/pe_reader.h"
#include "tools/image_check/text.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace image_check {
namespace {

constexpr std::uint16_t kMagicPe32Plus = 0x20B;
constexpr std::uint32_t kTextMaximum = 256;
constexpr std::uint32_t kDebugTypeCodeView = 2;
constexpr std::uint32_t kDebugTypeExtendedCharacteristics = 20;
constexpr std::uint32_t kCodeViewSignature = 0x53445352;  // "RSDS"

}  // namespace

PeReader PeReader::FromFile(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream || std::filesystem::is_directory(file)) {
        throw FormatError("cannot be opened");
    }
    return PeReader({std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()});
}

PeReader::PeReader(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes))
{
    if (At<std::uint16_t>(0) != 0x5A4D) {
        throw FormatError("the file does not begin with MZ");
    }
    const std::uint64_t peHeader = At<std::uint32_t>(60);
    if (At<std::uint32_t>(peHeader) != 0x00004550) {
        throw FormatError("no PE signature at " + Hex(peHeader));
    }
    const std::uint64_t fileHeader = peHeader + 4;
    headers_.machine = At<std::uint16_t>(fileHeader);
    headers_.characteristics = At<std::uint16_t>(fileHeader + 18);
    const auto optionalSize = At<std::uint16_t>(fileHeader + 16);
    ReadOptionalHeader(fileHeader + 20, optionalSize);
    ReadSections(fileHeader + 20 + optionalSize, At<std::uint16_t>(fileHeader + 2));
}

void PeReader::ReadOptionalHeader(std::uint64_t offset, std::uint16_t sizeBytes)
{
    constexpr unsigned kDirectoriesOffset = 112;
    headers_.magic = At<std::uint16_t>(offset);
    if (headers_.magic != kMagicPe32Plus || sizeBytes < kDirectoriesOffset) {
        throw FormatError("the optional header is not PE32+ but " + Hex(headers_.magic));
    }
    headers_.entryAddress = At<std::uint32_t>(offset + 16);
    headers_.preferredBase = At<std::uint64_t>(offset + 24);
    headers_.sectionAlignment = At<std::uint32_t>(offset + 32);
    headers_.fileAlignment = At<std::uint32_t>(offset + 36);
    headers_.systemVersion[0] = At<std::uint16_t>(offset + 40);
    headers_.systemVersion[1] = At<std::uint16_t>(offset + 42);
    headers_.subsystemVersion[0] = At<std::uint16_t>(offset + 48);
    headers_.subsystemVersion[1] = At<std::uint16_t>(offset + 50);
    headers_.imageSizeBytes = At<std::uint32_t>(offset + 56);
    headers_.headersSizeBytes = At<std::uint32_t>(offset + 60);
    checksumOffset_ = offset + 64;
    headers_.checksum = At<std::uint32_t>(checksumOffset_);
    headers_.subsystem = At<std::uint16_t>(offset + 68);
    headers_.dllCharacteristics = At<std::uint16_t>(offset + 70);
    const std::uint32_t count = std::min<std::uint32_t>(
        {At<std::uint32_t>(offset + 108), kDirectoryCount, (sizeBytes - kDirectoriesOffset) / 8u});
    for (unsigned index = 0; index < count; ++index) {
        const std::uint64_t entry = offset + kDirectoriesOffset + 8 * index;
        directories_[index] = {At<std::uint32_t>(entry), At<std::uint32_t>(entry + 4)};
    }
}

void PeReader::ReadSections(std::uint64_t offset, std::uint16_t count)
{
    constexpr unsigned kHeaderSize = 40;
    for (unsigned index = 0; index < count; ++index) {
        const std::uint64_t header = offset + kHeaderSize * index;
        sections_.push_back({
            .name = TextWithin(header, 8),
            .address = At<std::uint32_t>(header + 12),
            .sizeBytes = At<std::uint32_t>(header + 8),
            .rawOffset = At<std::uint32_t>(header + 20),
            .rawSizeBytes = At<std::uint32_t>(header + 16),
            .characteristics = At<std::uint32_t>(header + 36),
        });
    }
}

const std::uint8_t* PeReader::Range(std::uint64_t offset, std::uint64_t sizeBytes) const
{
    if (sizeBytes > bytes_.size() || offset > bytes_.size() - sizeBytes) {
        throw FormatError(Join(sizeBytes, " bytes at offset ", Hex(offset), " lie beyond the end of the file"));
    }
    return bytes_.data() + offset;
}

std::string PeReader::TextWithin(std::uint64_t offset, std::uint64_t sizeBytes) const
{
    const auto* text = reinterpret_cast<const char*>(Range(offset, sizeBytes));
    return {text, strnlen(text, sizeBytes)};
}

const Section* PeReader::SectionOf(std::uint64_t address) const
{
    const auto found = std::ranges::find_if(sections_, [&](const Section& section) {
        return address >= section.address && address - section.address < section.sizeBytes;
    });
    return found == sections_.end() ? nullptr : &*found;
}

std::uint64_t PeReader::OffsetOf(std::uint64_t address, std::uint64_t sizeBytes) const
{
    const Section* section = SectionOf(address);
    if (section == nullptr) {
        throw FormatError("address " + Hex(address) + " lies in no section");
    }
    const std::uint64_t begin = address - section->address;
    const std::uint64_t held = std::min(section->sizeBytes, section->rawSizeBytes);
    if (sizeBytes > held || begin > held - sizeBytes) {
        throw FormatError(Join(sizeBytes, " bytes at address ", Hex(address), " go beyond section ", section->name));
    }
    return section->rawOffset + begin;
}

std::string PeReader::TextAtAddress(std::uint64_t address) const
{
    std::string text;
    while (const char letter = AtAddress<char>(address + text.size())) {
        text.push_back(letter);
        if (text.size() > kTextMaximum) {
            throw FormatError("the name at address " + Hex(address) + " does not end");
        }
    }
    return text;
}

std::uint32_t PeReader::ComputedChecksum() const
{
    std::uint32_t sum = 0;
    for (std::size_t offset = 0; offset < bytes_.size(); ++offset) {
        if (offset >= checksumOffset_ && offset < checksumOffset_ + 4) {
            continue;
        }
        sum += std::uint32_t{bytes_[offset]} << offset % 2 * 8;
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return ((sum & 0xFFFF) + (sum >> 16)) + static_cast<std::uint32_t>(bytes_.size());
}

std::vector<ImportedModule> PeReader::Imports() const
{
    constexpr unsigned kDescriptorSize = 20;
    constexpr std::uint64_t kByOrdinal = 1ull << 63;
    std::vector<ImportedModule> modules;
    const std::uint64_t table = directory(kImports).address;
    if (table == 0) {
        return modules;
    }
    for (std::uint64_t descriptor = table; AtAddress<std::uint32_t>(descriptor + 12) != 0;
         descriptor += kDescriptorSize) {
        ImportedModule& module = modules.emplace_back();
        module.name = TextAtAddress(AtAddress<std::uint32_t>(descriptor + 12));
        const auto names = AtAddress<std::uint32_t>(descriptor);
        std::uint64_t slot = names != 0 ? names : AtAddress<std::uint32_t>(descriptor + 16);
        for (auto entry = AtAddress<std::uint64_t>(slot); entry != 0; entry = AtAddress<std::uint64_t>(slot)) {
            slot += sizeof(entry);
            if ((entry & kByOrdinal) != 0) {
                ++module.ordinals;
            } else {
                constexpr unsigned kHintSize = 2;
                module.names.push_back(TextAtAddress(entry + kHintSize));
            }
        }
    }
    return modules;
}

std::vector<Relocation> PeReader::Relocations() const
{
    constexpr unsigned kBlockHeaderSize = 8;
    std::vector<Relocation> relocations;
    const Directory table = directory(kRelocations);
    const std::uint64_t end = std::uint64_t{table.address} + table.sizeBytes;
    for (std::uint64_t block = table.address; block < end;) {
        const auto page = AtAddress<std::uint32_t>(block);
        const auto size = AtAddress<std::uint32_t>(block + 4);
        if (size < kBlockHeaderSize || size > end - block) {
            throw FormatError(Join("the relocation block at ", Hex(block), " claims ", size, " bytes"));
        }
        for (std::uint64_t entry = block + kBlockHeaderSize; entry + 2 <= block + size; entry += 2) {
            const unsigned value = AtAddress<std::uint16_t>(entry);
            relocations.push_back({page + (value & 0xFFF), value >> 12});
        }
        block += size;
    }
    return relocations;
}

std::vector<FunctionRange> PeReader::FunctionRanges() const
{
    const bool isArm = headers_.machine == kMachineArm64;
    const unsigned entrySize = isArm ? 8 : 12;
    const Directory table = directory(kFunctionTable);
    std::vector<FunctionRange> ranges;
    if (table.sizeBytes % entrySize != 0) {
        throw FormatError(Join("a function table of ", table.sizeBytes, " bytes is no whole number of entries"));
    }
    const std::uint64_t end = std::uint64_t{table.address} + table.sizeBytes;
    for (std::uint64_t entry = table.address; entry < end; entry += entrySize) {
        const auto begin = AtAddress<std::uint32_t>(entry);
        const auto second = AtAddress<std::uint32_t>(entry + 4);
        if (!isArm) {
            const auto info = AtAddress<std::uint8_t>(AtAddress<std::uint32_t>(entry + 8));
            ranges.push_back({begin, second, info & 7u});
        } else if ((second & 3) != 0) {
            // Packed into the entry itself: the length in words stands in bits 2 to 12.
            ranges.push_back({begin, begin + (second >> 2 & 0x7FF) * 4, 1});
        } else {
            // Versions are counted from 0 there.
            const auto info = AtAddress<std::uint32_t>(second);
            ranges.push_back({begin, begin + (info & 0x3FFFF) * 4, (info >> 18 & 3) + 1});
        }
    }
    return ranges;
}

std::vector<DebugEntry> PeReader::DebugEntries() const
{
    constexpr unsigned kEntrySize = 28;
    constexpr unsigned kNameOffset = 24;
    const Directory table = directory(kDebug);
    std::vector<DebugEntry> entries;
    for (std::uint64_t done = 0; done + kEntrySize <= table.sizeBytes; done += kEntrySize) {
        const std::uint64_t entry = table.address + done;
        DebugEntry& debug = entries.emplace_back();
        debug.type = AtAddress<std::uint32_t>(entry + 12);
        if (debug.type == kDebugTypeCodeView) {
            const auto size = AtAddress<std::uint32_t>(entry + 16);
            const std::uint64_t record = AtAddress<std::uint32_t>(entry + 24);
            if (size <= kNameOffset || At<std::uint32_t>(record) != kCodeViewSignature) {
                throw FormatError("the CodeView record at offset " + Hex(record) + " names no PDB");
            }
            debug.pdbName = TextWithin(record + kNameOffset, size - kNameOffset);
        } else if (debug.type == kDebugTypeExtendedCharacteristics) {
            debug.extendedDllCharacteristics = At<std::uint32_t>(AtAddress<std::uint32_t>(entry + 24));
        }
    }
    return entries;
}

std::optional<LoadConfiguration> PeReader::GuardConfiguration() const
{
    constexpr unsigned kFlagsEnd = 148;
    const std::uint64_t record = directory(kLoadConfiguration).address;
    if (record == 0) {
        return std::nullopt;
    }
    LoadConfiguration configuration{};
    configuration.sizeBytes = AtAddress<std::uint32_t>(record);
    if (configuration.sizeBytes < kFlagsEnd) {
        return configuration;
    }
    configuration.guardCheckSlot = AtAddress<std::uint64_t>(record + 112);
    configuration.guardDispatchSlot = AtAddress<std::uint64_t>(record + 120);
    configuration.guardFlags = AtAddress<std::uint32_t>(record + 144);
    // Each entry: an address and as many bytes of metadata as the topmost four bits say.
    const std::uint64_t entrySize = 4 + (configuration.guardFlags >> 28);
    const auto table = AtAddress<std::uint64_t>(record + 128) - headers_.preferredBase;
    const auto count = AtAddress<std::uint64_t>(record + 136);
    for (std::uint64_t index = 0; index < count; ++index) {
        configuration.guardedFunctions.push_back(AtAddress<std::uint32_t>(table + entrySize * index));
    }
    return configuration;
}

std::uint64_t PeReader::CookieAddress() const
{
    constexpr unsigned kCookie = 88;
    const std::uint64_t record = directory(kLoadConfiguration).address;
    if (record == 0 || AtAddress<std::uint32_t>(record) < kCookie + sizeof(std::uint64_t)) {
        return 0;
    }
    const auto cookie = AtAddress<std::uint64_t>(record + kCookie);
    return cookie == 0 ? 0 : cookie - headers_.preferredBase;
}

}  // namespace image_check
