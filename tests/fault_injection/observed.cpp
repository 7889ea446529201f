#include "tests/fault_injection/observed.h"

#include "host/checks/unused_stack.h"
#include "tests/kit/one_report.h"
#include "tests/kit/reports_seen.h"
#include "tests/fault_injection/clients.h"
#include "tests/kit/lock_order.h"

#include <array>

namespace fault_injection {

using host::framework::ObjectType;

namespace {

using tests::TheFormats;
using tests::TheManifest;

host::checks::FaultForm HostForm(FaultKind form)
{
    switch (form) {
    case FaultKind::kNull:
        return host::checks::FaultForm::kNull;
    case FaultKind::kNullOutput:
        return host::checks::FaultForm::kNullOutput;
    case FaultKind::kInforms:
        return host::checks::FaultForm::kInforms;
    default:
        return host::checks::FaultForm::kStatus;
    }
}

bool ShowsDetail(const std::string& function)
{
    return function == "WdfObjectGetTypedContextWorker" || function == "WdfObjectCreate";
}

bool IsHandle(const host::tracing::DecodedField& field)
{
    return field.name == "Object" || field.name == "Collection";
}

// Whether function and words tell the site; some functions say the same in two places.
bool IsTold(const host::tracing::CapturedMessage& message, const host::tracing::DecodedMessage& decoded)
{
    static const auto counts = [] {
        std::map<std::pair<std::string, std::string>, unsigned> made;
        for (const auto& [key, format] : TheFormats().formats()) {
            ++made[{format.function, format.text}];
        }
        return made;
    }();
    const std::string set = host::tracing::GuidText(message.messageGuid);
    const auto& format = TheFormats().formats().at({set.substr(1, set.size() - 2), decoded.number});
    return counts.at({format.function, format.text}) == 1;
}

}  // namespace

ObservedRun::ObservedRun(const tests::Container& container, Options options)
    : container_(container), options_(std::move(options)), machine_({.traceRoutes = options_.routes})
{
    machine_.SetRegistryValue(tests::kService, "SubsystemNotificationTimeout", kTimeoutMs);
    machine_.tracing().OpenEventSession({kProviderGuid, 0});
    machine_.tracing().OpenMessageSession({kControlGuid, 5, 3});
    machine_.tracing().SetListener(this);
    machine_.environment().observer = [this](const host::ObservedCall& call) { OnCall(call); };
    if (options_.fault && options_.fault->function != "WdfGetDriver") {
        const Fault& fault = *options_.fault;
        machine_.faults().Add({.function = fault.function,
                               .skip = fault.index,
                               .count = fault.persistent ? host::checks::Fault::kSticky : 1,
                               .form = HostForm(fault.form),
                               .status = fault.Status()});
    }
}

ObservedRun::~ObservedRun()
{
    machine_.tracing().SetListener(nullptr);
    machine_.environment().observer = nullptr;
}

unsigned ObservedRun::StruckCount() const
{
    return const_cast<host::Machine&>(machine_).faults().StruckCount();
}

void ObservedRun::OnCall(const host::ObservedCall& call)
{
    ++callNumber_;
    if (options_.hideAt != 0) {
        if (callNumber_ == options_.hideAt) {
            machine_.faults().onHideDriver(true);
        } else if (callNumber_ == options_.hideAt + 1 && !options_.fault->persistent) {
            machine_.faults().onHideDriver(false);
        }
    }
    const std::optional<Kind> kind = KindOf(call.function);
    if (!kind) {
        step_.violations.push_back(std::string(call.function) + " is in no table");
    }
    if (kind == Kind::kFallible) {
        const bool detailed = ShowsDetail(call.function) && *call.detail != '\0';
        step_.calls.push_back(std::string(call.function) + (detailed ? std::string(" ") + call.detail : ""));
    }
    if (std::string_view(call.function) == "KeDelayExecutionThread") {
        step_.callbacks.push_back("waits " + std::to_string(kTimeoutMs) + " ms");
    }
    if (options_.onCall) {
        options_.onCall(callNumber_, call);
    }
}

void ObservedRun::OnEvent(const host::tracing::CapturedEvent& event)
{
    const auto decoded = TheManifest().Decode(event);
    if (!decoded) {
        badRecords_.push_back("event " + std::to_string(event.descriptor.Id) + " does not decode");
        return;
    }
    if (pending_) {
        badRecords_.push_back("no trace message behind \"" + pending_->message + "\"");
        pending_.reset();
    }
    if (options_.keepsRecords) {
        std::string record = "E" + std::to_string(decoded->id);
        for (const auto& field : decoded->fields) {
            record += IsHandle(field) ? "" : " " + field.text;
        }
        records_.push_back(record);
    }
    constexpr std::uint8_t kError = 2;
    constexpr std::uint8_t kWarning = 3;
    if (decoded->level > kWarning) {
        return;
    }
    if (decoded->level == kError) {
        pending_ = decoded;
    }
    std::string line = std::to_string(decoded->id) + " " + decoded->fields[0].text + ":";
    for (std::size_t index = 1; index < decoded->fields.size(); ++index) {
        const auto& field = decoded->fields[index];
        line += (index == 1 ? " " : ", ") + (IsHandle(field) ? NameOf(field.number) : field.text);
    }
    step_.reports.push_back(line);
}

void ObservedRun::OnMessage(const host::tracing::CapturedMessage& message)
{
    sites_.emplace(message.messageGuid.Data1, message.number);
    const auto decoded = TheFormats().Decode(message);
    if (!decoded) {
        badRecords_.push_back("message " + std::to_string(message.number) + " does not decode");
        return;
    }
    if (options_.keepsRecords) {
        std::string record = "M" + std::to_string(message.number) + " " + decoded->function;
        for (const std::uint64_t number : tests::NumbersOf(message)) {
            record += number > UINT32_MAX ? "" : " " + std::to_string(number);  // handles are larger
        }
        records_.push_back(record);
    }
    if (pending_) {
        const std::string difference = tests::DifferenceOf(*pending_, message, *decoded);
        if (!difference.empty()) {
            badRecords_.push_back(difference);
        }
        if (!IsTold(message, *decoded)) {
            std::string& line = step_.reports.back();
            line.insert(line.find(' '), "/" + std::to_string(message.number));
        }
        pending_.reset();
        return;
    }
    if (decoded->level == "TRACE_LEVEL_ERROR" && (step_.reports.empty() || !step_.reports.back().starts_with("22 "))) {
        step_.reports.push_back("- " + decoded->function + ": " + decoded->text);
    }
}

Step ObservedRun::Run(const Op& op)
{
    step_ = {};
    RecordCallbacks(step_.callbacks);
    const std::size_t delays = machine_.Delays().size();
    host::checks::FillUnusedStack();
    const std::optional<NTSTATUS> status = Act(op);
    const auto allDelays = machine_.Delays();
    if (allDelays.size() > delays && allDelays.back() != -10000LL * kTimeoutMs) {
        step_.callbacks.push_back("waited " + std::to_string(allDelays.back()));
    }
    step_.status = status ? Hex(*status) : "";
    for (const auto& violation : machine_.violations().Take()) {
        step_.violations.emplace_back(Name(violation.rule));
        step_.ends |= violation.rule == host::checks::Rule::kLockKept;
    }
    return step_;
}

std::optional<NTSTATUS> ObservedRun::Act(const Op& op)
{
    switch (op.what) {
    case Do::kLoad:
        driver_ = &machine_.Load(container_.image, tests::kService);
        if (driver_->IsLoaded()) {
            driverReferences_ = machine_.inspect().Find(driver_->Handle())->references;
        }
        return driver_->EntryStatus();
    case Do::kAddDevice:
        return driver_->AddDevice();
    case Do::kStart: {
        const NTSTATUS status = driver_->StartDevice();
        EXPECT_EQ(driver_->QueryInterface(GUID_ZEP_NOTIFIER_HELPER_INTERFACE,
                                          std::as_writable_bytes(std::span(&helper_, 1)),
                                          ZEP_NOTIFIER_INTERFACE_VERSION),
                  STATUS_SUCCESS);
        EXPECT_EQ(driver_->QueryInterface(GUID_ZEP_NOTIFIER_WPCD_INTERFACE,
                                          std::as_writable_bytes(std::span(&wpcd_, 1)), ZEP_NOTIFIER_INTERFACE_VERSION),
                  STATUS_SUCCESS);
        layout::DeclareLockOrder(machine_, *driver_);
        return status;
    }
    case Do::kSleep:
        return driver_->Sleep();
    case Do::kWake:
        return driver_->Wake();
    case Do::kSurprise:
        driver_->SurpriseRemoveDevice();
        return std::nullopt;
    case Do::kRemove:
        step_.ends = driver_->RemoveDevice().parked;
        return std::nullopt;
    case Do::kUnload:
        driver_->Unload();
        return std::nullopt;
    case Do::kOpen:
        return driver_->Open(file_).status;
    case Do::kClose:
        driver_->Close(file_);
        return std::nullopt;
    case Do::kControl: {
        const auto result = driver_->DeviceControl(file_, op.a);
        EXPECT_TRUE(result.completed);
        EXPECT_EQ(result.information, 0u);
        return result.status;
    }
    case Do::kPower:
        machine_.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, op.a);
        return std::nullopt;
    case Do::kDeliver:
        Deliver();
        return std::nullopt;
    default:
        return ActOnInterfaces(op);
    }
}

