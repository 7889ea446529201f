// What the Notifier keeps of a registered client, as it lies in memory: restated, so that a change of layout shows as a
// failure, and so that nobody outside the driver includes its own headers.
#pragma once

#include "host/framework/inspector.h"

#include "driver/include/zepn_notifier.h"

namespace layout {

inline constexpr const char* kClientContextName = "ZEP_NOTIFIER_CLIENT_CONTEXT";

struct ClientContext {
    GUID guid;
    char name[64];
    char description[128];
    void* callbacks[6];
    const ZepDataEntry* entries;
    unsigned char entryCount;
    void* callbackContext;
    ULONG addedToWpcd;
    ULONG wpcdRefreshPending;
    ULONG currentState;
    WDFCOLLECTION registrations;
};
static_assert(sizeof(ClientContext) == 304);

}  // namespace layout
