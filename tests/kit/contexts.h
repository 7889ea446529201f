// The driver's typed contexts as they lie in memory, restated here so that a change of layout shows as a failure.
#pragma once

#include "tools/peers/client_context.h"

#include <utility>
#include <vector>

namespace layout {

inline constexpr const char* kDriverContextName = "ZEP_NOTIFIER_DRIVER_CONTEXT";
inline constexpr const char* kRegistrationContextName = "ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT";
inline constexpr const char* kStateContextName = "ZEP_NOTIFIER_STATE_CONTEXT";
inline constexpr const char* kCommandContextName = "ZEP_NOTIFIER_COMMAND_CONTEXT";
inline constexpr const char* kWpcdContextName = "ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT";

struct DriverContext {
    WDFQUEUE queue;
    WDFCOLLECTION addQueue;
    WDFCOLLECTION removeQueue;
    WDFCOLLECTION clients;
    WDFCOLLECTION states;
    WDFCOLLECTION commands;
    WDFWAITLOCK generalLock;
    WDFWAITLOCK clientsLock;
    WDFWAITLOCK statesLock;
    WDFWAITLOCK commandsLock;
    WDFOBJECT wpcdClient;
    WDFWORKITEM addItem;
    WDFWORKITEM removeItem;
    WDFWORKITEM notifyStatesItem;
    WDFWORKITEM notifyCommandsItem;
    WDFWAITLOCK notifyStatesLock;
    WDFWAITLOCK notifyCommandsLock;
    WDFWAITLOCK notifyAppsStateLock;
    PVOID powerCallbackObject;
    PVOID powerCallbackRegistration;
};
static_assert(sizeof(DriverContext) == 160);

// By the names that reports are compared with.
inline std::vector<std::pair<WDFCOLLECTION, const char*>> CollectionsOf(const DriverContext& context)
{
    return {{context.clients, "clients"},
            {context.states, "states"},
            {context.commands, "commands"},
            {context.addQueue, "add queue"},
            {context.removeQueue, "remove queue"}};
}

// What device add creates, in its order.
inline std::vector<const void*> FieldsOfDeviceAdd(const DriverContext& context)
{
    return {context.queue,
            context.addQueue,
            context.removeQueue,
            context.clients,
            context.states,
            context.commands,
            context.addItem,
            context.removeItem,
            context.notifyStatesItem,
            context.notifyCommandsItem,
            context.generalLock,
            context.clientsLock,
            context.statesLock,
            context.commandsLock,
            context.notifyStatesLock,
            context.notifyCommandsLock,
            context.notifyAppsStateLock};
}

struct RegistrationContext {
    GUID subscriber;
    ZepState filter;
    void* callback;
};
static_assert(sizeof(RegistrationContext) == 56);

}  // namespace layout
