// The steps of the crash-dump driver: its own interface's operations.
#include "tools/play/steps.h"

namespace play {
namespace {

void Describe(Run& run, const Step& step)
{
    // Room for all clients is made without asking the driver, whose answer would be a call of its own.
    const std::size_t room = step.hasCapacity ? step.capacity : run.scenario.clients.size();
    ULONG count = static_cast<ULONG>(room);
    std::vector<ZEP_SUBSYSTEM_DESCRIPTOR> descriptors(room + 1);
    const auto status = run.Call(step, kCrashDump, "Notifier_WpcdGetAllSubsystemDescriptors", {}, [&] {
        return run.wpcd.Notifier_WpcdGetAllSubsystemDescriptors(
            step.null == "descriptors" ? nullptr : descriptors.data(), step.null == "count" ? nullptr : &count);
    });
    for (ULONG index = 0; status && NT_SUCCESS(*status) && index < count; ++index) {
        run.timeline.Add({EntryKind::kCallback, kNotifier, kCrashDump,
                          "describes " + run.peers.NameOf(descriptors[index].InterfaceGUID) + ", \"" +
                              descriptors[index].SubsystemName + "\"",
                          "", true});
    }
    run.Show(step, kCrashDump, "asks for the descriptors of all " + std::to_string(count) + " clients", status);
}

}  // namespace

void DoCrashDumpStep(Run& run, const Step& step)
{
    switch (step.kind) {
    case Kind::kAttach:
        run.Show(step, kCrashDump, "attaches", run.Call(step, kCrashDump, "Notifier_WpcdClientInit", {}, [&] {
            return run.wpcd.Notifier_WpcdClientInit(step.null.empty() ? &run.peers.crashDump.registration() : nullptr);
        }));
        return;
    case Kind::kDetach:
        run.Show(step, kCrashDump, "detaches", run.Call(step, kCrashDump, "Notifier_WpcdClientDeInit", {}, [&] {
            return run.wpcd.Notifier_WpcdClientDeInit();
        }));
        return;
    case Kind::kCount: {
        ULONG count = 0;
        const auto status = run.Call(step, kCrashDump, "Notifier_WpcdGetNumSubsystemDescriptors", {}, [&] {
            return run.wpcd.Notifier_WpcdGetNumSubsystemDescriptors(step.null.empty() ? &count : nullptr);
        });
        run.Show(step, kCrashDump, "counts the clients: " + std::to_string(count), status);
        return;
    }
    case Kind::kDescribe:
        Describe(run, step);
        return;
    default:
        return;
    }
}

}  // namespace play
