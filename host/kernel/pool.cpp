// Pool: ExAllocatePool2 and the older ExAllocatePoolWithTag, and what frees their blocks.
#include "host/kernel/kernel.h"
#include "host/schedule/parking.h"

#include <cstdio>
#include <cstring>

using host::PlatformCall;
using host::checks::Rule;
using host::kernel::Kernel;
using host::kernel::QuotedTag;

namespace {

constexpr std::size_t kAlignment = 16;

const char* Detail(bool paged)
{
    return paged ? "paged pool" : "non-paged pool";
}
constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kPage = 4096;

void* Allocate(const PlatformCall& call, host::kernel::PoolBlock block, std::size_t alignment)
{
    if (block.tag == 0) {
        call.Violation(Rule::kBadParameter, "the pool tag is 0");
    }
    if (block.sizeBytes == 0) {
        call.Violation(Rule::kBadParameter, "a block of 0 bytes is asked for");
    }
    block.caller = call.caller();
    return Kernel::Current().AllocatePool(block, block.sizeBytes >= kPage ? kPage : alignment);
}

// A tag of 0 frees a block of any tag.
void Free(const PlatformCall& call, const std::optional<host::kernel::PoolBlock>& block, void* address,
          std::uint32_t tag)
{
    if (!block) {
        const auto freed = Kernel::Current().poolMemory.FindFreed(address);
        call.Violation(Rule::kPoolBadFree, "the address is no pool block that is in use",
                       freed ? std::vector{host::Made{"freed before", freed->freedBy}} : std::vector<host::Made>{});
        return;
    }
    if (tag != 0 && block->tag != tag) {
        call.Violation(Rule::kPoolWrongTag,
                       "a block with tag " + QuotedTag(block->tag) + " is freed with tag " + QuotedTag(tag));
    }
    const std::string damage = Kernel::Current().poolMemory.Free(address);
    if (!damage.empty()) {
        call.Violation(Rule::kPoolCorrupted, "the block with tag " + QuotedTag(block->tag) + ": " + damage);
    }
}

// The flags that stand for a kind of pool: one of them, and only one, must be given.
constexpr POOL_FLAGS kPoolKinds = POOL_FLAG_NON_PAGED | POOL_FLAG_NON_PAGED_EXECUTE | POOL_FLAG_PAGED;
constexpr POOL_FLAGS kPoolFlags =
    kPoolKinds | POOL_FLAG_USE_QUOTA | POOL_FLAG_UNINITIALIZED | POOL_FLAG_CACHE_ALIGNED | POOL_FLAG_RAISE_ON_FAILURE;
// The upper half of the flags is for requests that a system may ignore.
constexpr POOL_FLAGS kRequiredFlags = 0xFFFFFFFF;

std::string WrongFlags(POOL_FLAGS flags)
{
    char text[96];
    if ((flags & kRequiredFlags & ~kPoolFlags) != 0) {
        std::snprintf(text, sizeof(text), "flags 0x%llX are not for drivers", flags & kRequiredFlags & ~kPoolFlags);
        return text;
    }
    const POOL_FLAGS kinds = flags & kPoolKinds;
    if (kinds == 0 || (kinds & (kinds - 1)) != 0) {
        std::snprintf(text, sizeof(text), "flags 0x%llX do not choose one kind of pool", flags);
        return text;
    }
    return {};
}

}  // namespace

#define HOST_EXPORT extern "C" __attribute__((visibility("default"), used))

HOST_EXPORT PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE poolType, SIZE_T size, ULONG tag)
{
    const bool paged = poolType == PagedPool;
    const PlatformCall call("ExAllocatePoolWithTag", HOST_CALLER, paged ? APC_LEVEL : DISPATCH_LEVEL, Detail(paged));
    if (call.fault()) {
        return nullptr;
    }
    if (poolType == NonPagedPool) {
        call.Violation(Rule::kBadParameter, "plain non-paged pool is executable; use NonPagedPoolNx");
    }
    return Allocate(call, {.sizeBytes = size, .tag = tag, .paged = paged}, kAlignment);
}

HOST_EXPORT PVOID NTAPI ExAllocatePool2(POOL_FLAGS flags, SIZE_T size, ULONG tag)
{
    const bool paged = (flags & POOL_FLAG_PAGED) != 0;
    const PlatformCall call("ExAllocatePool2", HOST_CALLER, paged ? APC_LEVEL : DISPATCH_LEVEL, Detail(paged));
    const std::string wrong = WrongFlags(flags);
    if (!wrong.empty()) {
        call.Violation(Rule::kBadParameter, wrong);
    } else if ((flags & POOL_FLAG_NON_PAGED_EXECUTE) != 0) {
        call.Violation(Rule::kBadParameter, "the pool is executable; use POOL_FLAG_NON_PAGED");
    }
    void* block = nullptr;
    if (!call.fault() && wrong.empty()) {
        block = Allocate(call, {.sizeBytes = size, .tag = tag, .paged = paged},
                         (flags & POOL_FLAG_CACHE_ALIGNED) != 0 ? kCacheLine : kAlignment);
    }
    if (block != nullptr && (flags & POOL_FLAG_UNINITIALIZED) == 0) {
        std::memset(block, 0, size);
    }
    if (block == nullptr && (flags & POOL_FLAG_RAISE_ON_FAILURE) != 0) {
        // No exception of the platform's can be thrown through an image here.
        constexpr const char* kText = "there is no memory, and POOL_FLAG_RAISE_ON_FAILURE asks for an exception, "
                                      "which this host cannot raise";
        call.Violation(Rule::kNotProvided, kText);
        host::schedule::ParkThisThread(kText);
    }
    return block;
}

HOST_EXPORT VOID NTAPI ExFreePoolWithTag(PVOID address, ULONG tag)
{
    const std::optional<host::kernel::PoolBlock> block = Kernel::Current().TakePool(address);
    const PlatformCall call("ExFreePoolWithTag", HOST_CALLER, block && block->paged ? APC_LEVEL : DISPATCH_LEVEL);
    Free(call, block, address, tag);
}

HOST_EXPORT VOID NTAPI ExFreePool2(PVOID address, ULONG tag, PCPOOL_EXTENDED_PARAMETER parameters, ULONG count)
{
    const std::optional<host::kernel::PoolBlock> block = Kernel::Current().TakePool(address);
    const PlatformCall call("ExFreePool2", HOST_CALLER, block && block->paged ? APC_LEVEL : DISPATCH_LEVEL);
    if (parameters != nullptr || count != 0) {
        call.Violation(Rule::kNotProvided, "this host knows no extended parameters of pool");
    }
    Free(call, block, address, tag);
}

#undef ExFreePool  // in the headers an image calls ExFreePoolWithTag instead
extern "C" VOID NTAPI ExFreePool(PVOID address);
HOST_EXPORT VOID NTAPI ExFreePool(PVOID address)
{
    const std::optional<host::kernel::PoolBlock> block = Kernel::Current().TakePool(address);
    const PlatformCall call("ExFreePool", HOST_CALLER, block && block->paged ? APC_LEVEL : DISPATCH_LEVEL);
    Free(call, block, address, 0);
}
