// A reader of PE images for the tests, independent of the host's loader: it follows the headers and trusts nothing
// else.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tests {

struct PeView {
    struct Section {
        std::string name;
        std::uint32_t address, size, rawOffset, rawSize, flags;
    };
    std::vector<std::uint8_t> bytes;
    std::uint64_t optional = 0;  // offset of the optional header
    std::vector<Section> sections;

    explicit PeView(const std::filesystem::path& file)
    {
        std::ifstream stream(file, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
        const auto header = At<std::uint32_t>(60);
        optional = header + 24;
        const auto count = At<std::uint16_t>(header + 6);
        const std::uint64_t table = optional + At<std::uint16_t>(header + 20);
        for (unsigned index = 0; index < count; ++index) {
            const std::uint64_t at = table + 40 * index;
            std::string name(reinterpret_cast<const char*>(&bytes.at(at)), 8);
            sections.push_back({name.c_str(), At<std::uint32_t>(at + 12), At<std::uint32_t>(at + 8),
                                At<std::uint32_t>(at + 20), At<std::uint32_t>(at + 16), At<std::uint32_t>(at + 36)});
        }
    }

    template <class T>
    [[nodiscard]] T At(std::uint64_t offset) const
    {
        if (offset + sizeof(T) > bytes.size()) {
            throw std::out_of_range("the file ends before byte " + std::to_string(offset + sizeof(T)));
        }
        T value;
        std::memcpy(&value, bytes.data() + offset, sizeof(T));
        return value;
    }

    template <class T>
    [[nodiscard]] T Optional(unsigned offset) const
    {
        return At<T>(optional + offset);
    }

    [[nodiscard]] std::uint16_t Machine() const { return At<std::uint16_t>(optional - 20); }
    [[nodiscard]] std::uint32_t Directory(unsigned index) const { return Optional<std::uint32_t>(112 + 8 * index); }
    [[nodiscard]] std::uint32_t DirectorySize(unsigned index) const { return Optional<std::uint32_t>(116 + 8 * index); }

    [[nodiscard]] const Section* SectionOf(std::uint32_t address) const
    {
        for (const Section& section : sections) {
            if (address >= section.address && address - section.address < section.size) {
                return &section;
            }
        }
        return nullptr;
    }

    // File offset of an address in the image.
    [[nodiscard]] std::uint64_t Offset(std::uint32_t address) const
    {
        const Section* section = SectionOf(address);
        if (section == nullptr || address - section->address >= section->rawSize) {
            throw std::out_of_range("address without data in the file");
        }
        return section->rawOffset + (address - section->address);
    }

    [[nodiscard]] std::string Text(std::uint32_t address) const
    {
        return reinterpret_cast<const char*>(&bytes.at(Offset(address)));
    }

    [[nodiscard]] std::map<std::string, std::set<std::string>> Imports() const
    {
        std::map<std::string, std::set<std::string>> imports;
        for (std::uint64_t at = Offset(Directory(1)); At<std::uint32_t>(at + 12) != 0; at += 20) {
            std::set<std::string>& names = imports[Text(At<std::uint32_t>(at + 12))];
            for (std::uint64_t name = Offset(At<std::uint32_t>(at)); At<std::uint64_t>(name) != 0; name += 8) {
                names.insert(Text(static_cast<std::uint32_t>(At<std::uint64_t>(name)) + 2));
            }
        }
        return imports;
    }

    [[nodiscard]] std::uint32_t ComputedChecksum() const
    {
        std::uint64_t sum = 0;
        for (std::size_t index = 0; index < bytes.size(); index += 2) {
            if (index != optional + 64 && index != optional + 66) {
                sum += bytes[index] | (index + 1 < bytes.size() ? bytes[index + 1] << 8 : 0);
            }
        }
        while (sum >> 16 != 0) {
            sum = (sum & 0xFFFF) + (sum >> 16);
        }
        return static_cast<std::uint32_t>(sum + bytes.size());
    }

    // Address ranges that the unwind tables cover.
    [[nodiscard]] std::vector<std::pair<std::uint32_t, std::uint32_t>> UnwindRanges() const
    {
        constexpr std::uint16_t kArm64 = 0xAA64;
        std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges;
        const std::uint64_t table = Offset(Directory(3));
        const unsigned entrySize = Machine() == kArm64 ? 8 : 12;
        for (std::uint64_t at = table; at < table + DirectorySize(3); at += entrySize) {
            const auto begin = At<std::uint32_t>(at);
            auto end = At<std::uint32_t>(at + 4);
            if (Machine() == kArm64) {
                // Packed: length in bits 2 to 12; else the first word of the unwind data holds it in bits 0 to 17.
                const std::uint32_t words =
                    (end & 3) != 0 ? (end >> 2) & 0x7FF : At<std::uint32_t>(Offset(end)) & 0x3FFFF;
                end = begin + 4 * words;
            }
            ranges.emplace_back(begin, end);
        }
        return ranges;
    }
};

}  // namespace tests
