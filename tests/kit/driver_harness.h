// The driver, made to do operations through its function tables, with every callback written down.
#pragma once

#include "host/machine.h"
#include "tests/kit/crash_dump_driver.h"
#include "tests/kit/operation.h"
#include "tests/kit/peer.h"

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tests {

inline constexpr const char* kService = "zepn";

// Whether the driver's code stays where it is for the next of many machines (host/image/kept_code.h). Only where it is
// emulated: that no code is called that is gone, the other containers show.
#if defined(ZEPN_EMULATED)
inline constexpr bool kKeepsCode = true;
#else
inline constexpr bool kKeepsCode = false;
#endif

// The interface tables of a started device, and the driver's lock order for the machine. Throws host::HostError when
// the driver does not give them out.
void TakeTables(host::Machine& machine, host::Driver& driver, ZEP_NOTIFIER_HELPER_INTERFACE& helper,
                ZEP_NOTIFIER_WPCD_INTERFACE& wpcd);

class DriverHarness {
public:
    // What clients and the crash-dump driver answer: the state or status that they give back.
    struct Answers {
        std::function<ULONG(unsigned client, unsigned from, ULONG state, ULONG response)> toState;
        std::function<ULONG(unsigned client, ULONG id, ULONG state)> toCommand;
        std::function<ULONG(unsigned client, ULONG state)> toAppsState;
        std::function<NTSTATUS(unsigned client)> toAdd;
        std::function<NTSTATUS(unsigned client)> toRemove;
        std::function<NTSTATUS()> toDump;
    };

    DriverHarness(std::filesystem::path image, const host::MachineOptions& options, Answers answers);

    host::Machine machine;
    host::Driver* driver = nullptr;   // once loaded
    std::vector<std::string> called;  // callbacks with their arguments, and what was written back, in order

    // A client that operations name by its number.
    Peer& AddPeer(unsigned number);
    [[nodiscard]] Peer& PeerOf(unsigned number) { return peers_.at(number); }

    // All but running work items. The status, where the operation has one.
    [[nodiscard]] std::optional<NTSTATUS> Do(const Operation& operation);

private:
    NTSTATUS DoAsClient(const Operation& operation, Peer& peer);
    NTSTATUS Describe(const Operation& operation);
    void ConnectCallbacks(const Answers& answers, CrashDumpDriver& crashDump, unsigned table);
    [[nodiscard]] const Peer* Find(const GUID& guid) const;
    [[nodiscard]] std::string NameOf(const GUID& guid) const;
    [[nodiscard]] std::string DescriptorLine(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor) const;

    const std::filesystem::path image_;
    const Answers answers_;
    std::map<unsigned, Peer> peers_;
    CrashDumpDriver crashDump_[2] = {CrashDumpDriver(0), CrashDumpDriver(1)};
    ZEP_NOTIFIER_HELPER_INTERFACE helper_{};
    ZEP_NOTIFIER_WPCD_INTERFACE wpcd_{};
    host::FileId file_ = 0;
};

}  // namespace tests
