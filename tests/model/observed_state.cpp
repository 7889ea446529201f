// The driver's internal state, through the host's inspector.
#include "tests/model/observed.h"

#include <cstring>

namespace model {

InternalState ObservedRun::State()
{
    const host::framework::Inspector inspector = harness_.machine.inspect();
    InternalState state;
    const auto context =
        inspector.Context<layout::DriverContext>(harness_.driver->Handle(), layout::kDriverContextName);
    const auto items = [&](WDFOBJECT collection) {
        const auto view = inspector.Find(collection);
        return view ? view->items : std::vector<WDFOBJECT>{};
    };
    for (const WDFOBJECT item : items(context->clients)) {
        const auto client = inspector.Context<layout::ClientContext>(item, layout::kClientContextName);
        const auto isItsGuid = [&](const GUID& guid) { return std::memcmp(&guid, &client->guid, sizeof(guid)) == 0; };
        unsigned who = 0;
        while (who < kClients && !isItsGuid(GuidOf(who))) {
            ++who;
        }
        state.AddClient(who, client->currentState, client->addedToWpcd != 0, client->wpcdRefreshPending != 0,
                        items(client->registrations).size());
    }
    state.states = items(context->states).size();
    state.commands = items(context->commands).size();
    state.toAnnounce = items(context->addQueue).size();
    state.toWithdraw = items(context->removeQueue).size();
    state.attached = context->wpcdClient != nullptr;
    for (const auto& object : inspector.WithContext(layout::kClientContextName)) {
        // An open handle of the control device carries such a context, too.
        state.clientObjects += object.type == host::framework::ObjectType::kGeneral ? 1 : 0;
    }
    state.subscriptionObjects = inspector.WithContext(layout::kRegistrationContextName).size();
    state.stateObjects = inspector.WithContext(layout::kStateContextName).size();
    state.commandObjects = inspector.WithContext(layout::kCommandContextName).size();
    for (const auto& use : harness_.machine.PoolInUse()) {
        state.entryBytes += use.sizeBytes;
    }
    return state;
}

}  // namespace model
