// What the thread sanitizer may learn from. The host takes a lock of its own in nearly every platform function, and by
// those the sanitizer would take almost any two accesses of driver code for ordered, whether or not the driver took a
// lock. With MachineOptions::onlyDriverLocks it does not see what happens inside platform functions, and learns
// what the real platform guarantees: a wait lock's release comes before its next acquire, an enqueue before the run,
// and the run's end before what waits for it. Without the sanitizer nothing of this costs anything.
#pragma once

#include <atomic>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HOST_THREAD_SANITIZER 1
#endif
#endif

#if defined(HOST_THREAD_SANITIZER)
// Of the sanitizer's own runtime, which has no header for the first six.
extern "C" {
void AnnotateIgnoreSyncBegin(const char* file, int line);
void AnnotateIgnoreSyncEnd(const char* file, int line);
void AnnotateIgnoreReadsBegin(const char* file, int line);
void AnnotateIgnoreReadsEnd(const char* file, int line);
void AnnotateIgnoreWritesBegin(const char* file, int line);
void AnnotateIgnoreWritesEnd(const char* file, int line);
void __tsan_acquire(void* address);
void __tsan_release(void* address);
}
#endif

namespace host::schedule {

#if defined(HOST_THREAD_SANITIZER)

inline std::atomic<bool> onlyDriverLocks{false};
inline thread_local unsigned t_hidden = 0;  // scopes of host work that this thread is in

// A span of the host's own work, hidden if the machine says so.
class HostWork {
public:
    HostWork() : hides_(onlyDriverLocks.load(std::memory_order_relaxed))
    {
        if (hides_ && t_hidden++ == 0) {
            Hide();
        }
    }
    ~HostWork()
    {
        if (hides_ && --t_hidden == 0) {
            Show();
        }
    }
    HostWork(const HostWork&) = delete;
    HostWork& operator=(const HostWork&) = delete;

    static void Hide()
    {
        AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
        AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
        AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
    }
    static void Show()
    {
        AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
        AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
        AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
    }

private:
    const bool hides_;
};

// Whatever this thread did comes before what a thread does that acquires the same address later.
inline void Release(const void* address)
{
    if (t_hidden != 0) {
        HostWork::Show();
    }
    __tsan_release(const_cast<void*>(address));
    if (t_hidden != 0) {
        HostWork::Hide();
    }
}

inline void Acquire(const void* address)
{
    if (t_hidden != 0) {
        HostWork::Show();
    }
    __tsan_acquire(const_cast<void*>(address));
    if (t_hidden != 0) {
        HostWork::Hide();
    }
}

#else

class HostWork {};
inline void Release(const void*)
{
}
inline void Acquire(const void*)
{
}

#endif

}  // namespace host::schedule
