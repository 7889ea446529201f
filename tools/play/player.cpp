#include <initguid.h>  // before all: this file holds the interfaces' identifiers

#include "tools/play/player.h"

#include "host/machine.h"
#include "host/tracing/capture_file.h"
#include "host/tracing/decode.h"
#include "tools/play/clients.h"
#include "tools/play/statuses.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace play {
namespace {

constexpr const char* kNotifier = "notifier";
constexpr const char* kSystem = "system";
constexpr const char* kCrashDump = "crash dump";
constexpr const char* kApplication = "application";
constexpr const char* kService = "zepn";

// Shows records as sessions take them, decoded by the files that ship.
class Reports final : public host::tracing::Tracing::Listener {
public:
    Reports(const PlayOptions& options, Timeline& timeline)
        : manifest_(options.decodingFiles / "zepn.man"), formats_(options.decodingFiles), options_(options),
          timeline_(timeline)
    {
        if (!options.capture.empty()) {
            capture_ = std::make_unique<host::tracing::CaptureWriter>(options.capture);
        }
    }

    void Finish()
    {
        if (capture_) {
            capture_->Finish();
        }
    }

    [[nodiscard]] const GUID& provider() const { return manifest_.provider(); }

    void OnEvent(const host::tracing::CapturedEvent& event) override
    {
        if (capture_) {
            capture_->Write(event);
        }
        // The session of a capture takes every level.
        if (!options_.eventLevel || (*options_.eventLevel != 0 && event.descriptor.Level > *options_.eventLevel)) {
            return;
        }
        const auto decoded = manifest_.Decode(event);
        timeline_.Add({EntryKind::kReport, "event " + std::to_string(event.descriptor.Id), "",
                       decoded ? decoded->message : "(cannot be decoded)", "", true});
    }

    void OnMessage(const host::tracing::CapturedMessage& message) override
    {
        if (capture_) {
            capture_->Write(message);
        }
        if (!options_.traceMessages) {
            return;
        }
        const auto decoded = formats_.Decode(message);
        timeline_.Add({EntryKind::kReport, "trace " + std::to_string(message.number), "",
                       decoded ? decoded->function + ": " + decoded->text : "(cannot be decoded)", "", true});
    }

private:
    host::tracing::Manifest manifest_;
    host::tracing::MessageFormats formats_;
    std::unique_ptr<host::tracing::CaptureWriter> capture_;
    PlayOptions options_;
    Timeline& timeline_;
};

class Player {
public:
    Player(const Scenario& scenario, const PlayOptions& options, Timeline& timeline)
        : scenario_(scenario), timeline_(timeline), machine_(MachineOptionsFor(options)), peers_(scenario, timeline)
    {
        const bool captures = !options.capture.empty();
        if (options.eventLevel || options.traceMessages || captures) {
            reports_ = std::make_unique<Reports>(options, timeline);
            machine_.tracing().SetListener(reports_.get());
        }
        if (options.eventLevel || captures) {
            const std::uint8_t level = captures ? std::uint8_t{0} : *options.eventLevel;
            machine_.tracing().OpenEventSession({reports_->provider(), level});
        }
        if (options.traceMessages || captures) {
            constexpr GUID kControl = {0x7311D40C, 0xCE4F, 0x496F, {0xA5, 0x63, 0xF7, 0x2D, 0x7B, 0xC9, 0xD9, 0x2F}};
            machine_.tracing().OpenMessageSession({kControl, 5, 3});
        }
        Boot(options);
    }

    ~Player() { machine_.tracing().SetListener(nullptr); }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    bool Run()
    {
        unsigned number = 0;
        for (const Step& step : scenario_.steps) {
            if (step.action != Action::kNote) {
                timeline_.BeginStep(++number);
            }
            Arm(step);
            Do(step);
            ShowTrouble();
            Disarm(step);
        }
        End();
        if (reports_) {
            reports_->Finish();
        }
        return good_;
    }

private:
    static host::MachineOptions MachineOptionsFor(const PlayOptions& options)
    {
        host::MachineOptions machine;
        machine.realTime = options.realTime;
        return machine;
    }

