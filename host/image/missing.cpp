#include "host/image/missing.h"

#include "host/checks/absent.h"
#include "host/environment.h"

#include <sys/mman.h>

#include <array>
#include <cstring>

namespace host::image {
namespace {

constexpr std::size_t kPage = 4096;

// What a stub calls, in the platform's convention.
[[noreturn]] void NTAPI OnMissing(const std::string* name, const char* returnAddress)
{
    checks::StopAtAbsent(*name, returnAddress - 1);
}

using Stub = std::array<std::uint8_t, 32>;

Stub StubOf(const std::string* name)
{
    const auto nameValue = reinterpret_cast<std::uint64_t>(name);
    const auto handler = reinterpret_cast<std::uint64_t>(&OnMissing);
    Stub stub{};
#if defined(__x86_64__)
    constexpr std::uint8_t kCode[] = {
        0x48, 0xB9, 0,    0,    0, 0, 0, 0, 0, 0,  // mov rcx, name
        0x48, 0x8B, 0x14, 0x24,                    // mov rdx, [rsp]
        0x48, 0xB8, 0,    0,    0, 0, 0, 0, 0, 0,  // mov rax, handler
        0xFF, 0xE0,                                // jmp rax
    };
    std::memcpy(stub.data(), kCode, sizeof(kCode));
    std::memcpy(stub.data() + 2, &nameValue, sizeof(nameValue));
    std::memcpy(stub.data() + 16, &handler, sizeof(handler));
#else
    constexpr std::uint32_t kCode[] = {
        0x58000080,  // ldr x0, name
        0xAA1E03E1,  // mov x1, x30
        0x58000090,  // ldr x16, handler
        0xD61F0200,  // br x16
    };
    std::memcpy(stub.data(), kCode, sizeof(kCode));
    std::memcpy(stub.data() + 16, &nameValue, sizeof(nameValue));
    std::memcpy(stub.data() + 24, &handler, sizeof(handler));
#endif
    return stub;
}

}  // namespace

std::string MissingText(const std::string& image, const std::vector<std::string>& names)
{
    std::string text = image + " needs " +
                       (names.size() == 1 ? "a function" : std::to_string(names.size()) + " functions") +
                       " that this host does not play: ";
    for (const std::string& name : names) {
        text += (&name == names.data() ? "" : ", ") + name;
    }
    return text + "; docs/platform.md lists those that it plays, and --allow-missing, in a test "
                  "MachineOptions::allowMissing, loads the image all the same";
}

MissingStubs::~MissingStubs()
{
    for (void* page : pages_) {
        if (!keepMapped_) {
            munmap(page, kPage);
        }
    }
}

void* MissingStubs::For(const std::string& name)
{
    if (pages_.empty() || used_ + sizeof(Stub) > kPage) {
        void* page = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED) {
            throw HostError("no memory for stubs of missing functions");
        }
        pages_.push_back(page);
        used_ = 0;
    }
    names_.push_back(name);
    const Stub stub = StubOf(&names_.back());
    auto* at = static_cast<char*>(pages_.back()) + used_;
    mprotect(pages_.back(), kPage, PROT_READ | PROT_WRITE);
    std::memcpy(at, stub.data(), stub.size());
    mprotect(pages_.back(), kPage, PROT_READ | PROT_EXEC);
    __builtin___clear_cache(at, at + stub.size());
    used_ += stub.size();
    return at;
}

}  // namespace host::image
