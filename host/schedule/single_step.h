// Runs the calling thread one instruction at a time: while the processor's trap flag is set, SIGTRAP comes before each
// instruction. x86-64 only.
#pragma once

#if defined(__x86_64__)

namespace host::schedule {

// The trap flag is bit 8 of the flags. The stack pointer first leaves the red zone that the function may be using.
inline void BeginSingleSteps()
{
    asm volatile("lea -128(%%rsp), %%rsp\n pushfq\n orq $0x100, (%%rsp)\n popfq\n lea 128(%%rsp), %%rsp" ::
                     : "memory", "cc");
}

inline void EndSingleSteps()
{
    asm volatile("lea -128(%%rsp), %%rsp\n pushfq\n andq $~0x100, (%%rsp)\n popfq\n lea 128(%%rsp), %%rsp" ::
                     : "memory", "cc");
}

}  // namespace host::schedule

#endif
