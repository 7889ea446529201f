#include "tools/test_client/faults.h"

#include "tools/play/statuses.h"
#include "tools/test_client/cases.h"
#include "tools/test_client/possible_faults.h"

#include "host/checks/crash.h"

#include <functional>
#include <map>
#include <sstream>

namespace test_client {
namespace {

using host::checks::FaultForm;
using play::StatusText;

// One call that can fail, as a line: function, the driver's function that makes it, or "-", what it concerns, or "-".
struct RecordedCall {
    std::string function;
    std::string caller;
    std::string detail;
};

std::string OrDash(const std::string& text)
{
    return text.empty() ? "-" : text;
}

std::string NameOf(const RecordedCall& call, unsigned number, const std::string& failure)
{
    std::string name = call.function;
    if (call.detail != "-") {
        name += " (" + call.detail + ")";
    }
    name += ", call " + std::to_string(number + 1);
    if (call.caller != "-") {
        name += ", by " + call.caller;
    }
    return name + ": " + failure;
}

}  // namespace

std::string RecordFaults(const CourseSetup& setup, Seen& seen, std::vector<Finding>& findings)
{
    Run run(setup, seen);
    const host::checks::Modules& modules = run.machine.environment().modules;
    std::string lines;
    run.machine.environment().SetObserver([&](const host::ObservedCall& call) {
        if (modules.NameAt(call.caller) == setup.ClientName() && !FaultsOf(call.function, call.detail).empty()) {
            lines += std::string(call.function) + " " + OrDash(modules.FunctionAt(call.caller)) + " " +
                     OrDash(call.detail) + "\n";
        }
    });
    findings = FindingsOf(run, RunWhole);
    run.machine.environment().SetObserver({});
    for (std::size_t number = 0; number < run.calls.made().size(); ++number) {
        const Operation& operation = *run.calls.made()[number];
        if (operation.failure != STATUS_SUCCESS) {
            lines += std::string(operation.name) + " #" + std::to_string(number) + " " + StatusText(operation.failure) +
                     "\n";
        }
    }
    return lines;
}

std::vector<Fault> ReadFaults(const CourseSetup& setup, const std::string& lines)
{
    std::vector<Fault> faults;
    std::map<std::string, unsigned> counts;
    std::istringstream input(lines);
    for (std::string line; std::getline(input, line);) {
        RecordedCall call;
        std::istringstream(line) >> call.function >> call.caller >> call.detail;
        const unsigned number = counts[call.function]++;
        if (call.caller.starts_with('#')) {
            faults.push_back({.name = call.function + ", call " + std::to_string(number + 1) + ": " + call.detail,
                              .notifierCall = std::stoul(call.caller.substr(1))});
            continue;
        }
        for (const PossibleFault& possible : FaultsOf(call.function, call.detail)) {
            const bool givesNothing = possible.form == FaultForm::kNull;
            faults.push_back({.name = NameOf(call, number, givesNothing ? "NULL" : StatusText(possible.status)),
                              .platform = {.function = call.function,
                                           .module = setup.ClientName(),
                                           .detail = std::string(possible.detail),
                                           .skip = number,
                                           .form = possible.form,
                                           .status = possible.status}});
        }
    }
    return faults;
}

std::vector<Finding> RunFault(const CourseSetup& setup, Seen& seen, const Fault& fault)
{
    Run run(setup, seen);
    if (fault.IsOfNotifier()) {
        run.calls.Fail(fault.notifierCall);
    } else {
        run.machine.faults().Add(fault.platform);
    }
    run.Allow(true);
    return FindingsOf(run, [&](Run& inner) {
        RunWhole(inner);
        const bool isInjected =
            fault.IsOfNotifier() ? inner.calls.HasFailed() : inner.machine.faults().InjectedCount() != 0;
        if (!isInjected) {
            inner.AddFinding("the fault was never reached: the client's calls differ from run to run");
            return;
        }
        inner.machine.faults().Clear();
        RunAgain(inner);
    });
}

std::vector<Finding> FindingsOf(Run& run, const std::function<void(Run&)>& work)
{
    const host::checks::CrashContext context([&run] { return "while " + run.during(); });
    try {
        work(run);
    } catch (const Stopped&) {
    } catch (const host::HostError& error) {
        run.AddFinding(error.what());
    }
    return run.findings();
}

}  // namespace test_client