    void Boot(const PlayOptions& options)
    {
        driver_ = &machine_.Load(options.image, kService);
        timeline_.Add({EntryKind::kCall, kSystem, kNotifier, "loads " + options.image.filename().string(),
                       StatusText(driver_->EntryStatus()), NT_SUCCESS(driver_->EntryStatus())});
        if (!NT_SUCCESS(driver_->EntryStatus())) {
            throw host::HostError("the driver's entry point failed with " + StatusText(driver_->EntryStatus()));
        }
        const NTSTATUS added = driver_->AddDevice();
        const NTSTATUS started = NT_SUCCESS(added) ? driver_->StartDevice() : added;
        timeline_.Add({EntryKind::kCall, kSystem, kNotifier, "adds and starts its device", StatusText(started),
                       NT_SUCCESS(started)});
        Query(GUID_ZEP_NOTIFIER_HELPER_INTERFACE, helper_);
        Query(GUID_ZEP_NOTIFIER_WPCD_INTERFACE, wpcd_);
        peers_.helper = &helper_;
        peers_.wpcd = &wpcd_;
    }

    template <class Table>
    void Query(const GUID& type, Table& table)
    {
        const NTSTATUS status =
            driver_->QueryInterface(type, std::as_writable_bytes(std::span(&table, 1)), ZEP_NOTIFIER_INTERFACE_VERSION);
        if (!NT_SUCCESS(status)) {
            throw host::HostError("the driver did not give out its interface: " + StatusText(status));
        }
    }

    // ---- What a step does wrong on purpose ----

    void Arm(const Step& step)
    {
        expectedTrouble_ = step.trouble;
        troubleCame_ = false;
        if (step.fail) {
            machine_.faults().Add(
                {.function = step.fail->call,
                 .detail = step.fail->detail,
                 .form = step.fail->status ? host::checks::FaultForm::kStatus : host::checks::FaultForm::kNull,
                 .status = step.fail->status.value_or(STATUS_SUCCESS)});
        }
    }

    void Disarm(const Step& step)
    {
        if (step.fail && machine_.faults().StruckCount() == 0) {
            Trouble("the step never calls " + step.fail->call + ", which was to fail");
        }
        machine_.faults().Clear();
        if (expectedTrouble_ && !troubleCame_) {
            const std::string expected = *expectedTrouble_;
            expectedTrouble_.reset();
            Trouble("expected trouble that did not come: " + expected);
        }
        expectedTrouble_.reset();
    }

    // True when the step is there to show just this.
    bool Trouble(const std::string& text)
    {
        const bool expected = expectedTrouble_ && text.find(*expectedTrouble_) != std::string::npos;
        timeline_.Add({EntryKind::kTrouble, "", "", text, "", expected});
        troubleCame_ = troubleCame_ || expected;
        good_ = good_ && expected;
        return expected;
    }

    // Makes a call on a thread of the caller's, as a stretch of its own. Empty when it never returns.
    std::optional<NTSTATUS> Call(const Step& step, const std::string& who, const char* operation,
                                 const std::vector<std::string>& causes, const std::function<NTSTATUS()>& call)
    {
        timeline_.Begin({Stretch::Kind::kCall, who, operation, ""});
        for (const std::string& cause : causes) {
            timeline_.Cause(who, cause);
        }
        NTSTATUS status = STATUS_SUCCESS;
        const host::Outcome outcome = machine_.OnThread(who, [&] {
            std::optional<host::ScopedIrql> raised;
            if (step.raised) {
                raised.emplace(DISPATCH_LEVEL);
            }
            status = call();
        });
        if (outcome.parked) {
            ShowParked(outcome);
            return std::nullopt;
        }
        timeline_.End(who, StatusText(status));
        return status;
    }

    // Shows a call behind its callbacks: what it did is told in the order in which it happened.
    void Show(const Step& step, const std::string& who, const std::string& what, std::optional<NTSTATUS> status)
    {
        // Of a step that must end in trouble the status is judged only when it names one.
        const bool good = status && step.expect ? *status == *step.expect
                                                : step.trouble.has_value() || (status && NT_SUCCESS(*status));
        timeline_.Add({EntryKind::kCall, who, kNotifier, what, status ? StatusText(*status) : "never returns", good});
        good_ = good_ && good;
    }

    ZepState StateOf(const std::string& client, std::uint32_t state)
    {
        return {.Size = sizeof(ZepState), .InterfaceGUID = scenario_.Find(client)->guid, .State = state, .Reserved = 0};
    }

