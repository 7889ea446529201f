#include "host/checks/unused_stack.h"

namespace host::checks {

// Written without memset and unseen by the sanitizers: this memory belongs to no variable.
__attribute__((noinline, no_builtin("memset"), no_sanitize("address", "thread", "undefined"))) void FillUnusedStack()
{
    unsigned long long unused[512];
    for (unsigned long long& word : unused) {
        word = kUnusedStackPattern;
    }
    asm volatile("" : : "r"(unused) : "memory");

    // The vector registers that drivers must preserve, too: platform functions save them to the stack.
#if defined(__x86_64__)
    asm volatile("movq %0, %%xmm0\n\t"
                 "punpcklqdq %%xmm0, %%xmm0\n\t"
                 ".irp number, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15\n\t"
                 "movdqa %%xmm0, %%xmm\\number\n\t"
                 ".endr\n\t"
                 "movq %0, %%r10\n\t"
                 "movq %0, %%r11"
                 :
                 : "a"(kUnusedStackPattern)
                 : "r10", "r11", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9",
                   "xmm10", "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
#elif defined(__aarch64__)
    asm volatile(
        ".irp number, 0, 1, 2, 3, 4, 5, 6, 7, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31\n\t"
        "dup v\\number\\().2d, %0\n\t"
        ".endr\n\t"
        ".irp number, 9, 10, 11, 12, 13, 14, 15\n\t"
        "mov x\\number, %0\n\t"
        ".endr"
        :
        : "r"(kUnusedStackPattern)
        : "x9", "x10", "x11", "x12", "x13", "x14", "x15", "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v16", "v17",
          "v18", "v19", "v20", "v21", "v22", "v23", "v24", "v25", "v26", "v27", "v28", "v29", "v30", "v31");
#endif
}

}  // namespace host::checks
