// Work in a process of its own: a memory fault of the driver, an abort or an endless loop ends that process alone.
#pragma once

#include <sys/mman.h>

#include <functional>
#include <new>
#include <string>

namespace host::checks {

struct ChildResult {
    std::string result;   // what the work returned
    std::string failure;  // how else the process ended, and what it printed, as lines; empty: the work was done
    bool isEndless;       // it ended because it does not end
    std::string printed;  // by the process, on stderr
};

// Does the work in a child of this process and waits until it is done. Only what is Shared, and the result, come back.
// Throws HostError with the text of what the work throws, or when there can be no child. The calling thread must be
// the only one: so not after a sequence in this process that left a hanging thread.
[[nodiscard]] ChildResult RunInChild(const std::function<std::string()>& work);

// For the work: ends its process unless it is called again, or the work is done, within so many seconds of processor
// time, or of waiting for what does not come (watchdog.h). 0: no more.
void SetWatchdog(double seconds);

// A value that both processes see, for as long as this object exists. A plain type.
template <class Type>
class Shared {
public:
    Shared() : memory_(mmap(nullptr, sizeof(Type), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
    {
        if (memory_ == MAP_FAILED) {
            throw std::bad_alloc();
        }
        new (memory_) Type();
    }
    ~Shared() { munmap(memory_, sizeof(Type)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    [[nodiscard]] Type& operator*() const { return *static_cast<Type*>(memory_); }

private:
    void* memory_;
};

}  // namespace host::checks
