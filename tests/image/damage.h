// Damage done to the images that ship, and what the checks of images must find of it.
#pragma once

#include "tests/kit/texts.h"
#include "tools/image_check/checks.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace tests {

using image_check::Finding;
using image_check::FormatError;
using image_check::PeReader;
using Bytes = std::vector<std::uint8_t>;

inline std::filesystem::path PathOf(const std::string& machine)
{
    return std::filesystem::path(ZEPN_ROOT) / "out" / machine / "zepn.sys";
}

inline void Put(Bytes& bytes, std::uint64_t offset, const Bytes& values)
{
    ASSERT_LE(offset + values.size(), bytes.size());
    std::ranges::copy(values, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

inline std::uint64_t OptionalHeader(const PeReader& image)
{
    return image.At<std::uint32_t>(60) + 24;
}

// So that damage elsewhere is found for its own sake.
inline void MendChecksum(Bytes& bytes)
{
    const PeReader image(bytes);
    const std::uint32_t sum = image.ComputedChecksum();
    std::memcpy(&bytes[OptionalHeader(image) + 64], &sum, sizeof(sum));
}

// The names of the checks that fired, in order.
inline std::string ChecksOf(const std::vector<Finding>& findings)
{
    std::set<std::string> checks;
    for (const Finding& finding : findings) {
        checks.insert(finding.check);
    }
    std::string text;
    for (const std::string& check : checks) {
        text += (text.empty() ? "" : ", ") + check;
    }
    return text;
}

inline std::string TextOf(const std::vector<Finding>& findings)
{
    std::string text;
    for (const Finding& finding : findings) {
        text += finding.check + ": " + finding.text + "\n";
    }
    return text;
}

// Order of the sections in the images that ship.
enum SectionIndex : unsigned { kText, kReadOnlyData, kData, kFunctions, kResources, kRelocationData };

// ---- A place by what stands there, found anew in each image ----

using Place = std::function<std::uint64_t(const PeReader& image)>;

inline Place Optional(int offset)
{
    return [=](const PeReader& image) { return OptionalHeader(image) + static_cast<std::uint64_t>(offset); };
}
inline Place Header(SectionIndex section, int offset)
{
    return Optional(240 + 40 * static_cast<int>(section) + offset);
}
inline Place Directory(int index, int offset = 0)
{
    return Optional(112 + 8 * index + offset);
}
// What the place points to: by address in the image, by a whole pointer, by offset in the file.
inline Place Followed(const Place& from, unsigned offset = 0)
{
    return [=](const PeReader& image) { return image.OffsetOf(image.At<std::uint32_t>(from(image)), 1) + offset; };
}
inline Place FollowedPointer(const Place& from, unsigned offset = 0)
{
    return [=](const PeReader& image) {
        return image.OffsetOf(image.At<std::uint64_t>(from(image)) - image.headers().preferredBase, 1) + offset;
    };
}
inline Place FollowedInFile(const Place& from, unsigned offset = 0)
{
    return [=](const PeReader& image) { return image.At<std::uint32_t>(from(image)) + offset; };
}
// In the contents of a directory.
inline Place Table(int index, unsigned offset = 0)
{
    return Followed(Directory(index), offset);
}
// In the debug directory's entry of a type.
inline Place DebugEntry(std::uint32_t type, unsigned offset)
{
    return [=](const PeReader& image) {
        std::uint64_t entry = Table(6)(image);
        while (image.At<std::uint32_t>(entry + 12) != type) {
            entry += 28;
        }
        return entry + offset;
    };
}

// ---- Damage ----

using Edit = std::function<void(Bytes& bytes, const PeReader& good)>;

inline Edit Write(const Place& place, const Bytes& values)
{
    return [=](Bytes& bytes, const PeReader& good) { Put(bytes, place(good), values); };
}
inline Edit Add(const Place& place, std::uint8_t summand)
{
    return [=](Bytes& bytes, const PeReader& good) { bytes.at(place(good)) += summand; };
}
inline Edit SetBits(const Place& place, std::uint8_t bits)
{
    return [=](Bytes& bytes, const PeReader& good) { bytes.at(place(good)) |= bits; };
}
inline Edit ClearBits(const Place& place, std::uint8_t bits)
{
    return [=](Bytes& bytes, const PeReader& good) { bytes.at(place(good)) &= static_cast<std::uint8_t>(~bits); };
}
inline Edit Copy(const Place& from, const Place& to, unsigned sizeBytes)
{
    return [=](Bytes& bytes, const PeReader& good) { std::memcpy(&bytes[to(good)], &bytes[from(good)], sizeBytes); };
}

struct Damage {
    Edit apply;
    std::string checks;  // exactly those that must fire
    std::string words;   // in one of the findings
    std::string machine = "x64";
};

inline std::vector<Finding> FindingsOf(const Edit& edit, const std::string& machine,
                                       image_check::ReportResources reports = image_check::ReportResources::kRequired)
{
    const PeReader good = PeReader::FromFile(PathOf(machine));
    Bytes bytes = good.bytes();
    edit(bytes, good);
    MendChecksum(bytes);
    return image_check::CheckStructure(PeReader(bytes), reports);
}

inline void ExpectFound(const std::vector<Damage>& rows)
{
    for (const Damage& row : rows) {
        SCOPED_TRACE(row.machine + ": " + row.words);
        const std::vector<Finding> findings = FindingsOf(row.apply, row.machine);
        EXPECT_EQ(ChecksOf(findings), row.checks) << TextOf(findings);
        EXPECT_TRUE(Has(TextOf(findings), row.words));
    }
}

}  // namespace tests
