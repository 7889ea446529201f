#include "host/image/image.h"

#include <array>
#include <fstream>

namespace host::image {

std::unique_ptr<LoadedImage> LoadedImage::Load(Environment& environment, const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::array<char, 4> magic{};
    if (!stream || !stream.read(magic.data(), magic.size())) {
        throw HostError(file.string() + ": cannot be read as an image");
    }
    if (magic[0] == 'M' && magic[1] == 'Z') {
        return LoadPe(environment, file);
    }
    if (magic == std::array<char, 4>{'\x7f', 'E', 'L', 'F'}) {
        return LoadNative(environment, file);
    }
    throw HostError(file.string() + ": neither a PE image nor a shared object (first bytes are not MZ or ELF)");
}

}  // namespace host::image
