// What exists, as the host sees it, in the words of the reference model.
#include "tests/fault_injection/observed.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>

namespace fault_injection {

using host::framework::ObjectSnapshot;
using host::framework::ObjectType;

namespace {

// An object's context of this type; none when it has no such.
template <class T>
std::optional<T> ContextOf(const ObjectSnapshot& view, const char* typeName)
{
    for (const auto& context : view.contexts) {
        if (context.typeName == typeName && context.bytes.size() == sizeof(T)) {
            T copy;
            std::memcpy(&copy, context.bytes.data(), sizeof(T));
            return copy;
        }
    }
    return std::nullopt;
}

}  // namespace

std::string ObservedRun::NameOf(std::uint64_t handle)
{
    const auto pointer = reinterpret_cast<WDFOBJECT>(handle);
    if (pointer == harness_.driver->Handle()) {
        return "<driver>";
    }
    const auto context =
        machine().inspect().Context<layout::DriverContext>(harness_.driver->Handle(), layout::kDriverContextName);
    if (context) {
        const std::pair<WDFOBJECT, const char*> kNames[] = {{context->clients, "<clients>"},
                                                            {context->states, "<states>"},
                                                            {context->commands, "<commands>"},
                                                            {context->addQueue, "<add queue>"},
                                                            {context->removeQueue, "<remove queue>"}};
        for (const auto& [named, name] : kNames) {
            if (named == pointer) {
                return name;
            }
        }
    }
    const auto object = machine().inspect().Find(pointer);
    if (!object) {
        return "<gone>";
    }
    std::string text = Describe(*object);
    text = text.substr(text.starts_with("deleted ") ? sizeof("deleted ") - 1 : 0);
    if (object->type == ObjectType::kGeneral && text.starts_with("client ")) {
        return "<" + text.substr(0, text.find(' ', sizeof("client ") - 1)) + ">";
    }
    if (object->type == ObjectType::kGeneral && !text.starts_with("crash-dump")) {
        return "<" + text.substr(0, text.find(' ')) + ">";
    }
    return "<" + text + ">";
}

std::string ObservedRun::Describe(const ObjectSnapshot& view)
{
    const std::string prefix = view.deleted ? "deleted " : "";
    const auto inspect = machine().inspect();
    if (view.type != ObjectType::kGeneral) {
        return prefix + host::framework::Name(view.type);
    }
    if (const auto client = ContextOf<layout::ClientContext>(view, layout::kClientContextName)) {
        std::string text = prefix + "client " + std::to_string(client->guid.Data1) + " in state " +
                           std::to_string(client->currentState) + ", announced " + std::to_string(client->addedToWpcd) +
                           std::to_string(client->wpcdRefreshPending);
        if (const auto registrations = inspect.Find(client->registrations)) {
            text += ", subscribed";
            for (const WDFOBJECT item : registrations->items) {
                const auto subscription =
                    inspect.Context<layout::RegistrationContext>(item, layout::kRegistrationContextName);
                text += " " + std::string(inspect.Find(item)->deleted ? "deleted " : "") +
                        std::to_string(subscription->filter.InterfaceGUID.Data1) + "@" +
                        std::to_string(subscription->filter.State);
            }
        }
        return text;
    }
    if (const auto state = ContextOf<ZepState>(view, layout::kStateContextName)) {
        return prefix + "state " + std::to_string(state->InterfaceGUID.Data1) + "=" + std::to_string(state->State) +
               " size " + std::to_string(state->Size);
    }
    if (const auto subscription = ContextOf<layout::RegistrationContext>(view, layout::kRegistrationContextName)) {
        return prefix + "subscription " + std::to_string(subscription->subscriber.Data1) + " to " +
               std::to_string(subscription->filter.InterfaceGUID.Data1) + "@" +
               std::to_string(subscription->filter.State);
    }
    if (const auto command = ContextOf<ZepCommand>(view, layout::kCommandContextName)) {
        return prefix + "command " + std::to_string(command->SourceGuid.Data1) + ">" +
               std::to_string(command->TargetGuid.Data1) + " " + std::to_string(command->CommandId);
    }
    for (const auto& context : view.contexts) {
        if (context.typeName == layout::kWpcdContextName) {
            return prefix + "crash-dump driver";
        }
    }
    return prefix + "general";
}

Lines ObservedRun::Alive()
{
    Lines lines;
    if (harness_.driver == nullptr || !harness_.driver->IsLoaded()) {
        return lines;
    }
    const auto inspect = machine().inspect();
    const auto driver = inspect.Find(harness_.driver->Handle());
    const auto context = *inspect.Context<layout::DriverContext>(harness_.driver->Handle(), layout::kDriverContextName);
    std::string held = "held";
    std::string queued = "queued";
    std::map<WDFOBJECT, std::string> parentNames;
    for (const ObjectSnapshot& view : inspect.Objects()) {
        if (view.type == ObjectType::kDriver) {
            continue;
        }
        const auto [name, isNew] = parentNames.try_emplace(view.parent, "nobody");
        if (const auto parent = isNew ? inspect.Find(view.parent) : std::nullopt) {
            const auto client = ContextOf<layout::ClientContext>(*parent, layout::kClientContextName);
            name->second = client ? "client " + std::to_string(client->guid.Data1) : Describe(*parent);
        }
        lines.push_back(Describe(view) + " of " + name->second);
    }
    std::sort(lines.begin(), lines.end());
    const std::pair<WDFCOLLECTION, const char*> kCollections[] = {{context.clients, "clients"},
                                                                  {context.addQueue, "add queue"},
                                                                  {context.removeQueue, "remove queue"},
                                                                  {context.states, "states"},
                                                                  {context.commands, "commands"}};
    for (const auto& [collection, name] : kCollections) {
        std::string text = name;
        const auto view = inspect.Find(collection);
        for (const WDFOBJECT item : view ? view->items : std::vector<WDFOBJECT>()) {
            text += " [" + Describe(*inspect.Find(item)) + "]";
        }
        lines.push_back(text + (view ? "" : " none"));
    }
    lines.push_back(std::string("attached ") + (context.wpcdClient != nullptr ? "1" : "0"));
    lines.push_back(std::string("power callback ") + (context.powerCallbackRegistration != nullptr ? "1" : "0"));
    lines.push_back("driver referenced " + std::to_string(driver->references - driverReferences_));
    const void* const kFields[] = {context.queue,
                                   context.addQueue,
                                   context.removeQueue,
                                   context.clients,
                                   context.states,
                                   context.commands,
                                   context.addItem,
                                   context.removeItem,
                                   context.notifyStatesItem,
                                   context.notifyCommandsItem,
                                   context.generalLock,
                                   context.clientsLock,
                                   context.statesLock,
                                   context.commandsLock,
                                   context.notifyStatesLock,
                                   context.notifyCommandsLock,
                                   context.notifyAppsStateLock};
    lines.push_back("context fields " + std::to_string(std::size(kFields) - std::ranges::count(kFields, nullptr)));
    lines.push_back("second deletes " + std::to_string(machine().SecondDeletes()));
    std::size_t blocks = 0;
    for (const auto& use : machine().PoolInUse()) {
        blocks += use.blockCount;
    }
    lines.push_back("pool " + std::to_string(blocks));
    const std::pair<WDFOBJECT, const char*> kLocks[] = {{context.clientsLock, " clients"},
                                                        {context.commandsLock, " commands"},
                                                        {context.notifyCommandsLock, " commands item"},
                                                        {context.generalLock, " general"},
                                                        {context.statesLock, " states"},
                                                        {context.notifyStatesLock, " states item"}};
    for (const auto& [lock, name] : kLocks) {
        const auto view = inspect.Find(lock);
        held += view && view->held ? name : "";
    }
    lines.push_back(held);
    const std::pair<WDFOBJECT, const char*> kItems[] = {{context.addItem, " add"},
                                                        {context.notifyCommandsItem, " commands"},
                                                        {context.removeItem, " remove"},
                                                        {context.notifyStatesItem, " states"}};
    for (const auto& [item, name] : kItems) {
        const auto view = inspect.Find(item);
        queued += view && view->queued ? name : "";
    }
    lines.push_back(queued);
    return lines;
}

}  // namespace fault_injection
