#include "host/kernel/kernel.h"

#include <algorithm>
#include <cctype>

namespace host::kernel {
namespace {

Kernel* g_current = nullptr;

bool IsWithin(const void* address, const void* base, std::size_t sizeBytes)
{
    const auto at = reinterpret_cast<std::uintptr_t>(address);
    const auto begin = reinterpret_cast<std::uintptr_t>(base);
    return at >= begin && at - begin < sizeBytes;
}

}  // namespace

Kernel::Kernel(Environment& environmentOfMachine)
    : environment(environmentOfMachine), poolMemory(environmentOfMachine), contextMemory_(environmentOfMachine)
{
    g_current = this;
    environment.findFreed = [this](const void* address) {
        std::optional<FreedMemory> freed = poolMemory.FindFreed(address);
        return freed ? freed : contextMemory_.FindFreed(address);
    };
    if (environment.options.hasPowerStateCallback) {
        auto powerState = std::make_unique<CallbackObject>();
        powerState->handle = nextHandle += 16;
        powerState->name = "\\callback\\powerstate";
        powerState->allowsSeveral = true;
        powerState->references = 1;
        callbackObjects.push_back(std::move(powerState));
    }
}

Kernel::~Kernel()
{
    environment.findFreed = nullptr;
    g_current = nullptr;
}

Kernel& Kernel::Current()
{
    return *g_current;
}

CallbackObject* Kernel::FindCallbackObject(const void* handle)
{
    for (const auto& object : callbackObjects) {
        if (object->handle == reinterpret_cast<std::uintptr_t>(handle)) {
            return object.get();
        }
    }
    return nullptr;
}

CallbackObject* Kernel::FindCallbackObject(const std::string& lowerCaseName)
{
    for (const auto& object : callbackObjects) {
        if (object->name == lowerCaseName) {
            return object.get();
        }
    }
    return nullptr;
}

void Kernel::DropUnusedCallbackObjects()
{
    std::erase_if(callbackObjects, [](const std::unique_ptr<CallbackObject>& object) {
        return object->references == 0 && object->registrations.empty();
    });
}

std::vector<const void*> Kernel::SpinLocksHeld(std::uint64_t threadId) const
{
    std::vector<const void*> locks;
    for (const auto& [address, held] : heldSpinLocks) {
        if (held.holderId == threadId && !held.abandoned) {
            locks.push_back(address);
        }
    }
    return locks;
}

std::vector<HeldSpinLock> Kernel::AbandonSpinLocks(std::uint64_t threadId, const std::vector<const void*>& before)
{
    std::vector<HeldSpinLock> kept;
    for (auto& [address, held] : heldSpinLocks) {
        if (held.holderId == threadId && !held.abandoned && std::ranges::find(before, address) == before.end()) {
            held.abandoned = true;
            kept.push_back(held);
        }
    }
    return kept;
}

void Kernel::NotifyPowerState(std::uintptr_t argument1, std::uintptr_t argument2)
{
    std::vector<std::shared_ptr<CallbackRegistration>> registrations;
    {
        const std::lock_guard lock(mutex);
        if (const CallbackObject* object = FindCallbackObject(std::string("\\callback\\powerstate"))) {
            registrations = object->registrations;
        }
    }
    Notify(registrations, argument1, argument2);
}

void Kernel::Notify(const std::vector<std::shared_ptr<CallbackRegistration>>& registrations, std::uintptr_t argument1,
                    std::uintptr_t argument2)
{
    for (const auto& registration : registrations) {
        {
            const std::lock_guard lock(mutex);
            if (registration->removed) {
                continue;
            }
            registration->runningOn.push_back(ThreadState::Current().id);
        }
        callRoutine(reinterpret_cast<const void*>(registration->function), [&] {
            registration->function(registration->context, reinterpret_cast<void*>(argument1),
                                   reinterpret_cast<void*>(argument2));
        });
        {
            const std::lock_guard lock(mutex);
            std::erase(registration->runningOn, ThreadState::Current().id);
        }
        onRoutineLeft();
    }
}

std::vector<std::int64_t> Kernel::Delays() const
{
    const std::lock_guard lock(const_cast<std::mutex&>(mutex));
    return delays;
}

std::vector<std::string> Kernel::DebugOutput() const
{
    const std::lock_guard lock(const_cast<std::mutex&>(mutex));
    return debugOutput;
}

std::vector<PoolUseRow> Kernel::PoolInUse() const
{
    const std::lock_guard lock(const_cast<std::mutex&>(mutex));
    std::map<std::uint32_t, PoolUseRow> byTag;
    for (const auto& [address, block] : pool_) {
        PoolUseRow& row = byTag.try_emplace(block.tag, PoolUseRow{block.tag, 0, 0}).first->second;
        ++row.blockCount;
        row.sizeBytes += block.sizeBytes;
    }
    std::vector<PoolUseRow> rows;
    for (const auto& [tag, row] : byTag) {
        rows.push_back(row);
    }
    return rows;
}

void* Kernel::AllocatePool(const PoolBlock& block, std::size_t alignment)
{
    {
        const std::lock_guard lock(mutex);
        if (block.sizeBytes > environment.options.poolBytesMaximum - poolBytes_) {
            return nullptr;
        }
        poolBytes_ += block.sizeBytes;
    }
    void* address = poolMemory.Allocate(block.sizeBytes, alignment, false);
    checks::Addresses path = environment.PathNow(block.caller);
    const std::lock_guard lock(mutex);
    PoolBlock& kept = pool_[address] = block;
    kept.path = std::move(path);
    return address;
}

std::optional<PoolBlock> Kernel::TakePool(void* address)
{
    const std::lock_guard lock(mutex);
    const auto found = pool_.find(address);
    if (found == pool_.end()) {
        return std::nullopt;
    }
    PoolBlock block = std::move(found->second);
    pool_.erase(found);
    poolBytes_ -= block.sizeBytes;
    return block;
}

void Kernel::ForEachPoolBlock(const std::function<void(const void* block, const PoolBlock& use)>& visit)
{
    const std::lock_guard lock(mutex);
    for (const auto& [address, block] : pool_) {
        visit(address, block);
    }
}

void Kernel::ReportLeaksOf(const void* imageBase, std::size_t imageSizeBytes)
{
    using checks::Rule;
    const std::lock_guard lock(mutex);
    for (auto& [address, block] : pool_) {
        if (IsWithin(block.caller, imageBase, imageSizeBytes)) {
            environment.ReportLeft(Rule::kLeak,
                                   std::to_string(block.sizeBytes) + " bytes of pool with tag " + QuotedTag(block.tag) +
                                       " were not freed",
                                   {{"allocated", block.path}});
            block.caller = nullptr;  // not the fault of an image that is loaded to the same place later
        }
    }
    for (const auto& object : callbackObjects) {
        std::erase_if(object->registrations, [&](const std::shared_ptr<CallbackRegistration>& registration) {
            if (!IsWithin(reinterpret_cast<const void*>(registration->function), imageBase, imageSizeBytes)) {
                return false;
            }
            environment.ReportLeft(Rule::kUnloadRegistration,
                                   "a routine is still registered on " + object->name +
                                       "; it would be called in unmapped code",
                                   {{"registered", registration->registeredBy}});
            registration->removed = true;
            return true;
        });
        std::erase_if(object->openedBy, [&](const void* caller) {
            if (!IsWithin(caller, imageBase, imageSizeBytes)) {
                return false;
            }
            environment.ReportLeft(Rule::kReferenceLeak, "a reference on " + object->name + " was not dropped",
                                   {{"opened", {caller}}});
            return true;
        });
    }
}

std::string QuotedTag(std::uint32_t tag)
{
    std::string text = "\"";
    for (unsigned shift = 0; shift < 32; shift += 8) {
        text.push_back(static_cast<char>(tag >> shift));
    }
    return text + "\"";
}

std::string Narrow(const UNICODE_STRING& text)
{
    std::string narrow;
    for (unsigned index = 0; index < text.Length / sizeof(WCHAR); ++index) {
        const auto unit = static_cast<std::uint16_t>(text.Buffer[index]);
        narrow.push_back(unit < 0x80 ? static_cast<char>(unit) : '?');
    }
    return narrow;
}

bool IsWellFormed(const UNICODE_STRING& text)
{
    return text.Length % sizeof(WCHAR) == 0 && text.MaximumLength % sizeof(WCHAR) == 0 &&
           text.Length <= text.MaximumLength && (text.MaximumLength == 0 || text.Buffer != nullptr);
}

std::string NameText(PCUNICODE_STRING name)
{
    return name != nullptr && IsWellFormed(*name) ? Narrow(*name) : std::string();
}

std::string LowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

}  // namespace host::kernel
