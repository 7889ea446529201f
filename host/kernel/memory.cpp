#include "host/kernel/memory.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace host::kernel {
namespace {

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kUnderAddressSanitizer = true;
#else
constexpr bool kUnderAddressSanitizer = false;
#endif
#else
constexpr bool kUnderAddressSanitizer = false;
#endif

constexpr std::size_t kPage = 4096;
constexpr std::size_t kArenaBytes = std::size_t{16} << 20;  // address space only, reserved when the last one is full
constexpr std::size_t kGuardedBlocksMaximum = 20000;        // each costs the kernel two mappings
constexpr std::size_t kFreedKnown = 4096;                   // of which it is known who freed them
constexpr std::size_t kSpareNodesMaximum = 1024;
constexpr std::size_t kSpareArenasMaximum = 2;  // a machine has pool and contexts
// The thread sanitizer takes accesses of two machines to one page for those of one.
#if defined(HOST_THREAD_SANITIZER)
constexpr bool kReusesArenas = false;
#else
constexpr bool kReusesArenas = true;
#endif
std::mutex g_spareMutex;
constexpr std::size_t kCanaryBytes = 32;
constexpr std::uint8_t kSlackFill = 0xFD;

std::size_t CountDamaged(const std::uint8_t* begin, const std::uint8_t* end)
{
    // Nearly always each byte equals the one after it.
    if (begin == end ||
        (*begin == kSlackFill && std::memcmp(begin, begin + 1, static_cast<std::size_t>(end - begin) - 1) == 0)) {
        return 0;
    }
    std::size_t damaged = 0;
    for (; begin != end; ++begin) {
        damaged += *begin != kSlackFill ? 1 : 0;
    }
    return damaged;
}

std::size_t RoundUp(std::size_t value, std::size_t multiple)
{
    return (value + multiple - 1) / multiple * multiple;
}

}  // namespace

GuardedMemory::GuardedMemory(const Environment& environment)
    : environment_(environment), wantsGuards_(environment.options.guardPages && !kUnderAddressSanitizer)
{
}

GuardedMemory::~GuardedMemory()
{
    for (const auto& [user, block] : blocks_) {
        if (block.guarded) {
            mprotect(block.begin, block.rangeBytes, PROT_NONE);
        } else {
            std::free(block.begin);
        }
    }
    const std::lock_guard lock(g_spareMutex);
    if (kReusesArenas && !arenas_.empty() && arenas_.front()->bytes == kArenaBytes &&
        SpareArenas().size() < kSpareArenasMaximum) {
        SpareArenas().push_back(std::move(arenas_.front()));
    }
}

GuardedMemory::Arena::Arena(std::size_t size)
    : begin([size] {
          void* memory = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
          return memory == MAP_FAILED ? nullptr : static_cast<std::uint8_t*>(memory);
      }()),
      bytes(size)
{
}

GuardedMemory::Arena::~Arena()
{
    if (begin != nullptr) {
        munmap(begin, bytes);
    }
}

// Of machines that have ended, for the next: most of their pages are there already.
std::vector<std::unique_ptr<GuardedMemory::Arena>>& GuardedMemory::SpareArenas()
{
    static auto* const arenas =
        new std::vector<std::unique_ptr<Arena>>;  // the last machine may end after all that is static
    return *arenas;
}

bool GuardedMemory::HasRoom(std::size_t bytes)
{
    if (!arenas_.empty() && arenas_.back()->bytes - arenaUsed_ >= bytes) {
        return true;
    }
    // The first page guards the first block from below.
    const std::size_t size = std::max(kArenaBytes, bytes + kPage);
    std::unique_ptr<Arena> arena;
    if (const std::lock_guard lock(g_spareMutex); size == kArenaBytes && !SpareArenas().empty()) {
        arena = std::move(SpareArenas().back());
        SpareArenas().pop_back();
    } else {
        arena = std::make_unique<Arena>(size);
    }
    if (arena->begin == nullptr) {
        return false;
    }
    arenas_.push_back(std::move(arena));
    arenaUsed_ = kPage;
    return true;
}

