// Damaged driver images, for the checks of images and for the host's loader.
#include "host/environment.h"
#include "host/image/image.h"
#include "host/machine.h"
#include "tests/fuzz/kinds.h"
#include "tests/kit/settings.h"
#include "tools/image_check/checks.h"

#include <algorithm>
#include <cstring>

namespace fuzz {
namespace {

using image_check::PeReader;

PeReader ReaderOf(const std::string& bytes)
{
    return PeReader({bytes.begin(), bytes.end()});
}

// Damage to headers and tables rather than to code, with a checksum that fits, so that readers go on to it.
std::string MutateHeaders(Mutator& mutator, const std::string& original)
{
    constexpr std::size_t kHeaderBytes = 1024;
    constexpr std::size_t kPieceBytes = 64;
    std::string image = original;
    const std::size_t begin =
        mutator.OneIn(3) ? mutator.Below(original.size() - kPieceBytes) : mutator.Below(kHeaderBytes - kPieceBytes);
    // As long as before: what comes after it stays where it was.
    std::string piece = mutator.MutateBytes(original.substr(begin, kPieceBytes));
    piece.resize(kPieceBytes);
    std::ranges::copy(piece, image.begin() + static_cast<std::ptrdiff_t>(begin));
    try {
        const PeReader reader = ReaderOf(image);
        const std::uint32_t checksum = reader.ComputedChecksum();
        const std::size_t place = reader.At<std::uint32_t>(60) + 24 + 64;
        std::memcpy(&image[place], &checksum, sizeof(checksum));
    } catch (const image_check::FormatError&) {
        // It has no place for a checksum.
    }
    return image;
}

std::string ReadImage(const std::string& bytes)
{
    // Its findings are answers; that it cannot be read at all is for the loader to say.
    try {
        (void)image_check::CheckStructure(ReaderOf(bytes));
    } catch (const image_check::FormatError&) {
    }
    return ReadAsFile(bytes, [](const std::filesystem::path& file) {
        // A machine registers with the loader what the platform exports, for all that is loaded later.
        [[maybe_unused]] static const bool isExported = [] {
            const host::Machine machine({});
            return true;
        }();
        host::Environment environment({});
        (void)host::image::LoadedImage::Load(environment, file);
    });
}

}  // namespace

FileKind Images()
{
    return {.name = "images",
            .originals = [] { return ContentsOf(std::filesystem::path(ZEPN_ROOT) / "out" / tests::kMachine, ".sys"); },
            .mutate = MutateHeaders,
            .read = ReadImage};
}

}  // namespace fuzz
