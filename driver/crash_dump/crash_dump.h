// The crash-dump bridge: the attached crash-dump driver's callbacks, and how a client is described to it.
#pragma once

#include <ntddk.h>

#include <wdf.h>

#include "driver/context/driver_context.h"
#include "driver/include/zepn_notifier.h"

// Context of the driver context's wdfObjectWpcdClient, in the order of the registration record. The handle is published
// before the callbacks are filled in and taken back under the clients lock; the forwarders read it without any lock.
// On purpose: the callbacks are plain fields, filled in after the handle can be seen. An add run already queued, or a
// client's dump call, that races with attaching can meet a callback not yet filled in; that window is accepted.
struct ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT {
    PZEP_CLIENT_ADD ZepClientAdd;
    PZEP_CLIENT_REMOVE ZepClientRemove;
    PZEP_DUMP_START ZepDumpStart;
    PZEP_DUMP_ADD_DUMP_DATA ZepDumpAddDumpData;
    PZEP_DUMP_STOP ZepDumpStop;
    PZEP_DUMP_QUERY_PARAM ZepDumpQueryParam;
    PZEP_DUMP_ADD_TRIAGE_DATA ZepDumpAddTriageData;
};
static_assert(sizeof(ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT) == 56);

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT, GetWpcdClientContext)

// Fills a descriptor. Bytes after the texts' ends and the padding keep what they held. The caller holds the clients
// lock.
_Requires_lock_held_(ClientsLock)
void DescribeClient(const ZEP_NOTIFIER_CLIENT_CONTEXT& client, ZEP_SUBSYSTEM_DESCRIPTOR& descriptor);

// Marks a client as handed to the crash-dump driver; without a state it is due again with its next one. The caller
// holds the general lock.
_Requires_lock_held_(GeneralLock)
void MarkAnnounced(ZEP_NOTIFIER_CLIENT_CONTEXT& client);
