#include "host/framework/kept_memory.h"

#include "host/framework/collections.h"

#include <algorithm>
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

// Of one kind, for all threads. They are never returned to the system.
struct SharedBlocks {
    std::mutex mutex;
    FreeBlocks free;
};

// Each thread has some of its own: one that makes objects and one that ends them seldom meet at the lock.
template <class Kind>
class OwnBlocks {
public:
    OwnBlocks() = default;
    ~OwnBlocks()
    {
        const std::lock_guard lock(Shared().mutex);
        Shared().free.TakeAll(own_);
    }
    OwnBlocks(const OwnBlocks&) = delete;
    OwnBlocks& operator=(const OwnBlocks&) = delete;

    static OwnBlocks& OfThisThread()
    {
        thread_local OwnBlocks blocks;
        return blocks;
    }

    void* Take(std::size_t bytes)
    {
        std::vector<void*>& own = own_.Of(bytes);
        if (own.empty()) {
            Fetch(own, bytes);
        }
        void* memory = own.back();
        own.pop_back();
        return memory;
    }
    void Give(void* memory, std::size_t bytes)
    {
        std::vector<void*>& own = own_.Of(bytes);
        own.push_back(memory);
        if (own.size() > 2 * kAtOnce) {
            const std::lock_guard lock(Shared().mutex);
            FreeBlocks::Move(own, Shared().free.Of(bytes), kAtOnce);
        }
    }

private:
    static SharedBlocks& Shared()
    {
        static auto* shared = new SharedBlocks;  // threads may end after everything static
        return *shared;
    }
    static void Fetch(std::vector<void*>& own, std::size_t bytes)
    {
        {
            const std::lock_guard lock(Shared().mutex);
            FreeBlocks::Move(Shared().free.Of(bytes), own, kAtOnce);
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

    FreeBlocks own_;
};

}  // namespace

template <class Kind>
void* KeepsKind<Kind>::operator new(std::size_t bytes)
{
    return OwnBlocks<Kind>::OfThisThread().Take(bytes);
}

template <class Kind>
void KeepsKind<Kind>::operator delete(void* memory, std::size_t bytes)
{
    OwnBlocks<Kind>::OfThisThread().Give(memory, bytes);
}

template struct KeepsKind<Object>;
template struct KeepsKind<Context>;
template struct KeepsKind<CollectionObject>;
template struct KeepsKind<HandleList::Block>;

}  // namespace host::framework
