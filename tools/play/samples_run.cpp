#include "tools/play/samples_run.h"

#include "host/machine.h"
#include "tools/play/statuses.h"

namespace play {
namespace {

class SamplesRun {
public:
    SamplesRun(const std::filesystem::path& notifier, Timeline& timeline) : image_(notifier), timeline_(timeline)
    {
        machine_.environment().onDebugPrint = [this](const std::string& line, const void* caller) {
            Print(machine_.ServiceAt(caller), line.substr(0, line.find('\n')));
        };
        // The same image is a client twice, with an identity of its own each time.
        machine_.SetRegistryValue("client_1", "ClientNumber", 1);
        machine_.SetRegistryValue("client_1", "WatchedNumber", 2);
        machine_.SetRegistryValue("client_1", "Supervises", 1);
        machine_.SetRegistryValue("client_2", "ClientNumber", 2);
        machine_.SetRegistryValue("client_2", "WatchedNumber", 1);
    }

    bool Run()
    {
        Note("A client comes before the Notifier: nothing to join yet");
        host::Driver& client1 = Boot("client_1", "zepn_client");

        Note("The Notifier comes: its interfaces arrive, and the client joins");
        host::Driver* notifier = &BootNotifier();

        Note("The crash-dump driver comes, and asks who is there");
        host::Driver& crashDump = Boot("crashdump", "zepn_crashdump");

        Note("Another client comes late; client 1 sees it come up and asks it for a dump");
        host::Driver& client2 = Boot("client_2", "zepn_client");

        Note("The system is about to sleep");
        Step(kSystem, "everybody", "leaves its working state", STATUS_SUCCESS);
        machine_.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0);
        Settle();
        machine_.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 1);

        Note("Asked to go, the Notifier refuses: everybody has let go of it, and comes back");
        const NTSTATUS query = notifier->QueryRemoveDevice();
        Step(kSystem, kNotifier, "asks to remove the device", query, query == STATUS_INVALID_DEVICE_STATE);
        Settle();

        Note("The Notifier goes without being asked");
        EndNotifier(*notifier);

        Note("It comes again");
        notifier = &BootNotifier();

        Note("Everybody goes");
        End(client2, "client_2");
        End(client1, "client_1");
        End(crashDump, "crashdump");
        EndNotifier(*notifier);
        timeline_.Close(good_ ? "no violation, nothing left behind" : "something went wrong", good_);
        return good_;
    }

private:
    void Note(const std::string& text)
    {
        timeline_.Add({EntryKind::kHeading, "", "", text, "", true});
        timeline_.BeginStep(++steps_);
    }

    // A driver's line begins with its name, which stands in the timeline already.
    void Print(const std::string& service, const std::string& line)
    {
        const std::size_t prefix = line.find(": ");
        timeline_.Add(
            {EntryKind::kReport, service, "", prefix == std::string::npos ? line : line.substr(prefix + 2), "", true});
    }

    void Step(const std::string& who, const std::string& whom, const std::string& what, NTSTATUS status)
    {
        Step(who, whom, what, status, NT_SUCCESS(status));
    }

    void Step(const std::string& who, const std::string& whom, const std::string& what, NTSTATUS status, bool good)
    {
        timeline_.Add({EntryKind::kCall, who, whom, what, StatusText(status), good});
        good_ = good_ && good;
    }

    host::Driver& Boot(const std::string& service, const std::string& sample)
    {
        const std::filesystem::path image = SampleImage(image_, sample);
        Step(kSystem, service, "loads " + image.filename().string() + " and starts its device", STATUS_SUCCESS);
        host::Driver& driver = machine_.Boot(image, service);
        Settle();
        return driver;
    }

    host::Driver& BootNotifier()
    {
        Step(kSystem, kNotifier, "loads " + image_.filename().string() + " and starts its device", STATUS_SUCCESS);
        host::Driver& driver = machine_.Boot(image_, "zepn");
        Settle();
        return driver;
    }

    void EndNotifier(host::Driver& driver)
    {
        Step(kSystem, kNotifier, "pulls the device out", STATUS_SUCCESS);
        driver.SurpriseRemoveDevice();
        Remove(driver);
    }

    void End(host::Driver& driver, const std::string& service)
    {
        const NTSTATUS status = driver.QueryRemoveDevice();
        Step(kSystem, service, "removes the device and unloads the driver", status);
        Remove(driver);
    }

    void Remove(host::Driver& driver)
    {
        Settle();
        Park(driver.RemoveDevice());
        driver.Unload();
        Settle();
    }

    void Park(const host::Outcome& outcome)
    {
        if (outcome.parked) {
            timeline_.Add({EntryKind::kFinding, "", "", "hang: the thread " + outcome.reason, "", false});
            good_ = false;
        }
    }

    // Lets the system's threads run until nothing is queued, and shows what went wrong meanwhile.
    void Settle()
    {
        for (const host::Outcome& outcome : machine_.RunWorkItems().parked) {
            Park(outcome);
        }
        for (const auto& violation : machine_.violations().Take()) {
            timeline_.Add({EntryKind::kFinding, "", "", violation.Text(), "", false});
            good_ = false;
        }
    }

    const std::filesystem::path image_;
    Timeline& timeline_;
    host::Machine machine_;
    unsigned steps_ = 0;
    bool good_ = true;
};

}  // namespace

std::filesystem::path SampleImage(const std::filesystem::path& notifier, const std::string& sample)
{
    return notifier.parent_path() / (sample + notifier.extension().string());
}

bool PlaySamples(const std::filesystem::path& notifier, Timeline& timeline)
{
    return SamplesRun(notifier, timeline).Run();
}

}  // namespace play