    void Do(const Step& step)
    {
        switch (step.action) {
        case Action::kNote:
            timeline_.Add({EntryKind::kHeading, "", "", step.text, "", true});
            return;
        case Action::kRegister:
        case Action::kSubscribe:
        case Action::kUnsubscribe:
        case Action::kPost:
        case Action::kLeave:
        case Action::kCommand:
            DoForClient(step, peers_.Find(step.client));
            return;
        case Action::kStartDump:
        case Action::kAddDumpData:
        case Action::kQueryDump:
        case Action::kAddTriageData:
        case Action::kStopDump:
            DoDump(step, peers_.Find(step.client));
            return;
        case Action::kAttach:
            Show(step, kCrashDump, "attaches", Call(step, kCrashDump, "Notifier_WpcdClientInit", {}, [&] {
                     return wpcd_.Notifier_WpcdClientInit(step.null.empty() ? &peers_.crashDumpRegistration()
                                                                            : nullptr);
                 }));
            return;
        case Action::kDetach:
            Show(step, kCrashDump, "detaches", Call(step, kCrashDump, "Notifier_WpcdClientDeInit", {}, [&] {
                     return wpcd_.Notifier_WpcdClientDeInit();
                 }));
            return;
        case Action::kCount: {
            ULONG count = 0;
            const auto status = Call(step, kCrashDump, "Notifier_WpcdGetNumSubsystemDescriptors", {}, [&] {
                return wpcd_.Notifier_WpcdGetNumSubsystemDescriptors(step.null.empty() ? &count : nullptr);
            });
            Show(step, kCrashDump, "counts the clients: " + std::to_string(count), status);
            return;
        }
        case Action::kDescribe:
            DoDescribe(step);
            return;
        default:
            DoForSystem(step);
        }
    }

    void DoForClient(const Step& step, Client& client)
    {
        const ClientModel& model = client.model();
        const std::string stateName = step.state ? scenario_.StateName(*step.state) : "any";
        const GUID* guid = step.null == "guid" ? nullptr : &model.guid;
        const auto call = [&](const char* operation, const std::vector<std::string>& causes,
                              const std::function<NTSTATUS()>& made) {
            return Call(step, model.key, operation, causes, made);
        };
        if (step.action == Action::kRegister) {
            const auto status = call("Notifier_HelperInit", {}, [&] {
                return helper_.Notifier_HelperInit(guid, model.name.c_str(), model.description.c_str(),
                                                   step.null == "callbacks" ? nullptr : &client.callbacks(),
                                                   client.entries().empty() ? nullptr : client.entries().data(),
                                                   model.entryCount, &client);
            });
            peers_.counts.registered += status && NT_SUCCESS(*status) ? 1 : 0;
            Show(step, model.key, "registers as \"" + model.name + "\"", status);
        } else if (step.action == Action::kSubscribe) {
            const ZepState filter = StateOf(step.to, step.state.value_or(ZEP_STATE_ANY));
            timeline_.Add({EntryKind::kCall, model.key, kNotifier,
                           "subscribes to " + step.to + (step.state ? " in state " : " in ") + stateName +
                               (step.state ? "" : " state"),
                           "", true});
            peers_.registering = true;
            const auto status = call("Notifier_HelperRegisterForStateNotification", {}, [&] {
                return helper_.Notifier_HelperRegisterForStateNotification(
                    guid, step.null == "record" ? nullptr : &filter,
                    step.null == "callback" ? nullptr : &Client::OnState);
            });
            peers_.registering = false;
            Show(step, model.key, "   is subscribed", status);
        } else if (step.action == Action::kUnsubscribe) {
            const ZepState filter = StateOf(step.to, step.state.value_or(ZEP_STATE_ANY));
            Show(step, model.key, "ends its subscription to " + step.to + " (" + stateName + ")",
                 call("Notifier_HelperDeregisterForStateNotification", {}, [&] {
                     return helper_.Notifier_HelperDeregisterForStateNotification(
                         guid, step.null == "record" ? nullptr : &filter);
                 }));
        } else if (step.action == Action::kPost) {
            const ZepState state = StateOf(step.client, step.state.value_or(0));
            const auto status =
                call("Notifier_HelperSendState",
                     {"state " + model.key + " " + std::to_string(state.State), "client " + model.key},
                     [&] { return helper_.Notifier_HelperSendState(step.null.empty() ? &state : nullptr); });
            peers_.counts.posted += status && NT_SUCCESS(*status) ? 1 : 0;
            Show(step, model.key, "posts its state: " + stateName, status);
        } else if (step.action == Action::kLeave) {
            Show(step, model.key, "leaves", call("Notifier_HelperClientDeinit", {"end " + model.key}, [&] {
                     return helper_.Notifier_HelperClientDeinit(guid);
                 }));
        } else {
            const ZepCommand command{.Size = sizeof(ZepCommand),
                                     .CommandArgument = step.argument,
                                     .SourceGuid = model.guid,
                                     .TargetGuid = scenario_.Find(step.to)->guid,
                                     .CommandId = step.id};
            Show(step, model.key, "sends command " + std::to_string(step.id) + " to " + step.to,
                 call("Notifier_HelperSendCommand",
                      {"command " + model.key + " " + step.to + " " + std::to_string(step.id)},
                      [&] { return helper_.Notifier_HelperSendCommand(step.null.empty() ? &command : nullptr); }));
        }
    }

