#include "host/framework/plug_play_registrations.h"

#include "host/environment.h"

#include <algorithm>
#include <cstring>

namespace host::framework {

PlugPlayRegistrations::Reference PlugPlayRegistrations::Add(const PlugPlayRegistration& registration)
{
    const std::lock_guard lock(mutex_);
    constexpr std::uintptr_t kStep = 16;
    nextHandle_ += kStep;
    const Reference entry(new Entry(registration, reinterpret_cast<void*>(nextHandle_)));
    entries_.push_back(entry);
    return entry;
}

PlugPlayRegistrations::Reference PlugPlayRegistrations::Remove(const void* handle)
{
    const std::lock_guard lock(mutex_);
    const auto found =
        std::find_if(entries_.begin(), entries_.end(), [&](const Reference& entry) { return entry->handle == handle; });
    if (found == entries_.end()) {
        return nullptr;
    }
    Reference removed = std::move(*found);
    entries_.erase(found);
    removed->removed = true;
    return removed;
}

std::vector<PlugPlayRegistrations::Reference> PlugPlayRegistrations::RemoveAllOf(const DriverInstance& driver)
{
    const std::lock_guard lock(mutex_);
    std::vector<Reference> removed;
    std::erase_if(entries_, [&](const Reference& entry) {
        if (entry->registration.driver != &driver) {
            return false;
        }
        entry->removed = true;
        removed.push_back(entry);
        return true;
    });
    return removed;
}

std::vector<PlugPlayRegistrations::Reference> PlugPlayRegistrations::Of(const GUID& interfaceClass) const
{
    const std::lock_guard lock(mutex_);
    std::vector<Reference> found;
    std::copy_if(entries_.begin(), entries_.end(), std::back_inserter(found), [&](const Reference& entry) {
        return std::memcmp(&entry->registration.interfaceClass, &interfaceClass, sizeof(GUID)) == 0;
    });
    return found;
}

bool PlugPlayRegistrations::Enter(Entry& entry)
{
    const std::lock_guard lock(mutex_);
    if (entry.removed) {
        return false;
    }
    entry.runningOn.push_back(ThreadState::Current().id);
    return true;
}

void PlugPlayRegistrations::Leave(Entry& entry)
{
    const std::lock_guard lock(mutex_);
    std::erase(entry.runningOn, ThreadState::Current().id);
}

std::vector<std::uint64_t> PlugPlayRegistrations::RunningOn(const Entry& entry) const
{
    const std::lock_guard lock(mutex_);
    return entry.runningOn;
}

}  // namespace host::framework
