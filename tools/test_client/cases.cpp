#include "tools/test_client/cases.h"

#include <iterator>

namespace test_client {
namespace {

void StartsFirst(Run& run)
{
    run.StartClient();
    run.StartNotifier();
    run.ExpectRegistered();
    run.RemoveClient();
    run.RemoveNotifier();
}

void StartsLast(Run& run)
{
    run.StartNotifier();
    run.StartClient();
    run.ExpectRegistered();
    run.RemoveClient();
    run.RemoveNotifier();
}

void IsAlone(Run& run)
{
    run.StartClient();
    run.RemoveClient();
}

void Converses(Run& run)
{
    run.StartNotifier();
    run.StartClient();
    run.Converse();
    run.ExpectRegistered();
    run.Converse();
    run.RemoveClient();
    run.Converse();  // whatever is left of it would be called now
    run.RemoveNotifier();
}

void ConversesOften(Run& run)
{
    run.StartNotifier();
    run.StartClient();
    run.ExpectNoGrowth();
    run.RemoveClient();
    run.RemoveNotifier();
}

void MeetsARefusal(Run& run)
{
    run.StartNotifier();
    run.StartClient();
    run.RefuseNotifierRemoval();
    run.ExpectRegistered();
    run.Converse();
    run.RemoveClient();
    run.RemoveNotifier();
}

void OutlivesTheNotifier(Run& run)
{
    run.StartNotifier();
    run.StartClient();
    run.Converse();
    run.RemoveNotifier();
    run.RemoveClient();
}

void MeetsTheNextNotifier(Run& run)
{
    run.StartNotifier();
    run.StartClient();
    run.RemoveNotifier();
    run.StartNotifier();
    run.ExpectRegistered();
    run.Converse();
    run.RemoveClient();
    run.RemoveNotifier();
}

void Sleeps(Run& run)
{
    run.StartNotifier();
    run.StartClient();
    run.Sleep();
    run.ExpectRegistered();
    run.Converse();
    run.RemoveClient();
    run.Sleep();
    run.RemoveNotifier();
}

void SleepsAlone(Run& run)
{
    run.StartClient();
    run.Sleep();
    run.RemoveClient();
}

void IsPulledOut(Run& run)
{
    run.StartNotifier();
    run.StartClient();
    run.Converse();
    run.SurpriseRemoveClient();
    run.Converse();
    run.RemoveNotifier();
}

void ComesAgain(Run& run)
{
    run.StartNotifier();
    for (int turn = 0; turn < 2; ++turn) {
        run.StartClient();
        run.ExpectRegistered();
        run.RemoveClient();
    }
    run.RemoveNotifier();
}

// While an arrival or its own work is still queued.
void GoesAtOnce(Run& run)
{
    constexpr unsigned kWorkItems = 6;
    run.StartNotifier();
    for (unsigned workItems = 0; workItems < kWorkItems; ++workItems) {
        run.RemoveClientAtOnce(workItems);
    }
    run.RemoveNotifier();
    for (unsigned workItems = 0; workItems < kWorkItems; ++workItems) {
        run.StartNotifier();
        run.RemoveClientAfterMessages(workItems);
        run.RemoveNotifier();
    }
}

void FindsItsPlaceTaken(Run& run)
{
    run.StartNotifier();
    run.TakeIdentities();
    run.Allow(true);
    run.StartClient();
    run.RemoveClient();
    run.GiveIdentitiesBack();
    run.RemoveNotifier();
}

constexpr Case kCases[] = {
    {"starts before the Notifier", StartsFirst},
    {"starts after the Notifier", StartsLast},
    {"is never with a Notifier", IsAlone},
    {"takes states and commands", Converses},
    {"takes them again and again", ConversesOften},
    {"meets a removal that the Notifier refuses", MeetsARefusal},
    {"meets the Notifier's surprise removal, and is unloaded last", OutlivesTheNotifier},
    {"meets the Notifier's return", MeetsTheNextNotifier},
    {"goes to sleep with the system", Sleeps},
    {"goes to sleep without a Notifier", SleepsAlone},
    {"is removed by surprise, and unloaded first", IsPulledOut},
    {"is unloaded and loaded again", ComesAgain},
    {"is removed while work is queued", GoesAtOnce},
    {"finds its place taken", FindsItsPlaceTaken},
};

}  // namespace

std::span<const Case> AllCases()
{
    return kCases;
}

void RunWhole(Run& run)
{
    run.StartNotifier();
    run.StartClient();
    if (run.IsClientUp()) {
        run.Converse();
        run.RefuseNotifierRemoval();
        run.Sleep();
        run.RemoveNotifier();
        run.StartNotifier();
        run.Converse();
        run.RemoveClient();
    }
    run.RemoveNotifier();
}

void RunAgain(Run& run)
{
    run.Allow(false);
    StartsLast(run);
}

// Twice: whom it commands shows only once it was notified of its peers.
void Watch(Run& run, Seen& seen)
{
    run.StartNotifier();
    run.StartClient();
    seen.registeredCount = run.CountRegistered();
    run.Converse();
    run.Converse();
    run.RemoveClient();
    run.RemoveNotifier();
}

}  // namespace test_client
