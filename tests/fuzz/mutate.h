// Mutation of files, byte by byte, repeatable from a seed. What knows the structure of a kind of file uses it for its
// random choices.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace fuzz {

class Mutator {
public:
    explicit Mutator(std::uint64_t seed) : random_(seed) {}

    // 0 to count - 1; count is not 0.
    [[nodiscard]] std::size_t Below(std::size_t count) { return static_cast<std::size_t>(random_() % count); }
    [[nodiscard]] bool OneIn(std::size_t count) { return Below(count) == 0; }
    template <class Type>
    [[nodiscard]] const Type& OneOf(const std::vector<Type>& list)
    {
        return list[Below(list.size())];
    }

    // One to eight edits: bits, bytes and little-endian integers at the edges of their ranges, numbers in text, ranges
    // that are removed, moved or repeated (up to kRepetitions times), words that mean something in the format.
    [[nodiscard]] std::string MutateBytes(std::string bytes, const std::vector<std::string>& words = {});

    // One to `most` of the pieces of a file lost, doubled, exchanged or changed.
    template <class Piece>
    void MutatePieces(std::vector<Piece>& pieces, std::size_t most,
                      const std::function<Piece(const Piece& piece)>& change)
    {
        for (std::size_t left = 1 + Below(most); left > 0 && !pieces.empty(); --left) {
            const auto place = pieces.begin() + static_cast<std::ptrdiff_t>(Below(pieces.size()));
            switch (Below(4)) {
            case 0:
                pieces.erase(place);
                break;
            case 1:
                pieces.insert(place, Piece(*place));
                break;
            case 2:
                std::swap(*place, pieces[Below(pieces.size())]);
                break;
            default:
                *place = change(*place);
            }
        }
    }

    // No file grows beyond this by mutation.
    static constexpr std::size_t kSizeMaximum = 1 << 20;
    static constexpr std::size_t kRepetitions = 30'000;

private:
    void Edit(std::string& bytes, const std::vector<std::string>& words);
    void OverwriteInteger(std::string& bytes);
    void ReplaceNumber(std::string& bytes);
    void Repeat(std::string& bytes);

    std::mt19937_64 random_;
};

}  // namespace fuzz
