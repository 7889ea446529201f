// An action before one chosen instruction of a piece of code: what another processor may do at that very moment. The
// action is an ordinary function, so the code must hold no lock that it takes.
#pragma once

#include "host/schedule/single_step.h"

#include <cstddef>
#include <cstdint>
#include <functional>

#if defined(__x86_64__)
#include <csignal>
#include <ucontext.h>
#endif

namespace tests {

#if defined(__x86_64__)

inline constexpr bool kCanInterrupt = true;

class SingleSteps {
public:
    // Instruction 0: no action.
    SingleSteps(const void* code, std::size_t sizeBytes, unsigned instruction, const std::function<void()>& action)
        : base_(reinterpret_cast<std::uint64_t>(code)), sizeBytes_(sizeBytes), instruction_(instruction),
          action_(action)
    {
        current_ = this;
        struct sigaction handler = {};
        handler.sa_sigaction = OnStep;
        handler.sa_flags = SA_SIGINFO;
        sigaction(SIGTRAP, &handler, &before_);
    }
    ~SingleSteps() { sigaction(SIGTRAP, &before_, nullptr); }
    SingleSteps(const SingleSteps&) = delete;
    SingleSteps& operator=(const SingleSteps&) = delete;

    // Of the calling thread; any function may call either.
    static void Begin() { host::schedule::BeginSingleSteps(); }
    static void End() { host::schedule::EndSingleSteps(); }

    // The instructions of the code that were run between the two, up to the action.
    [[nodiscard]] unsigned Seen() const { return seen_; }

private:
    static void OnStep(int, siginfo_t*, void* context)
    {
        auto* frame = static_cast<ucontext_t*>(context);
        const auto address = static_cast<std::uint64_t>(frame->uc_mcontext.gregs[REG_RIP]);
        if (address - current_->base_ < current_->sizeBytes_ && ++current_->seen_ == current_->instruction_) {
            current_->action_();
            constexpr greg_t kTrapFlag = 0x100;
            frame->uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;  // what comes now may be long, as a report is
        }
    }

    static inline SingleSteps* current_ = nullptr;
    const std::uint64_t base_;
    const std::size_t sizeBytes_;
    const unsigned instruction_;
    const std::function<void()> action_;
    unsigned seen_ = 0;
    struct sigaction before_ = {};
};

#else

inline constexpr bool kCanInterrupt = false;  // no single-stepping

class SingleSteps {
public:
    SingleSteps(const void*, std::size_t, unsigned, const std::function<void()>&) {}
    static void Begin() {}
    static void End() {}
    [[nodiscard]] static unsigned Seen() { return 0; }
};

#endif

}  // namespace tests
