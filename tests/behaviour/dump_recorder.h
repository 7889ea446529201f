// A crash-dump driver that records what it is told, and a fixture that has it attached.
#pragma once

#include "tests/kit/driver_fixture.h"

namespace tests {

// Its callbacks have no context, so there is one at a time.
struct Recorder {
    struct Call {
        std::string name;
        std::vector<std::uint64_t> arguments;
        bool operator==(const Call&) const = default;
    };
    std::vector<ZEP_SUBSYSTEM_DESCRIPTOR> added;
    std::vector<const ZEP_SUBSYSTEM_DESCRIPTOR*> buffers;
    std::vector<GUID> removed;
    std::vector<Call> calls;
    NTSTATUS answer = STATUS_SUCCESS;
    WpcdClientRegistration registration{};

    Recorder();
    ~Recorder();
};

inline std::uint64_t Number(const void* pointer)
{
    return reinterpret_cast<std::uint64_t>(pointer);
}

struct Attached {
    Recorder recorder;
    DriverFixture fixture;

    explicit Attached(const Container& container) : fixture(container)
    {
        EXPECT_EQ(fixture.wpcd.Notifier_WpcdClientInit(&recorder.registration), STATUS_SUCCESS);
    }
};

}  // namespace tests
