// The queued records of delivery, and how their work items end.
#pragma once

#include <ntddk.h>

#include <wdf.h>

#include "driver/include/zepn_notifier.h"

// A queued state: a plain copy of the posted record. Its object is a child of the posting client.
struct ZEP_NOTIFIER_STATE_CONTEXT {
    ZepState State;
};
static_assert(sizeof(ZEP_NOTIFIER_STATE_CONTEXT) == 32);

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(ZEP_NOTIFIER_STATE_CONTEXT, GetStateContext)

// A queued command: a plain copy of the posted record. Its object is a child of the sending client.
struct ZEP_NOTIFIER_COMMAND_CONTEXT {
    ZepCommand Command;
};
static_assert(sizeof(ZEP_NOTIFIER_COMMAND_CONTEXT) == 48);

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(ZEP_NOTIFIER_COMMAND_CONTEXT, GetCommandContext)

// Whether a run of a work item goes on after one of its steps.
enum class Run : UCHAR { kGoesOn, kEnds };
