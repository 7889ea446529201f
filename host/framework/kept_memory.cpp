#include "host/framework/kept_memory.h"

#include "host/environment.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <vector>

namespace host::framework {
namespace {

constexpr std::size_t kAtOnce = 32;  // blocks that a thread fetches or gives up

// Free blocks by their size.
class FreeBlocks {
public:
    static std::size_t RoundUp(std::size_t bytes) { return (bytes + kStep - 1) / kStep * kStep; }
    [[nodiscard]] std::vector<void*>& Of(std::size_t bytes)
    {
        const std::size_t size = RoundUp(bytes) / kStep;
        if (blocks_.size() <= size) {
            blocks_.resize(size + 1);
        }
        return blocks_[size];
    }
    void TakeAll(FreeBlocks& from)
    {
        for (std::size_t size = 0; size < from.blocks_.size(); ++size) {
            Move(from.blocks_[size], Of(size * kStep), from.blocks_[size].size());
        }
    }
    // So many of the last ones.
    static void Move(std::vector<void*>& from, std::vector<void*>& to, std::size_t count)
    {
        const auto first = from.end() - static_cast<std::ptrdiff_t>(std::min(count, from.size()));
        to.insert(to.end(), first, from.end());
        from.erase(first, from.end());
    }

private:
    static constexpr std::size_t kStep = 64;
    std::vector<std::vector<void*>> blocks_;
};

constexpr unsigned kKindsMaximum = 8;

// Of one kind, for all threads. They are never returned to the system.
struct SharedBlocks {
    std::mutex mutex;
    FreeBlocks free;

    static SharedBlocks& Of(unsigned kind)
    {
        static auto* shared = new std::array<SharedBlocks, kKindsMaximum>;  // threads may end after everything static
        return (*shared)[kind];
    }
};

// Each thread has some of its own: one that makes objects and one that ends them seldom meet at the lock.
class OwnBlocks {
public:
    OwnBlocks() = default;
    ~OwnBlocks()
    {
        for (unsigned kind = 0; kind < kKindsMaximum; ++kind) {
            SharedBlocks& shared = SharedBlocks::Of(kind);
            const std::lock_guard lock(shared.mutex);
            shared.free.TakeAll(kinds_[kind]);
        }
    }
    OwnBlocks(const OwnBlocks&) = delete;
    OwnBlocks& operator=(const OwnBlocks&) = delete;

    static OwnBlocks& OfThisThread()
    {
        thread_local OwnBlocks blocks;
        return blocks;
    }

    void* Take(unsigned kind, std::size_t bytes)
    {
        std::vector<void*>& own = kinds_[kind].Of(bytes);
        if (own.empty()) {
            Fetch(kind, own, bytes);
        }
        void* memory = own.back();
        own.pop_back();
        return memory;
    }
    void Give(unsigned kind, void* memory, std::size_t bytes)
    {
        std::vector<void*>& own = kinds_[kind].Of(bytes);
        own.push_back(memory);
        if (own.size() > 2 * kAtOnce) {
            SharedBlocks& shared = SharedBlocks::Of(kind);
            const std::lock_guard lock(shared.mutex);
            FreeBlocks::Move(own, shared.free.Of(bytes), kAtOnce);
        }
    }

private:
    static void Fetch(unsigned kind, std::vector<void*>& own, std::size_t bytes)
    {
        {
            SharedBlocks& shared = SharedBlocks::Of(kind);
            const std::lock_guard lock(shared.mutex);
            FreeBlocks::Move(shared.free.Of(bytes), own, kAtOnce);
        }
        if (!own.empty()) {
            return;
        }
        constexpr std::size_t kLarge = 4096;
        const std::size_t size = FreeBlocks::RoundUp(bytes);
        const std::size_t count = size < kLarge ? kAtOnce : 1;
        auto* blocks = static_cast<std::byte*>(::operator new(size * count));
        for (std::size_t block = count; block-- > 0;) {
            own.push_back(blocks + block * size);
        }
    }

    std::array<FreeBlocks, kKindsMaximum> kinds_;
};

}  // namespace

unsigned NextKind()
{
    static std::atomic<unsigned> count{0};
    const unsigned kind = count++;
    if (kind >= kKindsMaximum) {
        throw HostError("too many kinds of kept memory");
    }
    return kind;
}

void* TakeKept(unsigned kind, std::size_t bytes)
{
    return OwnBlocks::OfThisThread().Take(kind, bytes);
}

void GiveKept(unsigned kind, void* memory, std::size_t bytes)
{
    OwnBlocks::OfThisThread().Give(kind, memory, bytes);
}

}  // namespace host::framework
