// The reference model: what a sequence must show, fault or no fault. Every operation is written out as its order of
// fallible platform calls, with what a failure of each returns, reports and leaves.
//
// It is written from the descriptions of the operations, not from the driver, and shares nothing with it. Objects are
// counted by reference, as the framework does; a collection and a parent each hold one.
//
// A step that fails ends its operation by throwing Ended. What the operation holds is released on the way, and what it
// made is deleted: the order of releases, deletions and reports among one another is not seen by any comparison.
#pragma once

#include "driver/include/zepn_notifier.h"
#include "tests/fault_injection/alive.h"
#include "tests/kit/contexts.h"

#include <memory>
#include <span>

namespace fault_injection {

using namespace layout;  // the names of the contexts

struct ModelObject;
using Ref = std::shared_ptr<ModelObject>;

struct ModelObject : ObjectRecord {
    ModelObject* parent = nullptr;
    std::vector<Ref> children = {};
    std::vector<Ref> items = {};  // of collections
    ULONG reserved = 0;           // of a state record
    ULONG traits = 0;
    bool hasEntries = false;
    std::weak_ptr<ModelObject> registrations = {};
};

// The forms of calls that make something: where the caller tests NT_SUCCESS, and where it takes exactly STATUS_SUCCESS.
inline constexpr FaultKind kMaking[] = {FaultKind::kError, FaultKind::kInforms};
inline constexpr FaultKind kExact[] = {FaultKind::kError, FaultKind::kRefuses};
// Of those that only go on or do not, and those that give something or nothing.
inline constexpr FaultKind kFailing[] = {FaultKind::kError};
inline constexpr FaultKind kGiving[] = {FaultKind::kNull};
using Forms = std::span<const FaultKind>;

// A state as it is posted.
struct StateRecord {
    ULONG number;
    ULONG size;
    ULONG state;
    ULONG reserved;
};

// How an operation or run ends before its last step, or with another status than STATUS_SUCCESS.
struct Ended {
    NTSTATUS status = STATUS_IO_DEVICE_ERROR;
};

class ReferenceModel {
public:
    // Adds each fallible call to `calls`, unless that is null.
    explicit ReferenceModel(std::optional<Fault> fault, std::vector<Call>* calls = nullptr)
        : fault_(std::move(fault)), calls_(calls)
    {
    }

    // As it is now, but with another fault, and adding to no calls.
    [[nodiscard]] ReferenceModel With(std::optional<Fault> fault) const;
    // How often a platform function has been called.
    [[nodiscard]] unsigned CallsOf(std::string_view function) const;
    // Of the image loaded again, without a fault: what leaked and what was deleted twice stays.
    [[nodiscard]] ReferenceModel Again() const;
    // Whether the operation is possible after those before it.
    [[nodiscard]] bool Allows(Kind kind) const;
    Step Run(const Operation& operation);
    [[nodiscard]] fault_injection::Alive Alive() const;

    [[nodiscard]] unsigned injected() const { return injected_; }

private:
    // A wait lock, released at the end of its block; a thread that hangs releases nothing.
    class Lock {
    public:
        // A refused lock ends the operation. The report names the lock, unless it has words of its own.
        Lock(ReferenceModel& model, const char* name, const std::string& in, const char* words = nullptr);
        // A refused lock is not noticed, and released all the same.
        Lock(ReferenceModel& model, const char* name) : model_(model), name_(name) { (void)model.Acquire(name); }
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

        void Release();
        void Keep() { isKept_ = true; }

    private:
        ReferenceModel& model_;
        const char* const name_;
        bool isKept_ = false;
    };

    // An object that is deleted at the end of its block, unless it is kept.
    class Owned {
    public:
        Owned(ReferenceModel& model, Ref object) : model_(model), object_(std::move(object)) {}
        ~Owned();
        Owned(const Owned&) = delete;
        Owned& operator=(const Owned&) = delete;

        [[nodiscard]] ModelObject* operator->() const { return object_.get(); }
        [[nodiscard]] const Ref& operator*() const { return object_; }
        void Keep() { isKept_ = true; }

    private:
        ReferenceModel& model_;
        const Ref object_;
        bool isKept_ = false;
    };

    // ---- Calls that can fail ----
    bool Injects(const char* function, std::string_view detail, Forms forms);
    NTSTATUS Status(const char* function, Forms forms = kFailing);
    bool Gives(const char* function, std::string_view detail = {});
    bool HasContext(std::string_view type) { return Gives("WdfObjectGetTypedContextWorker", type); }
    NTSTATUS Add(const Ref& collection, const Ref& object, Forms forms = kMaking);
    NTSTATUS Acquire(const char* lock);
    void Release(const char* lock);
    Ref Item(const Ref& collection, std::size_t index);
    Ref FirstItem(const Ref& collection);

