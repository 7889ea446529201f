// A stack of its own for work that may never come back. The thread that hands out the work runs it itself, on this
// stack, and takes its own up again when the work returns or is abandoned: no thread is woken for it.
#pragma once

#include "host/environment.h"

#include <ucontext.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <string>

namespace host::schedule {

class Fiber {
public:
    Fiber();
    ~Fiber();
    Fiber(const Fiber&) = delete;
    Fiber& operator=(const Fiber&) = delete;

    // Runs work on this stack, as the thread that `state` describes. False when the work was abandoned: the fiber then
    // stays as it is for ever. What the work throws stands in `exception` afterwards.
    bool Run(const std::function<void()>& work);

    // Gives up the work that runs on this fiber: its Run returns. Called on the fiber itself.
    [[noreturn]] void Abandon();

    // The fiber that the calling code runs on; null on a thread's own stack.
    static Fiber* Current();

    ThreadState state;
    std::string abandonReason;
    std::exception_ptr exception;

private:
    static void Enter(unsigned high, unsigned low);
    void Leave();

    static constexpr std::size_t kStackBytes = std::size_t{8} << 20;  // address space; used by the page

    std::byte* stack_ = nullptr;  // the guard page comes first
    ucontext_t inside_{};
    ucontext_t outside_{};
    const std::function<void()>* work_ = nullptr;
    bool hasEnded_ = false;
    Fiber* outer_ = nullptr;
    // What the sanitizers know of the two stacks.
    [[maybe_unused]] void* outsideOfTsan_ = nullptr;
    [[maybe_unused]] void* insideOfTsan_ = nullptr;
    [[maybe_unused]] const void* outsideStack_ = nullptr;
    [[maybe_unused]] std::size_t outsideStackBytes_ = 0;
};

}  // namespace host::schedule
