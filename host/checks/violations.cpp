#include "host/checks/violations.h"

#include "host/checks/source_lines.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <utility>

namespace host::checks {

std::string_view Name(Rule rule)
{
    switch (rule) {
    case Rule::kNullHandle:
        return "null handle";
    case Rule::kWrongHandleType:
        return "wrong handle type";
    case Rule::kDeadHandle:
        return "dead handle";
    case Rule::kForeignHandle:
        return "foreign handle";
    case Rule::kRequiredParameter:
        return "required parameter";
    case Rule::kBadParameter:
        return "bad parameter";
    case Rule::kDeleteNotAllowed:
        return "delete not allowed";
    case Rule::kReferenceUnderflow:
        return "reference underflow";
    case Rule::kCollectionItem:
        return "collection item";
    case Rule::kLockNotOwned:
        return "lock not owned";
    case Rule::kLockKept:
        return "lock kept";
    case Rule::kLockOrder:
        return "lock order";
    case Rule::kSelfWait:
        return "self-wait";
    case Rule::kDeadlock:
        return "deadlock";
    case Rule::kIrql:
        return "IRQL";
    case Rule::kRequestCompletedTwice:
        return "request completed twice";
    case Rule::kRequestNotCompleted:
        return "request not completed";
    case Rule::kRequestInformation:
        return "request information";
    case Rule::kWorkItemGone:
        return "work item gone";
    case Rule::kPoolCorrupted:
        return "pool corrupted";
    case Rule::kPoolBadFree:
        return "bad pool free";
    case Rule::kPoolWrongTag:
        return "wrong pool tag";
    case Rule::kLeak:
        return "leak";
    case Rule::kReferenceLeak:
        return "reference leak";
    case Rule::kTraceHandle:
        return "trace handle";
    case Rule::kTraceArguments:
        return "trace arguments";
    case Rule::kCallbackObject:
        return "callback object";
    case Rule::kUnloadRegistration:
        return "registration at unload";
    case Rule::kMemoryFault:
        return "memory fault";
    case Rule::kNotProvided:
        return "not provided";
    case Rule::kBugCheck:
        return "bugcheck";
    }
    return "?";
}

std::string Violation::Text() const
{
    std::string text(Name(rule));
    if (function == kAtUnload) {
        return text + (text.ends_with(kAtUnload) ? "" : std::string(" at ") + kAtUnload) + ": " + message;
    }
    return text + ": " + function + (isOfCallback ? " " : " called from ") + caller + " on " + thread + ": " + message;
}

std::string Violation::PathText() const
{
    std::string text = path.empty() ? "" : "by " + checks::PathText(path);
    if (!waitsFor.empty()) {
        text += (text.empty() ? "waits for " : " \u2192 ") + waitsFor;
        text += heldSince ? " since " + checks::PathText({*heldSince}) : "";
    }
    for (const Origin& origin : origins) {
        text += (text.empty() ? "" : "\n") + origin.how + " by " + checks::PathText(origin.path);
    }
    return text;
}

std::string Violation::FullText() const
{
    std::string paths;
    std::istringstream lines(PathText());
    for (std::string line; std::getline(lines, line);) {
        paths += "\n  " + line;
    }
    std::map<std::string_view, unsigned> counts;
    for (const Rule consequence : followedBy) {
        ++counts[Name(consequence)];
    }
    std::string consequences;
    for (const auto& [name, count] : counts) {
        consequences +=
            (consequences.empty() ? "\n  which led to " : ", ") + std::to_string(count) + " x " + std::string(name);
    }
    return Text() + paths + consequences;
}

void Violations::Add(Violation violation)
{
    const std::lock_guard lock(mutex_);
    list_.push_back(std::move(violation));
}

void Violations::AddConsequence(Violation violation)
{
    constexpr std::string_view kRemark = "; the thread that hangs may need it";
    const auto isRoot = [&](const Violation& known) {
        return known.rule == Rule::kSelfWait || known.rule == Rule::kDeadlock || known.rule == Rule::kBugCheck ||
               known.rule == Rule::kNotProvided || known.message.ends_with(kRemark);
    };
    const std::lock_guard lock(mutex_);
    if (const auto root = std::ranges::find_if(list_, isRoot); root != list_.end()) {
        root->followedBy.push_back(violation.rule);
    } else {
        violation.message += kRemark;
        list_.push_back(std::move(violation));
    }
}

std::vector<Violation> Violations::All() const
{
    const std::lock_guard lock(mutex_);
    return list_;
}

std::vector<Violation> Violations::Take()
{
    const std::lock_guard lock(mutex_);
    return std::exchange(list_, {});
}

std::vector<Violation> Violations::Take(Rule rule)
{
    const std::lock_guard lock(mutex_);
    std::vector<Violation> taken;
    std::erase_if(list_, [&](const Violation& violation) {
        if (violation.rule == rule) {
            taken.push_back(violation);
        }
        return violation.rule == rule;
    });
    return taken;
}

std::size_t Violations::Count() const
{
    const std::lock_guard lock(mutex_);
    return list_.size();
}

}  // namespace host::checks