std::optional<NTSTATUS> ObservedRun::ActOnInterfaces(const Op& op)
{
    const GUID guid = GuidOf(op.a);
    const GUID* client = op.a == 0 ? nullptr : &guid;
    const ZepState state{.Size = 32, .InterfaceGUID = guid, .State = op.b, .Reserved = 0};
    const ZepState filter{.Size = 32, .InterfaceGUID = GuidOf(op.b), .State = op.c, .Reserved = 0};
    const ZepCommand command{
        .Size = 48, .CommandArgument = 9, .SourceGuid = guid, .TargetGuid = GuidOf(op.b), .CommandId = op.c};
    switch (op.what) {
    case Do::kRegister: {
        const ZepDataEntry entries[3] = {};
        ActionCallbackTable table{};
        table.CommandCallback = (op.b & kCommands) != 0 ? CommandCallback() : nullptr;
        table.AppsStateNotificationCallback = (op.b & kApps) != 0 ? AppsStateCallback() : nullptr;
        const bool gives = (op.b & kEntries) != 0;
        return helper_.Notifier_HelperInit(client, "name", "description", (op.b & kNullTable) != 0 ? nullptr : &table,
                                           gives ? entries : nullptr, gives ? 3 : 0, ContextOf(op.a));
    }
    case Do::kLeave:
        return helper_.Notifier_HelperClientDeinit(client);
    case Do::kPost:
        return helper_.Notifier_HelperSendState(op.a == 0 ? nullptr : &state);
    case Do::kSubscribe:
        return helper_.Notifier_HelperRegisterForStateNotification(client, op.b == 0 ? nullptr : &filter,
                                                                   StateCallback());
    case Do::kUnsubscribe:
        return helper_.Notifier_HelperDeregisterForStateNotification(client, op.b == 0 ? nullptr : &filter);
    case Do::kSend:
        return helper_.Notifier_HelperSendCommand(op.a == 0 ? nullptr : &command);
    case Do::kAttach:
        return wpcd_.Notifier_WpcdClientInit(op.a == 0 ? nullptr : &CrashDumpDriver());
    case Do::kDetach:
        return wpcd_.Notifier_WpcdClientDeInit();
    case Do::kCount: {
        ULONG count = 77;
        const NTSTATUS status = wpcd_.Notifier_WpcdGetNumSubsystemDescriptors(op.a == 0 ? nullptr : &count);
        if (op.a != 0) {
            step_.callbacks.push_back("count " + std::to_string(count));
        }
        return status;
    }
    case Do::kDescribe:
        return Describe(op);
    case Do::kDump: {
        AnswerDumps(static_cast<NTSTATUS>(op.c));
        ULONG record[2] = {0xD0, 0xD1};
        PVOID handle = op.b == 0 ? nullptr : record;
        switch (op.a) {
        case 0:
            return helper_.Notifier_HelperStartDump(handle, 5, 6);
        case 1:
            return helper_.Notifier_HelperAddDumpData(handle, record, 5, 6, 7);
        case 2:
            return helper_.Notifier_HelperStopDump(handle, 5);
        case 3:
            return helper_.Notifier_HelperDumpQueryParam(handle, 5, 6, 7);
        default:
            return helper_.Notifier_HelperDumpAddTriageData(handle, 5, 6);
        }
    }
    default:
        return std::nullopt;
    }
}

NTSTATUS ObservedRun::Describe(const Op& op)
{
    std::array<ZEP_SUBSYSTEM_DESCRIPTOR, 16> records{};
    ULONG count = op.a;
    const NTSTATUS status = wpcd_.Notifier_WpcdGetAllSubsystemDescriptors(op.b == 1 ? nullptr : records.data(),
                                                                          op.b == 2 ? nullptr : &count);
    if (op.b == 0) {
        std::string text = "described";
        for (const auto& record : records) {
            text += record.InterfaceGUID.Data1 == 0 ? "" : " " + std::to_string(record.InterfaceGUID.Data1);
        }
        step_.callbacks.push_back(text + ", count " + std::to_string(count));
    }
    return status;
}

void ObservedRun::Deliver()
{
    while (machine_.QueuedWorkItems() != 0 && !step_.ends) {
        step_.ends |= !machine_.RunOneWorkItem().parked.empty();
        for (const auto& object : machine_.inspect().Objects(ObjectType::kWaitLock)) {
            step_.ends |= object.held;
        }
    }
}

void ObservedRun::NoteReportsSeen()
{
    tests::NoteReportsSeen(machine_.tracing(), TheManifest());
}

}  // namespace fault_injection
