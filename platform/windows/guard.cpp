// What the compiler's protections need of an image, and the record by which the system's loader finds it: the pointers
// that guarded indirect calls go through, and the stack protector's cookie. Until the loader puts its own checks there,
// the pointers lead to routines that do nothing and disturb no argument.
#include <ntplatform.h>

EXTERN_C_START

// ---- Stack protector ----

// The system's loader knows by this value that no cookie has been chosen yet: it puts a random one here before the
// image's entry runs.
constexpr ULONG_PTR kDefaultCookie = 0x00002B992DDFA232;
extern ULONG_PTR __security_cookie;
ULONG_PTR __security_cookie = kDefaultCookie;

// Called at the end of each protected function with the cookie that it kept in its frame. When that has changed nothing
// on the stack can be trusted: fast fail 2, which stops the system with bugcheck 0x139.
__attribute__((naked)) void __security_check_cookie(ULONG_PTR)
{
#if defined(__x86_64__)
    __asm__("cmpq __security_cookie(%rip), %rcx\n"
            "jne 0f\n"
            "ret\n"
            "0: movl $2, %ecx\n"
            "int $0x29");
#else
    __asm__("adrp x16, __security_cookie\n"
            "ldr x16, [x16, :lo12:__security_cookie]\n"
            "cmp x0, x16\n"
            "b.ne 0f\n"
            "ret\n"
            "0: mov w0, #2\n"
            "brk #0xF003");
#endif
}

// ---- Control flow guard ----

// Linker-defined: their addresses are the values.
extern char __guard_fids_table[];
extern char __guard_fids_count[];
extern char __guard_flags[];
extern char __guard_iat_table[];
extern char __guard_iat_count[];
extern char __guard_longjmp_table[];
extern char __guard_longjmp_count[];
extern char __guard_eh_cont_table[];
extern char __guard_eh_cont_count[];

__attribute__((naked)) static void GuardCheckNothing()
{
    __asm__("ret");
}

__attribute__((naked)) static void GuardDispatch()
{
#if defined(__x86_64__)
    __asm__("jmp *%rax");
#else
    __asm__("br x15");
#endif
}

// In read-only data: nothing but the system's loader may redirect the checks.
extern void (*const __guard_check_icall_fptr)();
extern void (*const __guard_dispatch_icall_fptr)();
__attribute__((section(".00cfg"))) void (*const __guard_check_icall_fptr)() = GuardCheckNothing;
__attribute__((section(".00cfg"))) void (*const __guard_dispatch_icall_fptr)() = GuardDispatch;

// ---- The record ----

struct LoadConfiguration {
    ULONG Size;
    UCHAR Unused1[84];
    PVOID SecurityCookie;
    UCHAR Unused2[16];
    const void* GuardCheckFunctionPointer;
    const void* GuardDispatchFunctionPointer;
    PVOID GuardFunctionTable;
    PVOID GuardFunctionCount;
    PVOID GuardFlags;  // four bytes on the platform; the upper half covers reserved zeros
    UCHAR Unused3[8];
    PVOID GuardAddressTakenImportTable;
    PVOID GuardAddressTakenImportCount;
    PVOID GuardLongJumpTable;
    PVOID GuardLongJumpCount;
    UCHAR Unused4[72];
    PVOID GuardEhContinuationTable;
    PVOID GuardEhContinuationCount;
};
PLATFORM_SIZE(struct LoadConfiguration, 280);
PLATFORM_LAYOUT(struct LoadConfiguration, SecurityCookie, 88);
PLATFORM_LAYOUT(struct LoadConfiguration, GuardCheckFunctionPointer, 112);
PLATFORM_LAYOUT(struct LoadConfiguration, GuardFunctionTable, 128);
PLATFORM_LAYOUT(struct LoadConfiguration, GuardFlags, 144);
PLATFORM_LAYOUT(struct LoadConfiguration, GuardAddressTakenImportTable, 160);
PLATFORM_LAYOUT(struct LoadConfiguration, GuardLongJumpTable, 176);
PLATFORM_LAYOUT(struct LoadConfiguration, GuardEhContinuationTable, 264);

extern const struct LoadConfiguration _load_config_used;
const struct LoadConfiguration _load_config_used = {
    .Size = sizeof(struct LoadConfiguration),
    .Unused1 = {},
    .SecurityCookie = &__security_cookie,
    .Unused2 = {},
    .GuardCheckFunctionPointer = &__guard_check_icall_fptr,
    .GuardDispatchFunctionPointer = &__guard_dispatch_icall_fptr,
    .GuardFunctionTable = __guard_fids_table,
    .GuardFunctionCount = __guard_fids_count,
    .GuardFlags = __guard_flags,
    .Unused3 = {},
    .GuardAddressTakenImportTable = __guard_iat_table,
    .GuardAddressTakenImportCount = __guard_iat_count,
    .GuardLongJumpTable = __guard_longjmp_table,
    .GuardLongJumpCount = __guard_longjmp_count,
    .Unused4 = {},
    .GuardEhContinuationTable = __guard_eh_cont_table,
    .GuardEhContinuationCount = __guard_eh_cont_count,
};

EXTERN_C_END
