#include "host/schedule/fiber.h"

#include "host/schedule/happens_before.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <utility>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#define HOST_ADDRESS_SANITIZER
#endif
#endif
#if defined(HOST_THREAD_SANITIZER)
#include <sanitizer/tsan_interface.h>
#endif

namespace host::schedule {
namespace {

constexpr std::size_t kPage = 4096;

thread_local Fiber* t_fiber = nullptr;

}  // namespace

Fiber* Fiber::Current()
{
    return t_fiber;
}

Fiber::Fiber()
{
    void* memory = mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED || mprotect(memory, kPage, PROT_NONE) != 0) {
        throw HostError("no memory for a thread's stack");
    }
    stack_ = static_cast<std::byte*>(memory);
    getcontext(&inside_);
    inside_.uc_stack.ss_sp = stack_ + kPage;
    inside_.uc_stack.ss_size = kStackBytes - kPage;
    const auto self = reinterpret_cast<std::uintptr_t>(this);
    makecontext(&inside_, reinterpret_cast<void (*)()>(&Fiber::Enter), 2, static_cast<unsigned>(self >> 32),
                static_cast<unsigned>(self));
#if defined(HOST_ADDRESS_SANITIZER)
    __lsan_register_root_region(inside_.uc_stack.ss_sp, inside_.uc_stack.ss_size);  // what parked work owns is no leak
#endif
#if defined(HOST_THREAD_SANITIZER)
    insideOfTsan_ = __tsan_create_fiber(0);
#endif
}

Fiber::~Fiber()
{
#if defined(HOST_THREAD_SANITIZER)
    __tsan_destroy_fiber(insideOfTsan_);
#endif
#if defined(HOST_ADDRESS_SANITIZER)
    __lsan_unregister_root_region(inside_.uc_stack.ss_sp, inside_.uc_stack.ss_size);
#endif
    munmap(stack_, kStackBytes);
}

bool Fiber::Run(const std::function<void()>& work)
{
    work_ = &work;
    hasEnded_ = false;
    outer_ = std::exchange(t_fiber, this);
    ThreadState* const outerState = ThreadState::Exchange(&state);
#if defined(HOST_THREAD_SANITIZER)
    const unsigned hidden = std::exchange(t_hidden, 0);  // the sanitizer counts for each stack of its own
    outsideOfTsan_ = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(insideOfTsan_, 0);
#endif
#if defined(HOST_ADDRESS_SANITIZER)
    void* fakeStack = nullptr;
    __sanitizer_start_switch_fiber(&fakeStack, inside_.uc_stack.ss_sp, inside_.uc_stack.ss_size);
#endif
    swapcontext(&outside_, &inside_);
#if defined(HOST_ADDRESS_SANITIZER)
    __sanitizer_finish_switch_fiber(fakeStack, nullptr, nullptr);
#endif
#if defined(HOST_THREAD_SANITIZER)
    t_hidden = hidden;
#endif
    ThreadState::Exchange(outerState);
    t_fiber = outer_;
    return hasEnded_;
}

// Back to the stack that Run was called on.
void Fiber::Leave()
{
#if defined(HOST_THREAD_SANITIZER)
    __tsan_switch_to_fiber(outsideOfTsan_, 0);
#endif
#if defined(HOST_ADDRESS_SANITIZER)
    void* fakeStack = nullptr;
    __sanitizer_start_switch_fiber(&fakeStack, outsideStack_, outsideStackBytes_);
#endif
    swapcontext(&inside_, &outside_);
#if defined(HOST_ADDRESS_SANITIZER)
    __sanitizer_finish_switch_fiber(fakeStack, &outsideStack_, &outsideStackBytes_);
#endif
}

void Fiber::Abandon()
{
    Leave();
    std::abort();  // nobody runs an abandoned fiber
}

void Fiber::Enter(unsigned high, unsigned low)
{
    auto* self = reinterpret_cast<Fiber*>((std::uintptr_t{high} << 32) | low);
#if defined(HOST_ADDRESS_SANITIZER)
    __sanitizer_finish_switch_fiber(nullptr, &self->outsideStack_, &self->outsideStackBytes_);
#endif
    for (;;) {
        try {
            (*self->work_)();
        } catch (...) {
            self->exception = std::current_exception();
        }
        self->hasEnded_ = true;
        self->Leave();
    }
}

}  // namespace host::schedule
