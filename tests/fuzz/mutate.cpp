#include "tests/fuzz/mutate.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>

namespace fuzz {
namespace {

constexpr std::size_t kEdits = 8;
constexpr std::size_t kShortRange = 24;

// Where ranges and conversions end: around powers of two.
const std::vector<std::uint64_t> kIntegers = [] {
    std::vector<std::uint64_t> integers;
    for (const unsigned bits : {1, 3, 7, 8, 12, 14, 15, 16, 30, 31, 32, 63}) {
        for (const std::uint64_t offset : {~std::uint64_t{0}, std::uint64_t{0}, std::uint64_t{1}}) {
            integers.push_back((std::uint64_t{1} << bits) + offset);
        }
    }
    integers.insert(integers.end(), {0, ~std::uint64_t{0}, ~std::uint64_t{7}});
    return integers;
}();
const std::vector<std::string> kNumbers = [] {
    std::istringstream words("0 -1 1 255 256 65535 65536 65537 2147483647 2147483648 4294967295 4294967296 -2147483649 "
                             "1e9 1e999 0.5 0x10 letters 00 +1 18446744073709551615 18446744073709551616 "
                             "99999999999999999999999999");
    std::vector<std::string> numbers{""};
    numbers.insert(numbers.end(), std::istream_iterator<std::string>(words), {});
    return numbers;
}();

}  // namespace

std::string Mutator::MutateBytes(std::string bytes, const std::vector<std::string>& words)
{
    for (std::size_t left = 1 + Below(kEdits); left > 0; --left) {
        Edit(bytes, words);
        bytes.resize(std::min(bytes.size(), kSizeMaximum));
    }
    return bytes;
}

void Mutator::Edit(std::string& bytes, const std::vector<std::string>& words)
{
    const std::size_t at = Below(bytes.size() + 1);
    const std::size_t length = std::min(bytes.size() - at, 1 + Below(OneIn(8) ? bytes.size() + 1 : kShortRange));
    switch (Below(10)) {
    case 0:
        if (at < bytes.size()) {
            bytes[at] = static_cast<char>(bytes[at] ^ (1 << Below(8)));
        }
        return;
    case 1:
        if (at < bytes.size()) {
            bytes[at] = static_cast<char>(Below(256));
        }
        return;
    case 2:
        OverwriteInteger(bytes);
        return;
    case 3:
        ReplaceNumber(bytes);
        return;
    case 4:
        bytes.erase(at, length);
        return;
    case 5:
        Repeat(bytes);
        return;
    case 6: {
        const std::string range = bytes.substr(at, length);
        bytes.insert(Below(bytes.size() + 1), range);
        return;
    }
    case 7: {
        std::string range(1 + Below(kShortRange), '\0');
        std::ranges::generate(range, [this] { return static_cast<char>(Below(256)); });
        bytes.insert(at, range);
        return;
    }
    case 8:
        if (!words.empty()) {
            bytes.replace(at, OneIn(2) ? length : 0, OneOf(words));
        }
        return;
    default:
        if (OneIn(4)) {
            bytes.resize(at);
        }
    }
}

void Mutator::OverwriteInteger(std::string& bytes)
{
    const std::size_t size = std::size_t{1} << Below(4);
    if (bytes.size() < size) {
        return;
    }
    std::size_t at = Below(bytes.size() - size + 1);
    if (!OneIn(4)) {
        at -= at % size;  // most formats align
    }
    const std::uint64_t value = OneIn(4) ? bytes.size() - 1 + Below(3) : OneOf(kIntegers);
    for (std::size_t byte = 0; byte < size; ++byte) {
        bytes[at + byte] = static_cast<char>(value >> (8 * byte));
    }
}

// One of the numbers written out in the file, from a random place on.
void Mutator::ReplaceNumber(std::string& bytes)
{
    const auto isDigit = [](char letter) { return std::isdigit(static_cast<unsigned char>(letter)) != 0; };
    const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(Below(bytes.size() + 1));
    const auto begin = std::find_if(from, bytes.end(), isDigit);
    const auto end = std::find_if_not(begin, bytes.end(), isDigit);
    bytes.replace(begin, end, OneOf(kNumbers));
}

void Mutator::Repeat(std::string& bytes)
{
    const std::size_t at = Below(bytes.size() + 1);
    const std::string range = bytes.substr(at, 1 + Below(kShortRange));
    const std::size_t most = OneIn(8) ? kRepetitions : 4;
    std::string repeated;
    for (std::size_t left = 1 + Below(most); left > 0 && bytes.size() + repeated.size() < kSizeMaximum; --left) {
        repeated += range;
    }
    bytes.insert(at, repeated);
}

}  // namespace fuzz
