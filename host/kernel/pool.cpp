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
    Kernel& kernel = Kernel::Current();
    void* address = kernel.poolMemory.Allocate(size, size >= kPage ? kPage : kAlignment, false);
    const std::lock_guard lock(kernel.mutex);
    kernel.pool[address] = {size, tag, paged, call.caller(), false};
    return address;
}

__attribute__((visibility("default"), used)) VOID NTAPI ExFreePoolWithTag(PVOID address, ULONG tag)
{
    Kernel& kernel = Kernel::Current();
    host::kernel::PoolBlock block{};
    bool known = false;
    {
        const std::lock_guard lock(kernel.mutex);
        const auto found = kernel.pool.find(address);
        if (found != kernel.pool.end()) {
            block = found->second;
            known = true;
            kernel.pool.erase(found);
        }
    }
    const PlatformCall call("ExFreePoolWithTag", HOST_CALLER, known && block.paged ? APC_LEVEL : DISPATCH_LEVEL);
    if (!known) {
        call.Violation(Rule::kPoolBadFree, "the address is no pool block that is in use");
        return;
    }
    if (block.tag != tag && !(block.bySystem && tag == 0)) {
        call.Violation(Rule::kPoolWrongTag,
                       "a block with tag " + Quoted(block.tag) + " is freed with tag " + Quoted(tag));
    }
    const std::string damage = kernel.poolMemory.Free(address);
    if (!damage.empty()) {
        call.Violation(Rule::kPoolCorrupted, "the block with tag " + Quoted(block.tag) + ": " + damage);
    }
}

}  // extern "C"
