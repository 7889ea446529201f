// Memory for pool blocks and object contexts that finds overruns and use after free.
//
// With guard pages each block ends at an inaccessible page, and its range stays inaccessible when it is
// freed. The slack before and after a block is filled and checked at free. Without guard pages, or when very many
// blocks are alive, blocks lie on the heap between canaries. Under address sanitizer every block is plain heap.
#pragma once

#include "host/environment.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace host::kernel {

inline constexpr std::uint8_t kUninitializedFill = 0xA5;
inline constexpr std::uint8_t kFreedFill = 0xDD;

class GuardedMemory {
public:
    explicit GuardedMemory(const Environment& environment);
    ~GuardedMemory();
    GuardedMemory(const GuardedMemory&) = delete;
    GuardedMemory& operator=(const GuardedMemory&) = delete;

    // Never null. Contents are zero or kUninitializedFill. Alignment is a power of two up to 4096.
    [[nodiscard]] void* Allocate(std::size_t bytes, std::size_t alignment, bool zero = true);

    // Empty when the block was intact, else what is wrong with it ("3 bytes after its 48 were overwritten"). The block
    // is freed in both cases. An address that is no block: "was never allocated here or is free already".
    [[nodiscard]] std::string Free(void* block);

    // The guarded block that an address was in, of the last ones freed. For the fault handler: never waits.
    [[nodiscard]] std::optional<FreedMemory> FindFreed(const void* address) const;

private:
    struct Block {
        std::size_t bytes;
        std::uint8_t* begin;     // of the whole range
        std::size_t rangeBytes;  // without the guard page
        bool guarded;
    };
    bool AllocateGuarded(Block& block, std::size_t alignment, std::uint8_t*& user);
    void AllocatePlain(Block& block, std::size_t alignment, std::uint8_t*& user);

    const Environment& environment_;
    const bool wantsGuards_;
    mutable std::mutex mutex_;
    struct Freed {
        const std::uint8_t* begin;
        std::size_t rangeBytes;
        FreedMemory memory;
    };
    std::deque<Freed> freed_;  // the last ones, oldest first
    using Blocks = std::unordered_map<void*, Block>;
    Blocks blocks_;
    std::vector<Blocks::node_type> spareNodes_;  // of blocks that were freed, for the next
    std::size_t guardedCount_ = 0;
    // Address space that guarded blocks are laid into, one after the other; the last arena is the one in use.
    class Arena {
    public:
        explicit Arena(std::size_t size);  // all of it inaccessible; begin is null when there is no room
        ~Arena();
        Arena(const Arena&) = delete;
        Arena& operator=(const Arena&) = delete;

        std::uint8_t* const begin;
        const std::size_t bytes;
    };
    static std::vector<std::unique_ptr<Arena>>& SpareArenas();
    bool HasRoom(std::size_t bytes);
    std::vector<std::unique_ptr<Arena>> arenas_;
    std::size_t arenaUsed_ = 0;  // of the last
};

}  // namespace host::kernel
