// ExAllocatePoolWithTag and ExFreePoolWithTag.
#include "host/kernel/kernel.h"

using host::PlatformCall;
using host::checks::Rule;
using host::kernel::Kernel;

namespace {

constexpr std::size_t kAlignment = 16;
constexpr std::size_t kPage = 4096;

std::string Quoted(std::uint32_t tag)
{
    std::string text = "\"";
    for (unsigned shift = 0; shift < 32; shift += 8) {
        text.push_back(static_cast<char>(tag >> shift));
    }
    return text + "\"";
}

}  // namespace

extern "C" {

__attribute__((visibility("default"), used)) PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE poolType, SIZE_T size,
                                                                               ULONG tag)
{
    const bool paged = poolType == PagedPool;
    const PlatformCall call("ExAllocatePoolWithTag", HOST_CALLER, paged ? APC_LEVEL : DISPATCH_LEVEL);
    if (call.fault()) {
        return nullptr;
    }
    if (tag == 0) {
        call.Violation(Rule::kBadParameter, "the pool tag is 0");
    }
    if (poolType == NonPagedPool) {
        call.Violation(Rule::kBadParameter, "plain non-paged pool is executable; use NonPagedPoolNx");
    }
    if (size == 0) {
        call.Violation(Rule::kBadParameter, "a block of 0 bytes is asked for");
    }
    return Kernel::Current().AllocatePool({size, tag, paged, call.caller()}, size >= kPage ? kPage : kAlignment);
}

__attribute__((visibility("default"), used)) VOID NTAPI ExFreePoolWithTag(PVOID address, ULONG tag)
{
    Kernel& kernel = Kernel::Current();
    const std::optional<host::kernel::PoolBlock> block = kernel.TakePool(address);
    const PlatformCall call("ExFreePoolWithTag", HOST_CALLER, block && block->paged ? APC_LEVEL : DISPATCH_LEVEL);
    if (!block) {
        call.Violation(Rule::kPoolBadFree, "the address is no pool block that is in use");
        return;
    }
    if (block->tag != tag && !(block->bySystem && tag == 0)) {
        call.Violation(Rule::kPoolWrongTag,
                       "a block with tag " + Quoted(block->tag) + " is freed with tag " + Quoted(tag));
    }
    const std::string damage = kernel.poolMemory.Free(address);
    if (!damage.empty()) {
        call.Violation(Rule::kPoolCorrupted, "the block with tag " + Quoted(block->tag) + ": " + damage);
    }
}

}  // extern "C"
