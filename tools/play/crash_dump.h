// The scripted crash-dump driver: it shows what it is called with and answers as the scenario says.
#pragma once

#include "tools/peers/crash_dump_callbacks.h"

#include <string>

namespace play {

class Peers;

class CrashDump final : public peers::CrashDumpReceiver {
public:
    explicit CrashDump(Peers& peers);
    ~CrashDump() override;

    [[nodiscard]] const WpcdClientRegistration& registration() const { return registration_; }

    NTSTATUS OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor) override;
    NTSTATUS OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client) override;
    NTSTATUS OnDump(peers::DumpCallback callback, std::vector<std::uint64_t> arguments) override;

private:
    NTSTATUS Answer(const std::string& callback, const std::string& what, const std::string& causedBy);
    void CallFromInside(const std::string& callback);

    Peers& peers_;
    const WpcdClientRegistration registration_;
};

}  // namespace play
