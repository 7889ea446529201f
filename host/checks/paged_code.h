// Where images have code that may be paged out: their sections whose names begin with PAGE. Such code must not run
// above APC_LEVEL.
#pragma once

#include <cstddef>
#include <iterator>
#include <map>
#include <mutex>

namespace host::checks {

class PagedCode {
public:
    void Add(const void* begin, std::size_t sizeBytes)
    {
        const std::lock_guard lock(mutex_);
        sizes_[static_cast<const char*>(begin)] = sizeBytes;
    }
    void Remove(const void* begin)
    {
        const std::lock_guard lock(mutex_);
        sizes_.erase(static_cast<const char*>(begin));
    }
    [[nodiscard]] bool Contains(const void* address) const
    {
        const std::lock_guard lock(mutex_);
        const auto* at = static_cast<const char*>(address);
        const auto after = sizes_.upper_bound(at);
        return after != sizes_.begin() && at < std::prev(after)->first + std::prev(after)->second;
    }

private:
    mutable std::mutex mutex_;
    std::map<const char*, std::size_t> sizes_;  // by where they begin
};

}  // namespace host::checks
