#include "host/image/image.h"

#include <array>
#include <fstream>

// Does nothing: a debugger stops here to learn where a PE image lies, whose symbols it must be given
// (docs/debugging.md).
extern "C" [[gnu::noinline]] void zepn_image_loaded(const char* name, const void* base)
{
    asm volatile("" : : "r"(name), "r"(base));
}

namespace host::image {

std::unique_ptr<LoadedImage> LoadedImage::Load(Environment& environment, const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::array<char, 4> magic{};
    if (!stream || !stream.read(magic.data(), magic.size())) {
        throw HostError(file.string() + ": cannot be read as an image");
    }
    if (magic[0] == 'M' && magic[1] == 'Z') {
        std::unique_ptr<LoadedImage> image = LoadPe(environment, file);
        zepn_image_loaded(image->name().c_str(), image->base());
        return image;
    }
    if (magic == std::array<char, 4>{'\x7f', 'E', 'L', 'F'}) {
        return LoadNative(environment, file);
    }
    throw HostError(file.string() + ": neither a PE image nor a shared object (first bytes are not MZ or ELF)");
}

}  // namespace host::image
