// Reporting sites of the dump forwarders. Their messages form a set of their own, numbered from 10.
#pragma once

#include "trace/catalogue.h"

inline constexpr Row kForwardingRows[] = {
    // GetContext
    Entered(Site::kGetContextEntered, "GetContext", 10, Order::kEventFirst, MessageSet::kForwarding),
    // On purpose: these four stand under two of the forwarders' names, whichever forwarder asked.
    Refused(Site::kGetContextNull, "Notifier_HelperStartDump", "A required parameter is NULL.", 11, MessageSet::kForwarding),
    Refused(Site::kGetContextNoDriver, "Notifier_HelperStartDump", "WdfGetDriver returned NULL.", 12, MessageSet::kForwarding),
    ContextMissingStatus(Site::kGetContextNoContext, "Notifier_HelperDumpStart", "Driver object context", 13, MessageSet::kForwarding),
    ContextMissingStatus(Site::kGetContextNotAttached, "Notifier_HelperDumpStart", "WPCD (CDI) driver not yet loaded.", 14, MessageSet::kForwarding),
    ContextMissing(Site::kGetContextWpcdContext, "GetContext", "WPCD client context", 15, MessageSet::kForwarding),

    // Notifier_HelperStartDump
    Entered(Site::kStartDumpEntered, "Notifier_HelperStartDump", 16, Order::kMessageFirst, MessageSet::kForwarding),
    Refused(Site::kStartDumpNoContext, "Notifier_HelperStartDump", "Retrieving the context information failed.", 17, MessageSet::kForwarding),
    CallFailed(Site::kStartDumpFailed, "pWpcdClientContext->ZepDumpStart", "Failed with an error code.", 18, MessageSet::kForwarding),
    Traced(Site::kStartDumpDone, "Notifier_HelperStartDump", 19, kLevelInformation, Values::kDump, "dump %10!08X! started", MessageSet::kForwarding),
    {Site::kStartDumpLeft, "Notifier_HelperStartDump", 0, nullptr, nullptr, Values::kNone,
     {.number = 20, .set = MessageSet::kForwarding, .flag = TraceFlag::kEntry, .level = kLevelInformation,
      .text = "left"}},

    // Notifier_HelperAddDumpData
    Entered(Site::kAddDumpDataEntered, "Notifier_HelperAddDumpData", 21, Order::kMessageFirst, MessageSet::kForwarding),
    Refused(Site::kAddDumpDataNoContext, "Notifier_HelperAddDumpData", "Retrieving the context information failed.", 22, MessageSet::kForwarding),
    CallFailed(Site::kAddDumpDataFailed, "pWpcdClientContext->ZepDumpAddDumpData", "Failed with an error code.", 23, MessageSet::kForwarding),
    Traced(Site::kAddDumpDataDone, "Notifier_HelperAddDumpData", 24, kLevelInformation, Values::kDumpData, "data %11!08X! added to dump %10!08X!", MessageSet::kForwarding),
    {Site::kAddDumpDataLeft, "Notifier_HelperAddDumpData", 0, nullptr, nullptr, Values::kNone,
     {.number = 25, .set = MessageSet::kForwarding, .flag = TraceFlag::kEntry, .level = kLevelInformation,
      .text = "left"}},

    // Notifier_HelperStopDump
    Entered(Site::kStopDumpEntered, "Notifier_HelperStopDump", 26, Order::kMessageFirst, MessageSet::kForwarding),
    Refused(Site::kStopDumpNoContext, "Notifier_HelperStopDump", "Retrieving the context information failed.", 27, MessageSet::kForwarding),
    CallFailed(Site::kStopDumpFailed, "pWpcdClientContext->ZepDumpStop", "Failed with an error code.", 28, MessageSet::kForwarding),
    Traced(Site::kStopDumpDone, "Notifier_HelperStopDump", 29, kLevelInformation, Values::kDump, "dump %10!08X! stopped", MessageSet::kForwarding),
    {Site::kStopDumpLeft, "Notifier_HelperStopDump", 0, nullptr, nullptr, Values::kNone,
     {.number = 30, .set = MessageSet::kForwarding, .flag = TraceFlag::kEntry, .level = kLevelInformation,
      .text = "left"}},

    // Notifier_HelperDumpQueryParam
    Entered(Site::kDumpQueryParamEntered, "Notifier_HelperDumpQueryParam", 31, Order::kMessageFirst, MessageSet::kForwarding),
    Refused(Site::kDumpQueryParamNoContext, "Notifier_HelperDumpQueryParam", "Retrieving the context information failed.", 32, MessageSet::kForwarding),
    CallFailed(Site::kDumpQueryParamFailed, "pWpcdClientContext->ZepDumpQueryParam", "Failed with an error code.", 33, MessageSet::kForwarding),
    Traced(Site::kDumpQueryParamDone, "Notifier_HelperDumpQueryParam", 34, kLevelInformation, Values::kDump, "parameter of dump %10!08X! answered", MessageSet::kForwarding),
    {Site::kDumpQueryParamLeft, "Notifier_HelperDumpQueryParam", 0, nullptr, nullptr, Values::kNone,
     {.number = 35, .set = MessageSet::kForwarding, .flag = TraceFlag::kEntry, .level = kLevelInformation,
      .text = "left"}},

    // Notifier_HelperDumpAddTriageData
    Entered(Site::kDumpAddTriageDataEntered, "Notifier_HelperDumpAddTriageData", 36, Order::kMessageFirst, MessageSet::kForwarding),
    Refused(Site::kDumpAddTriageDataNoContext, "Notifier_HelperDumpAddTriageData", "Retrieving the context information failed.", 37, MessageSet::kForwarding),
    CallFailed(Site::kDumpAddTriageDataFailed, "pWpcdClientContext->ZepDumpAddTriageData", "Failed with an error code.", 38, MessageSet::kForwarding),
    Traced(Site::kDumpAddTriageDataDone, "Notifier_HelperDumpAddTriageData", 39, kLevelInformation, Values::kDumpValue, "triage data (%11!u!) added to dump %10!08X!", MessageSet::kForwarding),
    {Site::kDumpAddTriageDataLeft, "Notifier_HelperDumpAddTriageData", 0, nullptr, nullptr, Values::kNone,
     {.number = 40, .set = MessageSet::kForwarding, .flag = TraceFlag::kEntry, .level = kLevelInformation,
      .text = "left"}},
};
