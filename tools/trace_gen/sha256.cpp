#include "tools/trace_gen/sha256.h"

#include <bit>

namespace trace_gen {
namespace {

constexpr std::size_t kBlockBytes = 64;

// The first 32 bits after the point of the square or cube roots of the first primes.
template <std::size_t Count>
std::array<std::uint32_t, Count> RootsOfPrimes(unsigned degree)
{
    std::array<std::uint32_t, Count> roots{};
    std::size_t found = 0;
    for (unsigned number = 2; found < Count; ++number) {
        bool prime = true;
        for (unsigned divisor = 2; divisor * divisor <= number; ++divisor) {
            prime = prime && number % divisor != 0;
        }
        if (prime) {
            // Exact: the largest r with r^degree <= number * 2^(32 * degree).
            unsigned __int128 root = 0;
            for (int bit = 36; bit >= 0; --bit) {
                const unsigned __int128 trial = root | (static_cast<unsigned __int128>(1) << bit);
                const unsigned __int128 limit = static_cast<unsigned __int128>(number) << (degree == 2 ? 64 : 96);
                const unsigned __int128 power = degree == 2 ? trial * trial : trial * trial * trial;
                if (power <= limit) {
                    root = trial;
                }
            }
            roots[found++] = static_cast<std::uint32_t>(root);
        }
    }
    return roots;
}

}  // namespace

std::array<std::uint8_t, 32> Sha256(Bytes message)
{
    static const std::array<std::uint32_t, 64> kRounds = RootsOfPrimes<64>(3);
    std::array<std::uint32_t, 8> state = RootsOfPrimes<8>(2);
    const std::uint64_t bits = std::uint64_t{message.size()} * 8;
    message.push_back(0x80);
    while (message.size() % kBlockBytes != kBlockBytes - 8) {
        message.push_back(0);
    }
    for (int shift = 56; shift >= 0; shift -= 8) {
        message.push_back(static_cast<std::uint8_t>(bits >> shift));
    }
    for (std::size_t block = 0; block < message.size(); block += kBlockBytes) {
        std::array<std::uint32_t, 64> word{};
        for (std::size_t i = 0; i < 64; ++i) {
            if (i < 16) {
                const std::uint8_t* at = &message[block + 4 * i];
                word[i] = static_cast<std::uint32_t>(at[0] << 24 | at[1] << 16 | at[2] << 8 | at[3]);
                continue;
            }
            const std::uint32_t a = word[i - 15];
            const std::uint32_t b = word[i - 2];
            word[i] = word[i - 16] + (std::rotr(a, 7) ^ std::rotr(a, 18) ^ a >> 3) + word[i - 7] +
                      (std::rotr(b, 17) ^ std::rotr(b, 19) ^ b >> 10);
        }
        auto [a, b, c, d, e, f, g, h] = state;
        for (std::size_t i = 0; i < 64; ++i) {
            const std::uint32_t first = h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) +
                                        ((e & f) ^ (~e & g)) + kRounds[i] + word[i];
            const std::uint32_t second =
                (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
            h = g;
            g = f;
            f = e;
            e = d + first;
            d = c;
            c = b;
            b = a;
            a = first + second;
        }
        const std::uint32_t sums[] = {a, b, c, d, e, f, g, h};
        for (std::size_t i = 0; i < 8; ++i) {
            state[i] += sums[i];
        }
    }
    std::array<std::uint8_t, 32> digest{};
    for (std::size_t i = 0; i < 32; ++i) {
        digest[i] = static_cast<std::uint8_t>(state[i / 4] >> (24 - 8 * (i % 4)));
    }
    return digest;
}

}  // namespace trace_gen