    void DoDump(const Step& step, Client& client)
    {
        const std::string& who = client.model().key;
        PVOID record = step.null.empty() ? client.dumpRecord() : nullptr;
        std::uint32_t data = 0xDA7A;
        const auto call = [&](const std::string& what, const char* operation, const std::function<NTSTATUS()>& made) {
            Show(step, who, what, Call(step, who, operation, {"dump"}, made));
        };
        if (step.action == Action::kStartDump) {
            call("starts a dump", "Notifier_HelperStartDump",
                 [&] { return helper_.Notifier_HelperStartDump(record, 0x1000, 0x2000); });
        } else if (step.action == Action::kAddDumpData) {
            call("adds data to its dump", "Notifier_HelperAddDumpData",
                 [&] { return helper_.Notifier_HelperAddDumpData(record, &data, 0x80000000, 4096, 1); });
        } else if (step.action == Action::kQueryDump) {
            call("asks for a parameter of its dump", "Notifier_HelperDumpQueryParam",
                 [&] { return helper_.Notifier_HelperDumpQueryParam(record, 7, 0, 0); });
        } else if (step.action == Action::kAddTriageData) {
            call("adds triage data", "Notifier_HelperDumpAddTriageData",
                 [&] { return helper_.Notifier_HelperDumpAddTriageData(record, 0x90000000, 256); });
        } else {
            call("stops its dump", "Notifier_HelperStopDump",
                 [&] { return helper_.Notifier_HelperStopDump(record, 0); });
        }
    }

    void DoDescribe(const Step& step)
    {
        // Room for all clients is made without asking the driver, whose answer would be a call of its own.
        const std::size_t room = step.hasCapacity ? step.capacity : scenario_.clients.size();
        ULONG count = static_cast<ULONG>(room);
        std::vector<ZEP_SUBSYSTEM_DESCRIPTOR> descriptors(room + 1);
        const auto status = Call(step, kCrashDump, "Notifier_WpcdGetAllSubsystemDescriptors", {}, [&] {
            return wpcd_.Notifier_WpcdGetAllSubsystemDescriptors(
                step.null == "descriptors" ? nullptr : descriptors.data(), step.null == "count" ? nullptr : &count);
        });
        for (ULONG index = 0; status && NT_SUCCESS(*status) && index < count; ++index) {
            timeline_.Add({EntryKind::kCallback, kNotifier, kCrashDump,
                           "describes " + peers_.NameOf(descriptors[index].InterfaceGUID) + ", \"" +
                               descriptors[index].SubsystemName + "\"",
                           "", true});
        }
        Show(step, kCrashDump, "asks for the descriptors of all " + std::to_string(count) + " clients", status);
    }

