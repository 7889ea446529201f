// A scenario: the clients of a chip, scripted or real drivers, and the steps of a run. tools/play/reading reads it from
// a file.
#pragma once

#include "tools/peers/operation.h"
#include "tools/play/reading/located_json.h"

#include <ntddk.h>

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace play {

using peers::Kind;

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
    std::string callback;     // "state", "command", "appsState"; "add", "remove"
    Kind call = Kind::kNote;  // for the client itself
};

// State numbers by name, and names by number: of two names for a number the first in the file.
struct StateNames {
    std::map<std::string, std::uint32_t> numbers;
    std::map<std::uint32_t, std::string> names;
};

// A value below the Parameters key of a driver's service.
struct Parameter {
    std::string name;
    std::variant<std::uint32_t, std::string> value;
};

// A client whose driver is a real image. It registers and posts by itself; steps load, stop, pull and unload it.
struct DriverModel {
    std::string image;  // as in the file; tools/play/images.h finds it
    unsigned line = 0;  // of the image's name
    std::vector<Parameter> parameters;
};

struct ClientModel {
    std::string key;
    GUID guid{};
    bool hasGuid = false;  // a real driver's is needed only where a field names the client
    std::optional<DriverModel> driver;
    StateNames states;  // of its own; the file's hold beside them
    // Of scripted clients:
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

// A platform call that fails while a step lasts.
struct StepFault {
    std::string call;                // "WdfObjectCreate"
    std::string detail;              // only for this context type or routine; empty: any
    std::string driver;              // only when this real client, or the Notifier, calls; empty: whoever does
    std::optional<NTSTATUS> status;  // empty: it returns NULL
};

struct Step {
    Kind kind = Kind::kNote;
    unsigned line = 0;   // of the file
    std::string client;  // key; empty where the step has none
    std::string to;
    std::string text;                    // of a note
    std::optional<std::uint32_t> state;  // empty: any (subscriptions); not registered (kExpect)
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

// How a run begins: with the Notifier's device started, with its driver loaded, or without it.
enum class Beginning { kStarted, kLoaded, kAbsent };

struct Scenario {
    std::string file;
    std::string title;
    Beginning notifier = Beginning::kStarted;
    StateNames states;
    std::vector<ClientModel> clients;
    CrashDumpModel crashDump;
    std::vector<Step> steps;
};

// What a state of a client is called, by the names of its own and those of the file.
[[nodiscard]] std::string StateName(const Scenario& scenario, const ClientModel* client, std::uint32_t state);

// The mistakes that a file has, as "<file>:<line>: <field>: <what was expected>", one to a line.
class ScenarioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace play
