// What a driver verifier would say: each broken rule becomes a value that names the rule, the function called, the
// subject, and where in which image the call stood.
#pragma once

#include "host/checks/modules.h"

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host::checks {

enum class Rule {
    kNullHandle,             // framework bugcheck 0x10D (5)
    kWrongHandleType,        // framework bugcheck 0x10D (5)
    kDeadHandle,             // use after the last reference: memory corruption on the real system
    kForeignHandle,          // a value that no framework call ever handed out
    kRequiredParameter,      // framework bugcheck 0x10D (4)
    kBadParameter,           // wrong size or impossible value that no status answers, or that goes unchecked
    kDeleteNotAllowed,       // delete of a driver, device, default queue, file object or queued request
    kReferenceUnderflow,     // framework bugcheck 0x10D (7)
    kCollectionItem,         // removal of an item or index that is not there
    kLockNotOwned,           // release by a stranger, or twice
    kLockKept,               // a callback returned with a wait lock held
    kLockOrder,              // locks taken against the declared order
    kSelfWait,               // a thread waits for what it holds itself, and is parked; or flushes its own work item
    kDeadlock,               // a thread waits for a lock whose holder can never give it back; it is parked
    kIrql,                   // called above the level that the function allows
    kRequestCompletedTwice,  //
    kRequestNotCompleted,    // the removal would hang
    kRequestInformation,     // more information bytes than the output buffer holds
    kWorkItemGone,           // enqueue of a work item that is being deleted: dropped
    kPoolCorrupted,          // bytes around an allocation were overwritten
    kPoolBadFree,            // null, foreign or already freed address
    kPoolWrongTag,           // freed with another tag than it was allocated with
    kLeak,                   // still alive at unload
    kReferenceLeak,          // references left on an object at its end
    kTraceHandle,            // unknown or unregistered trace handle
    kTraceArguments,         // descriptors or lengths that the tracing runtime would choke on
    kCallbackObject,         // power-callback object misuse
    kUnloadRegistration,     // a callback pointer into the image is still registered at unload
    kMemoryFault,            // the image touched memory that it must not
    kNotProvided,            // a platform function that this host does not have
    kBugCheck,               // the driver itself asked for a bugcheck
};
inline constexpr int kRuleCount = static_cast<int>(Rule::kBugCheck) + 1;  // the last stays the last

[[nodiscard]] std::string_view Name(Rule rule);

// An earlier call that a finding goes back to.
struct Origin {
    std::string how;              // "allocated", "registered", "acquired"
    std::vector<CodePlace> path;  // outermost function first
};

// In place of a function: what is left when a driver is unloaded.
inline constexpr const char* kAtUnload = "unload";

struct Violation {
    Rule rule;
    std::string function;  // platform function or callback, or kAtUnload
    std::string message;   // one sentence: subject and what was wrong
    std::string caller;    // "zepn.sys!NotifierEvtDeviceAdd+0x1f4", or "host"
    std::string thread;    // name of the thread it happened on

    // How the thread came to the caller, outermost function first; empty for what is left.
    std::vector<CodePlace> path = {};
    bool isOfCallback = false;  // the caller is the callback itself, which broke the rule by how it returned
    std::vector<Origin> origins = {};
    // Of a wait without an end: for what, and where its holder took it.
    std::string waitsFor = {};
    std::optional<CodePlace> heldSince = {};
    // What only followed from it.
    std::vector<Rule> followedBy = {};

    // One line: rule, function, caller, thread and message; of what is left only rule and message.
    [[nodiscard]] std::string Text() const;
    // "by" the path with source lines (source_lines.h) and the wait, then a line for each origin; empty when no driver
    // code is on any. Reads the images' debug information, so it takes a moment at first.
    [[nodiscard]] std::string PathText() const;
    // For people: the text, and below it the paths and what followed.
    [[nodiscard]] std::string FullText() const;
};

// Collects violations from any thread.
class Violations {
public:
    void Add(Violation violation);

    // One that follows from a hang: it is counted with the violation that the hang was reported by, or where that has
    // been taken, with the first consequence.
    void AddConsequence(Violation violation);

    // All violations so far, oldest first; Take also empties the list.
    [[nodiscard]] std::vector<Violation> All() const;
    [[nodiscard]] std::vector<Violation> Take();

    // Takes out every violation of one rule: a test that provokes a known oddity says so by name.
    std::vector<Violation> Take(Rule rule);

    [[nodiscard]] std::size_t Count() const;

private:
    mutable std::mutex mutex_;
    std::vector<Violation> list_;
};

}  // namespace host::checks
