// The version resource of an image, as a debugger shows it.
#pragma once

#include "tools/image_check/pe_reader.h"

#include <filesystem>
#include <string>

namespace tests {

class VersionResource {
public:
    explicit VersionResource(const std::filesystem::path& image)
    {
        const auto reader = image_check::PeReader::FromFile(image);
        for (const image_check::Resource& resource : reader.Resources()) {
            if (resource.type.number == 16) {
                const auto at = reader.OffsetOf(resource.address, resource.sizeBytes);
                bytes_.assign(reinterpret_cast<const char*>(reader.bytes().data()) + at, resource.sizeBytes);
            }
        }
    }

    // "1.2.3.4" of the fixed part, which begins after the root's key.
    [[nodiscard]] std::string FileVersion() const
    {
        constexpr std::size_t kFixedPart = 40;
        std::string text;
        for (const std::size_t word : {10, 8, 14, 12}) {
            text += (text.empty() ? "" : ".") + std::to_string(Word(kFixedPart + word));
        }
        return text;
    }

    // The text under a name; empty when there is none.
    [[nodiscard]] std::string Text(const std::string& name) const
    {
        std::string key;
        for (const char letter : name + '\0') {
            key += {letter, '\0'};
        }
        std::size_t at = bytes_.find(key);
        if (at == std::string::npos) {
            return {};
        }
        std::string text;
        for (at = (at + key.size() + 3) / 4 * 4; Word(at) != 0; at += 2) {
            text += static_cast<char>(Word(at));
        }
        return text;
    }

private:
    [[nodiscard]] unsigned Word(std::size_t at) const
    {
        return static_cast<unsigned char>(bytes_.at(at)) | static_cast<unsigned char>(bytes_.at(at + 1)) << 8;
    }

    std::string bytes_;
};

}  // namespace tests