    // ---- Reports ----
    // Event, function, words and values: "1 DriverEntry: WdfDriverCreate, 0xC000009A". Where the driver says the same
    // in two places, the number of the trace message distinguishes them: "12/160 ...". "- ...": a trace message alone.
    // `in` is the function: "DriverEntry: ".
    void Report(const std::string& line) { step_.reports.push_back(line); }
    void Report(const std::string& line, NTSTATUS status);

    // ---- Steps: a failure is reported and ends the operation ----
    [[noreturn]] void Fail(const std::string& line, NTSTATUS status);
    void Require(bool isGood, const std::string& line, NTSTATUS status);
    void FindDriver(const std::string& noDriver, const std::string& noContext, NTSTATUS status);
    void FindDriver(const std::string& in, const char* event = "2 ");
    void FindDriverOfRun(const std::string& in, const std::string& words = "");
    // A call of which the caller tests NT_SUCCESS; its status then.
    NTSTATUS Make(const char* function, const std::string& line, const std::string& detail = {});
    // An object of one of the context types, and its context.
    Ref Create(const char* type, const ObjectRecord& object, const Ref& parent, const std::string& noObject,
               const std::string& noContext);
    // Judged by exactly STATUS_SUCCESS where the forms are kExact.
    void Append(const Ref& collection, const Ref& object, const std::string& line, Forms forms = kMaking);
    // The item and its context; null when one of them is missing, which is reported.
    Ref At(const Ref& collection, std::size_t index, const std::string& noItem, const std::string& noContext);
    Ref ClientAt(std::size_t index, const std::string& in, const char* words = "Client context",
                 const char* event = "5 ");
    Ref SubscriptionAt(const Ref& registrations, std::size_t index, const std::string& in, const char* event = "5 ");
    Ref FindClient(ULONG number, const std::string& in, const char* words = "Client context");

    // ---- Objects ----
    Ref MakeObject(const ObjectRecord& object, const Ref& parent);
    void Delete(const Ref& object);
    void DeleteRemoved(const Ref& object);
    static void Remove(const Ref& collection, const Ref& object);
    void Enqueue(const std::string& item);

    // ---- Operations ----
    template <class Steps>
    static NTSTATUS StatusOf(const Steps& steps)
    {
        try {
            steps();
            return STATUS_SUCCESS;
        } catch (const Ended& ended) {
            return ended.status;
        }
    }
    void Do(const Operation& operation);
    void Load();
    void AddDevice();
    void FillDevice();
    void EndDevice();
    void Unload();
    Ref Lookup(ULONG number, bool takesLock);
    void Register(ULONG number, ULONG traits, bool callbacks);
    void AddClient(const Ref& client);
    void Deregister(ULONG number);
    void Withdraw(const ModelObject& client);
    bool DropRegistrations(const Ref& client, const std::string& in);
    [[nodiscard]] bool HasClients() const;
    void Cleanup();
    void Post(const StateRecord& record);
    NTSTATUS PostAnswer(const StateRecord& record, const std::string& line);
    void Subscribe(ULONG number, ULONG target, ULONG state);
    void Unsubscribe(ULONG number, ULONG target, ULONG state);
    void Send(ULONG sender, ULONG target, ULONG id);
    void QueueCommand(const Ref& client, ULONG target, ULONG id);
    void NotifyStates();
    void DeliverState(const ModelObject& state);
    void QueueFollowUp(const Ref& subscriber, ULONG state);
    void NotifyCommands();
    void DeliverCommand(const Ref& command, Lock& clients);
    void AddClients();
    void Announce(const Ref& client);
    void RemoveClient();
    void Attach(bool record);
    void Detach();
    void Count(bool pointer);
    void Describe(ULONG capacity, const std::string& null);
    void FillDescriptors(ULONG capacity, std::size_t& answer);
    void Dump(const Operation& operation);
    void FindDumpContext(bool record);
    void Broadcast();
    void Sleep();
    void LeaveWorkingState();
    void Control(ULONG code);
    void Open();
    void Close();
    void Deliver();

    std::optional<Fault> fault_;
    std::map<std::string, unsigned, std::less<>> counts_;
    std::vector<Call>* calls_;
    unsigned injected_ = 0;
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