bool GuardedMemory::AllocateGuarded(Block& block, std::size_t alignment, std::uint8_t*& user)
{
    const std::size_t need = RoundUp(block.bytes + kCanaryBytes, alignment);
    block.rangeBytes = RoundUp(need, kPage);
    if (guardedCount_ >= kGuardedBlocksMaximum || !HasRoom(block.rangeBytes + kPage)) {
        return false;
    }
    block.begin = arenas_.back()->begin + arenaUsed_;
    if (mprotect(block.begin, block.rangeBytes, PROT_READ | PROT_WRITE) != 0) {
        return false;
    }
    arenaUsed_ += block.rangeBytes + kPage;
    ++guardedCount_;
    block.guarded = true;
    user = block.begin + block.rangeBytes - RoundUp(block.bytes, alignment);
    return true;
}

void GuardedMemory::AllocatePlain(Block& block, std::size_t alignment, std::uint8_t*& user)
{
    const std::size_t front = kUnderAddressSanitizer ? 0 : RoundUp(kCanaryBytes, alignment);
    const std::size_t back = kUnderAddressSanitizer ? 0 : kCanaryBytes;
    block.rangeBytes = front + block.bytes + back;
    block.begin = static_cast<std::uint8_t*>(
        alignment > 16 ? std::aligned_alloc(alignment, RoundUp(block.rangeBytes + 1, alignment))
                       : std::malloc(block.rangeBytes + 1));
    block.guarded = false;
    user = block.begin + front;
}

void* GuardedMemory::Allocate(std::size_t bytes, std::size_t alignment, bool zero)
{
    const std::lock_guard lock(mutex_);
    Block block{.bytes = bytes, .begin = nullptr, .rangeBytes = 0, .guarded = false};
    std::uint8_t* user = nullptr;
    if (!wantsGuards_ || !AllocateGuarded(block, alignment, user)) {
        AllocatePlain(block, alignment, user);
    }
    std::memset(block.begin, kSlackFill, static_cast<std::size_t>(user - block.begin));
    std::memset(user, zero ? 0 : kUninitializedFill, bytes);
    std::memset(user + bytes, kSlackFill, block.rangeBytes - static_cast<std::size_t>(user - block.begin) - bytes);
    if (spareNodes_.empty()) {
        blocks_.emplace(user, block);
    } else {
        Blocks::node_type node = std::move(spareNodes_.back());
        spareNodes_.pop_back();
        node.key() = user;
        node.mapped() = block;
        blocks_.insert(std::move(node));
    }
    return user;
}

std::string GuardedMemory::Free(void* address)
{
    const std::lock_guard lock(mutex_);
    const auto found = blocks_.find(address);
    if (found == blocks_.end()) {
        return "was never allocated here or is free already";
    }
    const Block block = found->second;
    if (spareNodes_.size() < kSpareNodesMaximum) {
        spareNodes_.push_back(blocks_.extract(found));
    } else {
        blocks_.erase(found);
    }

    auto* user = static_cast<std::uint8_t*>(address);
    const std::size_t before = CountDamaged(block.begin, user);
    const std::size_t after = CountDamaged(user + block.bytes, block.begin + block.rangeBytes);
    if (block.guarded) {
        --guardedCount_;
        // A machine that fills its first arena gives memory back; the first one's pages are soon used again.
        if (arenas_.size() > 1 || !kReusesArenas) {
            madvise(block.begin, block.rangeBytes, MADV_DONTNEED);
        }
        mprotect(block.begin, block.rangeBytes, PROT_NONE);
        if (environment_.options.recordsPaths) {
            freed_.push_back({block.begin, block.rangeBytes, {block.bytes, environment_.PathNow()}});
            if (freed_.size() > kFreedKnown) {
                freed_.pop_front();
            }
        }
    } else {
        if (!kUnderAddressSanitizer) {
            std::memset(block.begin, kFreedFill, block.rangeBytes);
        }
        std::free(block.begin);
    }
    if (before + after == 0) {
        return {};
    }
    return std::to_string(before) + " bytes before and " + std::to_string(after) + " bytes after its " +
           std::to_string(block.bytes) + " were overwritten";
}

std::optional<FreedMemory> GuardedMemory::FindFreed(const void* address) const
{
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (lock.owns_lock()) {
        const auto* at = static_cast<const std::uint8_t*>(address);
        for (const Freed& freed : freed_) {
            if (at >= freed.begin && at < freed.begin + freed.rangeBytes) {
                return freed.memory;
            }
        }
    }
    return std::nullopt;
}

}  // namespace host::kernel
