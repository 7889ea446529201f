// The reference model: what a sequence must show, fault or no fault. Every operation is written out as its order of
// fallible platform calls, with what a failure of each returns, reports and leaves.
//
// It is written from the descriptions of the operations, not from the driver, and shares nothing with it. Objects are
// counted by reference, as the framework does; a collection and a parent each hold one.
#pragma once

#include "driver/include/zepn_notifier.h"
#include "tests/fault_injection/sequence.h"

#include <map>
#include <memory>
#include <set>

namespace fault_injection {

struct ModelObject;
using Ref = std::shared_ptr<ModelObject>;

struct ModelObject {
    std::string kind;  // "client", "state", "collection" ...
    bool deleted = false;
    ModelObject* parent = nullptr;
    std::vector<Ref> children;
    std::vector<Ref> items;  // of collections

    ULONG number = 0;  // client, poster, sender, subscriber
    ULONG other = 0;   // target
    ULONG value = 0;   // current state, posted state, awaited state, command id
    ULONG size = 0;    // of a state record
    ULONG reserved = 0;
    ULONG added = 0;
    ULONG refresh = 0;
    ULONG traits = 0;
    bool hasEntries = false;
    std::weak_ptr<ModelObject> registrations;
};

// The forms of calls that make something: where the caller tests NT_SUCCESS, and where it takes exactly STATUS_SUCCESS.
inline const std::vector<FaultKind> kMaking = {FaultKind::kError, FaultKind::kInforms};
inline const std::vector<FaultKind> kExact = {FaultKind::kError, FaultKind::kRefuses};

inline constexpr const char* kClient = "ZEP_NOTIFIER_CLIENT_CONTEXT";
inline constexpr const char* kRegistration = "ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT";
inline constexpr const char* kState = "ZEP_NOTIFIER_STATE_CONTEXT";
inline constexpr const char* kCommand = "ZEP_NOTIFIER_COMMAND_CONTEXT";
inline constexpr const char* kWpcd = "ZEP_NOTIFIER_WPCD_CLIENT_CONTEXT";
inline constexpr const char* kClientsLock = "WdfWaitLockAcquire for wdfWaitLockClientsCollection";

// A state as it is posted.
struct StateRecord {
    ULONG number;
    ULONG size;
    ULONG state;
    ULONG reserved;
};

// What the crash-dump driver gets to see of a client.
[[nodiscard]] std::string DescriptorOf(const ModelObject& client);

inline std::string Named(const Ref& client)
{
    return "<client " + std::to_string(client->number) + ">";
}

class ReferenceModel {
public:
    explicit ReferenceModel(std::optional<Fault> fault) : fault_(std::move(fault)) {}

    // Of the image loaded again, without a fault: what leaked and what was deleted twice stays.
    [[nodiscard]] ReferenceModel Again() const;
    // Whether the operation is possible after those before it.
    [[nodiscard]] bool Allows(Kind kind) const;
    Step Run(const Operation& operation);
    [[nodiscard]] Lines Alive() const;

    // All fallible calls so far, in order; of a sequence without a fault.
    [[nodiscard]] const std::vector<Call>& calls() const { return calls_; }
    [[nodiscard]] unsigned struck() const { return struck_; }

private:
    // ---- Calls that can fail ----
    bool Strikes(const char* function, const std::string& detail, std::vector<FaultKind> forms);
    NTSTATUS Status(const char* function, std::vector<FaultKind> forms = {FaultKind::kError});
    bool Gives(const char* function, const std::string& detail = {});
    bool HasContext(const std::string& type) { return Gives("WdfObjectGetTypedContextWorker", type); }
    NTSTATUS Create(const std::string& type);
    NTSTATUS Add(const Ref& collection, const Ref& object, std::vector<FaultKind> forms = kMaking);
    NTSTATUS Acquire(const char* lock);
    void Release(const char* lock);
    Ref Item(const Ref& collection, std::size_t index);
    Ref FirstItem(const Ref& collection);

    // ---- Objects ----
    Ref Make(const std::string& kind, const Ref& parent);
    void Delete(const Ref& object);
    void DeleteRemoved(const Ref& object);
    static void Remove(const Ref& collection, const Ref& object);
    void Enqueue(const std::string& item);

    // ---- Reports ----
    // Event, function, words and values: "1 DriverEntry: WdfDriverCreate, 0xC000009A". Where the driver says the same in
    // two places, the number of the trace message distinguishes them: "12/160 ...". "- ...": a trace message alone.
    void Report(const std::string& line) { step_.reports.push_back(line); }
    NTSTATUS Fails(const std::string& line, NTSTATUS status);

    // ---- Operations ----
    std::optional<NTSTATUS> Do(const Operation& operation);
    NTSTATUS Load();
    NTSTATUS AddDevice();
    NTSTATUS FillDevice();
    void EndDevice();
    void Unload();
    bool Driver(const std::string& noDriver, const std::string& noContext);
    Ref Lookup(ULONG client, bool lock);
    NTSTATUS Register(ULONG number, ULONG traits, bool callbacks);
    void DiscardClient(const Ref& client, bool freeEntries);
    NTSTATUS Deregister(ULONG number);
    NTSTATUS Withdraw(const Ref& client);
    [[nodiscard]] bool HasClients() const;
    void Cleanup();
    NTSTATUS Post(const StateRecord& record);
    NTSTATUS Subscribe(ULONG number, ULONG target, ULONG state);
    NTSTATUS Unsubscribe(ULONG number, ULONG target, ULONG state);
    NTSTATUS Send(ULONG sender, ULONG target, ULONG id);
    void QueueCommand(const Ref& client, ULONG target, ULONG id);
    void NotifyStates();
    bool DeliverState(const ModelObject& state);
    bool QueueFollowUp(const Ref& subscriber, ULONG state);
    void NotifyCommands();
    bool DeliverCommand(Ref& sender, Ref& target, bool& clientsHeld);
    void AddClients();
    void AnnounceQueued();
    void RemoveClient();
    NTSTATUS Attach(bool record);
    NTSTATUS Detach();
    NTSTATUS Count(bool pointer);
    NTSTATUS Describe(ULONG capacity, std::string_view null);
    NTSTATUS Dump(const Operation& operation);
    NTSTATUS DumpContext(bool record);
    NTSTATUS Broadcast();
    void Sleep();
    void LeaveWorkingState();
    NTSTATUS Control(ULONG code);
    NTSTATUS Open();
    void Close();
    void Deliver();

    std::optional<Fault> fault_;
    std::map<std::string, unsigned, std::less<>> counts_;
    std::vector<Call> calls_;
    unsigned struck_ = 0;
    Step step_;

    std::vector<std::weak_ptr<ModelObject>> objects_;
    Ref driver_;
    Ref addQueue_, removeQueue_, clients_, states_, commands_, wpcd_;
    std::map<std::string, int> others_;  // devices, queues, work items, locks, file objects
    std::set<std::string> locks_;        // created
    std::set<std::string> held_;
    Lines queue_;
    std::set<std::string> fields_;  // of the driver context, filled by device add
    unsigned poolBlocks_ = 0;
    unsigned leakedBlocks_ = 0;  // of sequences before
    unsigned secondDeletes_ = 0;
    bool loaded_ = false;
    bool device_ = false;
    bool started_ = false;
    bool powerCallback_ = false;  // the driver context names a registration
    bool powerObject_ = false;    // ... a callback object
    unsigned powerRegistrations_ = 0;
    unsigned powerOpens_ = 0;
    unsigned references_ = 0;  // on the driver object, by device add
    bool file_ = false;
};

}  // namespace fault_injection
