// The driver's inner state by count, through the host's inspector.
#include "tests/model/driver_harness.h"

#include "tests/kit/contexts.h"

namespace model {

InternalState DriverHarness::Count()
{
    const host::framework::Inspector inspector = machine_.inspect();
    InternalState inner;
    const auto context = inspector.Context<layout::DriverContext>(driver_->Handle(), layout::kDriverContextName);
    const auto items = [&](WDFOBJECT collection) {
        const auto view = inspector.Find(collection);
        return view ? view->items : std::vector<WDFOBJECT>{};
    };
    for (const WDFOBJECT item : items(context->clients)) {
        const auto client = inspector.Context<layout::ClientContext>(item, layout::kClientContextName);
        InternalState::Client seen;
        for (seen.who = 0; seen.who < kClients && NameOf(client->guid) != ClientName(seen.who);) {
            ++seen.who;
        }
        seen.state = client->currentState;
        seen.announced = client->addedToWpcd != 0;
        seen.refreshPending = client->wpcdRefreshPending != 0;
        seen.subscriptions = items(client->registrations).size();
        inner.clients.push_back(seen);
    }
    inner.states = items(context->states).size();
    inner.commands = items(context->commands).size();
    inner.toAnnounce = items(context->addQueue).size();
    inner.toWithdraw = items(context->removeQueue).size();
    inner.attached = context->wpcdClient != nullptr;
    for (const auto& object : inspector.WithContext(layout::kClientContextName)) {
        // An open handle of the control device carries such a context, too.
        inner.clientObjects += object.type == host::framework::ObjectType::kGeneral ? 1 : 0;
    }
    inner.subscriptionObjects = inspector.WithContext(layout::kRegistrationContextName).size();
    inner.stateObjects = inspector.WithContext(layout::kStateContextName).size();
    inner.commandObjects = inspector.WithContext(layout::kCommandContextName).size();
    for (const auto& use : machine_.PoolInUse()) {
        inner.entryBytes += use.sizeBytes;
    }
    return inner;
}

}  // namespace model
