#include "tests/kit/peer.h"

#include "host/schedule/yield.h"

namespace tests {
namespace {

using host::schedule::YieldKind;
using host::schedule::YieldPoint;

constexpr NTSTATUS kIgnored = STATUS_UNSUCCESSFUL;  // the Notifier does not look at what callbacks return

NTSTATUS NTAPI OnCommand(PVOID context, ULONG id, const ZepCommandInfo* info, PULONG state)
{
    YieldPoint(YieldKind::kClientCode, "CommandCallback");
    auto& peer = *static_cast<Peer*>(context);
    peer.commands.emplace_back(id, *info);
    if (peer.onCommand) {
        peer.onCommand(id, *state);
    }
    return kIgnored;
}

NTSTATUS NTAPI OnAppsState(PVOID context, ULONG reason, PULONG state)
{
    YieldPoint(YieldKind::kClientCode, "AppsStateNotificationCallback");
    auto& peer = *static_cast<Peer*>(context);
    peer.appsStateCalls += reason == ZEP_APPS_STATE_REASON_CHANGED ? 1 : 0;
    if (peer.onAppsState) {
        peer.onAppsState(*state);
    }
    return kIgnored;
}

}  // namespace

Peer::Peer(ULONG itsNumber) : number(itsNumber), guid{itsNumber, 0x1111, 0x2222, {1, 2, 3, 4, 5, 6, 7, 8}}
{
}

Peer& Peer::TakesCommands(bool takes)
{
    callbacks.CommandCallback = takes ? &OnCommand : nullptr;
    return *this;
}

Peer& Peer::WantsAppsState(bool wants)
{
    callbacks.AppsStateNotificationCallback = wants ? &OnAppsState : nullptr;
    return *this;
}

NTSTATUS Peer::OnState(PVOID context, const ZepState* state, PULONG response)
{
    YieldPoint(YieldKind::kClientCode, "StateNotificationCallback");
    auto& peer = *static_cast<Peer*>(context);
    peer.deliveries.push_back(*state);
    if (peer.onState) {
        peer.onState(*state, *response);
    }
    return kIgnored;
}

}  // namespace tests