    void DoForSystem(const Step& step)
    {
        switch (step.action) {
        case Action::kDeliver:
            Deliver(step.runs);
            return;
        case Action::kOpen:
            Show(step, kApplication, "opens the control device",
                 Call(step, kApplication, "open", {}, [&] { return driver_->Open(file_).status; }));
            return;
        case Action::kControl: {
            const std::uint32_t code = step.id == 0 ? IOCTL_ZEPN_NOTIFY_APPS_STATE : step.id;
            Show(step, kApplication, "sends an I/O control", Call(step, kApplication, "I/O control", {}, [&] {
                     return driver_->DeviceControl(file_, code).status;
                 }));
            return;
        }
        case Action::kClose:
            driver_->Close(file_);
            file_ = 0;
            Show(step, kApplication, "closes the control device", STATUS_SUCCESS);
            return;
        case Action::kTimeout:
            machine_.SetRegistryValue(kService, "SubsystemNotificationTimeout", step.argument);
            Show(step, kSystem, "sets the time to wait before sleep: " + std::to_string(step.argument) + " ms",
                 STATUS_SUCCESS);
            return;
        case Action::kSleep: {
            const std::size_t delaysBefore = machine_.Delays().size();
            const auto status = Call(step, kSystem, "power-state callback", {}, [&] {
                machine_.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0);
                return STATUS_SUCCESS;
            });
            std::int64_t waitedMs = 0;
            const std::vector<std::int64_t> delays = machine_.Delays();
            for (std::size_t index = delaysBefore; index < delays.size(); ++index) {
                waitedMs += -delays[index] / 10000;
            }
            Show(step, kSystem, "is about to sleep; held for " + std::to_string(waitedMs) + " ms", status);
            return;
        }
        case Action::kWake:
            machine_.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 1);
            Show(step, kSystem, "is awake again", STATUS_SUCCESS);
            return;
        case Action::kRefuseStop:
            Show(step, kSystem, "asks the device to stop", driver_->QueryStopDevice());
            return;
        case Action::kRefuseRemove:
            Show(step, kSystem, "asks to remove the device", driver_->QueryRemoveDevice());
            return;
        case Action::kSurpriseRemoval:
            timeline_.Begin({Stretch::Kind::kCall, kSystem, "surprise removal", ""});
            driver_->SurpriseRemoveDevice();
            timeline_.End(kSystem);
            Show(step, kSystem, "the device is pulled out", STATUS_SUCCESS);
            return;
        case Action::kRemove: {
            const host::Outcome outcome = driver_->RemoveDevice();
            ShowParked(outcome);
            Show(step, kSystem, "the device is removed", STATUS_SUCCESS);
            return;
        }
        case Action::kUnload:
            driver_->Unload();
            Show(step, kSystem, "unloads the driver", STATUS_SUCCESS);
            return;
        default:
            return;
        }
    }

    void Deliver(std::uint32_t runs)
    {
        const std::size_t queued = machine_.QueuedWorkItems();
        timeline_.Add({EntryKind::kCall, kSystem, kNotifier,
                       queued == 0 ? "nothing is queued" : "lets the queued work run", "", true});
        for (std::uint32_t run = 0; machine_.QueuedWorkItems() != 0 && (runs == 0 || run < runs); ++run) {
            const std::string routine = machine_.NextWorkItem();
            timeline_.Begin({Stretch::Kind::kWorkItem, routine, routine, ""});
            const host::PumpResult result = machine_.RunOneWorkItem();
            if (result.parked.empty()) {
                timeline_.End(routine);
            } else {
                ShowParked(result.parked.front());
            }
        }
    }

    void ShowParked(const host::Outcome& outcome)
    {
        if (outcome.parked) {
            stuck_ = true;
            Trouble("a thread stands still for ever: it " + outcome.reason);
        }
    }

    void ShowTrouble()
    {
        for (const auto& violation : machine_.violations().Take()) {
            violations_ += Trouble(violation.Text()) ? 0 : 1;
        }
    }

    // What the scenario left open is ended as the system would.
    void End()
    {
        if (driver_->HasDevice() && !stuck_) {
            if (file_ != 0) {
                driver_->Close(file_);
            }
            driver_->SurpriseRemoveDevice();
            ShowParked(driver_->RemoveDevice());
        }
        if (driver_->IsLoaded() && !driver_->HasDevice()) {
            driver_->Unload();
        }
        ShowTrouble();
        const Counts& counts = peers_.counts;
        const auto count = [](const char* what, unsigned number) {
            return std::string(what) + " " + std::to_string(number) + ", ";
        };
        timeline_.Close(count("clients", counts.registered) + count("states posted", counts.posted) +
                            count("deliveries", counts.delivered) + count("answers", counts.answered) +
                            count("commands", counts.commands) + count("announcements", counts.announced) +
                            count("dump calls", counts.dumpCalls) +
                            (stuck_             ? "a thread stands still, so the driver stays"
                             : violations_ == 0 ? "no violation, nothing left behind"
                                                : "violations " + std::to_string(violations_)),
                        good_);
    }

    const Scenario& scenario_;
    Timeline& timeline_;
    host::Machine machine_;
    Peers peers_;
    std::unique_ptr<Reports> reports_;
    host::Driver* driver_ = nullptr;
    ZEP_NOTIFIER_HELPER_INTERFACE helper_{};
    ZEP_NOTIFIER_WPCD_INTERFACE wpcd_{};
    host::FileId file_ = 0;
    unsigned violations_ = 0;
    bool stuck_ = false;  // a thread of the driver's never comes back
    std::optional<std::string> expectedTrouble_;
    bool troubleCame_ = false;
    bool good_ = true;
};

}  // namespace

bool Play(const Scenario& scenario, const PlayOptions& options, Timeline& timeline)
{
    return Player(scenario, options, timeline).Run();
}

}  // namespace play
