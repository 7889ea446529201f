#include "host/checks/fast_fail.h"

#include "host/environment.h"
#include "host/schedule/parking.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ucontext.h>

namespace host::checks {
namespace {

// What a fast fail says of itself.
struct Stop {
    std::uint32_t code;
    const char* caller;  // of the function, which has not touched the stack
};

#if defined(__x86_64__)

using Instruction = std::uint16_t;
constexpr Instruction kFastFail = 0x29CD;  // int 29h

Stop StopOf(const ucontext_t& context)
{
    const greg_t* registers = context.uc_mcontext.gregs;
    const char* caller = nullptr;
    std::memcpy(&caller, reinterpret_cast<const void*>(registers[REG_RSP]), sizeof(caller));
    return {static_cast<std::uint32_t>(registers[REG_RCX]), caller};
}

#elif defined(__aarch64__)

using Instruction = std::uint32_t;
constexpr Instruction kFastFail = 0xD43E0060;  // brk #0xF003

Stop StopOf(const ucontext_t& context)
{
    constexpr unsigned kLinkRegister = 30;
    const auto& registers = context.uc_mcontext.regs;
    return {static_cast<std::uint32_t>(registers[0]), reinterpret_cast<const char*>(registers[kLinkRegister])};
}

#endif

const char* Cause(std::uint32_t code)
{
    constexpr std::uint32_t kStackCookie = 2;
    return code == kStackCookie ? ": the end of a stack frame was overwritten" : "";
}

}  // namespace

void ReportFastFail(const void* at, const void* signalContext)
{
    if (!Environment::Exists() || !Environment::Current().modules.Contains(at)) {
        return;
    }
    Instruction instruction;
    std::memcpy(&instruction, at, sizeof(instruction));
    if (instruction != kFastFail) {
        return;
    }
    Environment& environment = Environment::Current();
    const Stop stop = StopOf(*static_cast<const ucontext_t*>(signalContext));
    // The check of a frame stands for the function that calls it with its frame overwritten.
    const bool isCheck = environment.modules.FunctionAt(at) == "__security_check_cookie";
    char text[96];
    std::snprintf(text, sizeof(text), "bugcheck 0x139 (0x%X)%s", static_cast<unsigned>(stop.code), Cause(stop.code));
    environment.Report(Rule::kBugCheck, "fast fail", text, isCheck ? stop.caller - 1 : at);
    schedule::ParkThisThread(text);
}

}  // namespace host::checks
