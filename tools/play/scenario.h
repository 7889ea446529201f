// A scenario: the clients of a chip with their scripted answers, and the steps of a run. tools/play/reading reads it
// from a file.
#pragma once

#include "tools/play/reading/located_json.h"

#include <ntddk.h>

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace play {

struct AnswerRule {
    std::string from;                    // client whose state is delivered
    std::optional<std::uint32_t> state;  // empty: any
    std::uint32_t answer = 0;
    bool once = false;
};

struct CommandRule {
    std::uint32_t id = 0;
    std::uint32_t answer = 0;
};

// A call that a client, or the crash-dump driver, makes from inside one of its callbacks: what nobody may do.
struct InsideCall {
    std::string callback;  // "state", "command", "appsState"; "add", "remove"
    std::string call;      // the step of the same name, for the client itself
};

struct ClientModel {
    std::string key;
    GUID guid{};
    std::string name;
    std::string description;
    std::uint32_t entryCount = 0;
    std::vector<AnswerRule> answers;
    bool takesCommands = false;
    std::vector<CommandRule> commands;
    bool wantsAppsState = false;
    std::optional<std::uint32_t> appsState;  // state wanted in answer
    std::vector<InsideCall> inside;
};

struct CrashDumpModel {
    std::map<std::string, NTSTATUS> answers;  // by callback: add, remove, start, addData, stop, query, triage
    std::vector<InsideCall> inside;
};

enum class Action {
    kNote,
    kRegister,
    kSubscribe,
    kUnsubscribe,
    kPost,
    kLeave,
    kDeliver,
    kCommand,
    kAttach,
    kDetach,
    kCount,
    kDescribe,
    kStartDump,
    kAddDumpData,
    kQueryDump,
    kAddTriageData,
    kStopDump,
    kOpen,
    kControl,
    kClose,
    kTimeout,
    kAddDevice,
    kSleep,
    kWake,
    kRefuseStop,
    kRefuseRemove,
    kSurpriseRemoval,
    kRemove,
    kUnload,
};

// A platform call that fails while a step lasts.
struct StepFault {
    std::string call;                // "WdfObjectCreate"
    std::string detail;              // only for this context type or routine; empty: any
    std::optional<NTSTATUS> status;  // empty: it returns NULL
};

struct Step {
    Action action = Action::kNote;
    Place place;
    std::string client;  // key; empty where the step has none
    std::string to;
    std::string text;                    // of a note
    std::optional<std::uint32_t> state;  // empty: any (subscriptions)
    std::uint32_t id = 0;
    std::uint32_t argument = 0;
    std::uint32_t capacity = 0;
    bool hasCapacity = false;
    std::uint32_t runs = 0;  // of queued work items; 0: until none is queued
    std::optional<NTSTATUS> expect;
    std::string null;  // the argument that is passed as NULL; empty: none
    std::optional<StepFault> fail;
    bool raised = false;                 // the call is made at DISPATCH_LEVEL
    std::optional<std::string> finding;  // part of the text of the finding that the step must end in
    std::vector<std::string> shows;      // parts of what the step must show, in this order
};

struct Scenario {
    std::string file;
    std::string title;
    bool bootsDevice = true;  // else the run begins with the loaded driver, and a step adds the device
    std::map<std::string, std::uint32_t> states;
    std::map<std::uint32_t, std::string> stateNames;  // of two names for a number the first in the file
    std::vector<ClientModel> clients;
    CrashDumpModel crashDump;
    std::vector<Step> steps;

    [[nodiscard]] std::string StateName(std::uint32_t state) const;
};

// The mistakes that a file has, as "<file>:<line>:<column>: <field>: <what was expected>", one to a line.
class ScenarioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace play
