// The names of devices and symbolic links, of which each exists once in a machine, whatever its case.
#pragma once

#include <mutex>
#include <set>
#include <string>

namespace host::framework {

// Its own mutex guards it, so any thread may call; no other is taken meanwhile. Names come in lower case.
class DeviceNames {
public:
    // False when somebody has the name.
    [[nodiscard]] bool Take(const std::string& name)
    {
        const std::lock_guard lock(mutex_);
        return names_.insert(name).second;
    }
    void Release(const std::string& name)
    {
        const std::lock_guard lock(mutex_);
        names_.erase(name);
    }

private:
    std::mutex mutex_;
    std::set<std::string> names_;
};

}  // namespace host::framework
