// The calls of the helper interface, as a client makes them; one argument may be passed as NULL.
#pragma once

#include "driver/include/zepn_notifier.h"
#include "tools/peers/operation.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace peers {

// Of a client what its calls hand over.
struct Caller {
    const GUID& guid;
    const std::string& name;
    const std::string& description;
    const ActionCallbackTable& callbacks;
    const std::vector<ZepDataEntry>& entries;
    void* context;
    PZEP_STATE_NOTIFICATION_CALLBACK onState;
    std::uint32_t dumpRecord;
};

// The state that is posted or subscribed to, or the command; for the other operations it does not matter.
struct Record {
    ZepState state{};
    ZepCommand command{};
};

inline NTSTATUS CallAsClient(const ZEP_NOTIFIER_HELPER_INTERFACE& helper, Kind kind, const Caller& caller,
                             const Record& given, std::string_view null = {})
{
    const GUID* const guid = null == "guid" ? nullptr : &caller.guid;
    const ZepState* const state = null == "record" ? nullptr : &given.state;
    std::uint32_t content = caller.dumpRecord;
    std::uint32_t data = 0xDA7A;
    void* const record = null == "record" ? nullptr : &content;
    switch (kind) {
    case Kind::kRegister:
        return helper.Notifier_HelperInit(guid, caller.name.c_str(), caller.description.c_str(),
                                          null == "callbacks" ? nullptr : &caller.callbacks,
                                          caller.entries.empty() ? nullptr : caller.entries.data(),
                                          static_cast<ULONG>(caller.entries.size()), caller.context);
    case Kind::kDeregister:
        return helper.Notifier_HelperClientDeinit(guid);
    case Kind::kSubscribe:
        return helper.Notifier_HelperRegisterForStateNotification(guid, state,
                                                                  null == "callback" ? nullptr : caller.onState);
    case Kind::kUnsubscribe:
        return helper.Notifier_HelperDeregisterForStateNotification(guid, state);
    case Kind::kPost:
        return helper.Notifier_HelperSendState(state);
    case Kind::kCommand:
        return helper.Notifier_HelperSendCommand(null == "record" ? nullptr : &given.command);
    case Kind::kStartDump:
        return helper.Notifier_HelperStartDump(record, 0x1000, 0x2000);
    case Kind::kAddDumpData:
        return helper.Notifier_HelperAddDumpData(record, &data, 0x80000000, 4096, 1);
    case Kind::kQueryDump:
        return helper.Notifier_HelperDumpQueryParam(record, 7, 11, 12);
    case Kind::kAddTriageData:
        return helper.Notifier_HelperDumpAddTriageData(record, 0x90000000, 256);
    default:
        return helper.Notifier_HelperStopDump(record, 13);
    }
}

}  // namespace peers
