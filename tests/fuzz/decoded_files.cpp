// What zepn decode reads: captures, event manifests and message formats.
#include "host/tracing/capture_file.h"
#include "host/tracing/decode.h"
#include "tests/fuzz/kinds.h"

#include <cstring>
#include <sstream>

namespace fuzz {
namespace {

const std::filesystem::path kRoot = ZEPN_ROOT;
const std::filesystem::path kDecodingFiles = kRoot / "out" / "manifest";

// ---- Captures ----

constexpr std::size_t kMagicBytes = 8;
constexpr std::size_t kHeadBytes = 16;  // size in 32 bits, kind in 32 bits, order in 64 bits

// The records with the one that ends the file; what cannot be one is left out.
std::vector<std::string> RecordsOf(const std::string& capture)
{
    std::vector<std::string> records;
    for (std::size_t at = kMagicBytes; at + kHeadBytes <= capture.size();) {
        std::uint32_t sizeBytes = 0;
        std::memcpy(&sizeBytes, &capture[at], sizeof(sizeBytes));
        if (sizeBytes < kHeadBytes || sizeBytes > capture.size() - at) {
            break;
        }
        records.push_back(capture.substr(at, sizeBytes));
        at += sizeBytes;
    }
    return records;
}

// Records lost, doubled, in another order, with other contents; the sizes fit, and mostly the number at the end.
std::string MutateRecords(Mutator& mutator, const std::string& original)
{
    std::vector<std::string> records = RecordsOf(original);
    if (records.empty()) {
        return original;
    }
    std::string end = records.back();
    records.pop_back();
    mutator.MutatePieces<std::string>(records, 5, [&](const std::string& record) {
        std::string changed = record.substr(0, kHeadBytes) + mutator.MutateBytes(record.substr(kHeadBytes));
        const auto sizeBytes = static_cast<std::uint32_t>(changed.size());
        std::memcpy(changed.data(), &sizeBytes, sizeof(sizeBytes));
        return changed;
    });
    const std::uint64_t count = records.size() + (mutator.OneIn(8) ? 1 : 0);
    std::memcpy(&end[kHeadBytes - sizeof(count)], &count, sizeof(count));
    std::string capture = original.substr(0, kMagicBytes);
    for (const std::string& record : records) {
        capture += record;
    }
    return capture + end;
}

std::string ReadCaptureFile(const std::string& bytes)
{
    static const host::tracing::Manifest manifest(kDecodingFiles / "zepn.man");
    static const host::tracing::MessageFormats formats(kDecodingFiles);
    return ReadAsFile(bytes, [](const std::filesystem::path& file) {
        for (const host::tracing::CapturedRecord& record : host::tracing::ReadCapture(file)) {
            if (const auto* event = std::get_if<host::tracing::CapturedEvent>(&record)) {
                (void)manifest.Decode(*event);
            } else {
                (void)formats.Decode(std::get<host::tracing::CapturedMessage>(record));
            }
        }
    });
}

// ---- Manifests and message formats ----

// Lines lost, doubled, in another order.
std::string MutateLines(Mutator& mutator, const std::string& original)
{
    std::vector<std::string> lines;
    std::istringstream stream(original);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line + "\n");
    }
    mutator.MutatePieces<std::string>(lines, 4, [&](const std::string& line) { return mutator.MutateBytes(line); });
    std::string text;
    for (const std::string& line : lines) {
        text += line;
    }
    return text;
}

template <class Reader>
std::string ReadBy(const std::string& bytes)
{
    return ReadAsFile(bytes, [](const std::filesystem::path& file) { const Reader reader(file); });
}

}  // namespace

FileKind Captures()
{
    return {.name = "captures",
            .originals = [] { return ContentsOf(kRoot / "tests" / "windows", ".capture"); },
            .mutate = MutateRecords,
            .read = ReadCaptureFile};
}

FileKind Manifests()
{
    return {.name = "manifests",
            .originals = [] { return ContentsOf(kDecodingFiles, ".man"); },
            .words = {"<a>", "</a>", "<event>", "<template tid=\"a\">", "</template>", "<data/>", "<!--", "-->", "<?",
                      "<![CDATA[", "]]>", "&lt;", "&#0;", "&#x110000;", "\"", "win:UInt64", "\xFF\xFE", "\xEF\xBB\xBF"},
            .mutate = MutateLines,
            .read = ReadBy<host::tracing::Manifest>};
}

FileKind Formats()
{
    return {.name = "message_formats",
            .originals = [] { return ContentsOf(kDecodingFiles, ".tmf"); },
            .words = {"#typev", "{", "}", "ItemLong", ", Item", " -- ", "\"", "//", "%10!s!", "%0"},
            .mutate = MutateLines,
            .read = ReadBy<host::tracing::MessageFormats>};
}

}  // namespace fuzz
