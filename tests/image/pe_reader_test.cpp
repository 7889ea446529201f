// The reader of the checks of images, against LLVM's own: both read the same in what ships. What a damaged image is
// read as, the checks' tests say.
#include "tests/image/damage.h"
#include "tools/image_check/text.h"

#include <algorithm>

namespace tests {
namespace {

using image_check::Hex;
using image_check::Join;

// What llvm-readobj prints of an image, line by line without blanks at the ends.
std::vector<std::string> PrintedByLlvm(const std::filesystem::path& image)
{
    const Ran ran =
        Shell("llvm-readobj-19 --file-headers --sections --coff-imports --coff-basereloc '" + image.string() + "'");
    EXPECT_EQ(ran.status, 0);
    std::vector<std::string> lines = LinesOf(ran.printed);
    for (std::string& line : lines) {
        line.erase(0, line.find_first_not_of(' '));
    }
    return lines;
}

// The same lines of the same image by our reader, as far as it keeps them.
std::vector<std::string> PrintedByUs(const PeReader& image)
{
    const image_check::Headers& headers = image.headers();
    std::vector<std::string> lines = {
        Join("AddressOfEntryPoint: ", Hex(headers.entryAddress)),
        Join("ImageBase: ", Hex(headers.preferredBase)),
        Join("SectionAlignment: ", headers.sectionAlignment),
        Join("FileAlignment: ", headers.fileAlignment),
        Join("SizeOfImage: ", headers.imageSizeBytes),
        Join("SizeOfHeaders: ", headers.headersSizeBytes),
        Join("CheckSum: ", Hex(headers.checksum)),
    };
    constexpr std::pair<unsigned, const char*> kDirectories[] = {{image_check::kImports, "ImportTable"},
                                                                 {image_check::kResources, "ResourceTable"},
                                                                 {image_check::kFunctionTable, "ExceptionTable"},
                                                                 {image_check::kRelocations, "BaseRelocationTable"},
                                                                 {image_check::kDebug, "Debug"},
                                                                 {image_check::kLoadConfiguration, "LoadConfigTable"}};
    for (const auto& [index, name] : kDirectories) {
        lines.push_back(Join(name, "RVA: ", Hex(image.directory(index).address)));
        lines.push_back(Join(name, "Size: ", Hex(image.directory(index).sizeBytes)));
    }
    for (const image_check::Section& section : image.sections()) {
        lines.push_back("Name: " + section.name);
        lines.push_back("VirtualSize: " + Hex(section.sizeBytes));
        lines.push_back("VirtualAddress: " + Hex(section.address));
        lines.push_back(Join("RawDataSize: ", section.rawSizeBytes));
        lines.push_back("PointerToRawData: " + Hex(section.rawOffset));
        lines.push_back("Characteristics [ (" + Hex(section.characteristics) + ")");
    }
    for (const image_check::ImportedModule& module : image.Imports()) {
        lines.push_back("Name: " + module.name);
        for (const std::string& name : module.names) {
            lines.push_back("Symbol: " + name);
        }
    }
    for (const image_check::Relocation& relocation : image.Relocations()) {
        lines.push_back(relocation.type == 0    ? "Type: ABSOLUTE"
                        : relocation.type == 10 ? "Type: DIR64"
                                                : "Type: other");
        lines.push_back("Address: " + Hex(relocation.address));
    }
    return lines;
}

class PeReaderAndLlvm : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(Of, PeReaderAndLlvm, testing::Values("arm64", "x64"),
                         [](const auto& info) { return std::string(info.param); });

TEST_P(PeReaderAndLlvm, ReadTheSame)
{
    const std::vector<std::string> theirs = PrintedByLlvm(PathOf(GetParam()));
    const std::vector<std::string> ours = PrintedByUs(PeReader::FromFile(PathOf(GetParam())));
    // Ours in theirs, in order; theirs have more after some: the name's bytes, an import's hint.
    auto at = theirs.begin();
    for (const std::string& line : ours) {
        const auto found = std::find_if(at, theirs.end(), [&](const std::string& other) {
            return other == line || other.starts_with(line + " (");
        });
        ASSERT_NE(found, theirs.end()) << line << " is not what llvm-readobj reads next";
        at = found + 1;
    }
    for (const char* start : {"Symbol: ", "Address: ", "VirtualSize: "}) {
        const auto starts = [&](const std::string& line) { return line.starts_with(start); };
        EXPECT_EQ(std::ranges::count_if(ours, starts), std::ranges::count_if(theirs, starts)) << start;
    }
}

}  // namespace
}  // namespace tests
