#include "tests/fault_injection/alive.h"

#include <algorithm>

namespace fault_injection {
namespace {

std::string Joined(std::string text, const std::set<std::string>& words)
{
    for (const std::string& word : words) {
        text += " " + word;
    }
    return text;
}

}  // namespace

std::string Text(const ObjectRecord& object)
{
    const std::string start = (object.deleted ? "deleted " : "") + std::string(object.kind);
    const std::string number = " " + std::to_string(object.number);
    const std::string other = std::to_string(object.other);
    const std::string value = std::to_string(object.value);
    if (object.kind == "client") {
        return start + number + " in state " + value + ", announced " + std::to_string(object.added) +
               std::to_string(object.refresh);
    }
    if (object.kind == "state") {
        return start + number + "=" + value + " size " + std::to_string(object.size);
    }
    if (object.kind == "subscription") {
        return start + number + " to " + other + "@" + value;
    }
    if (object.kind == "command") {
        return start + number + ">" + other + " " + value;
    }
    return start;
}

std::string Name(const ObjectRecord& object)
{
    return "<" + std::string(object.kind) + (object.kind == "client" ? " " + std::to_string(object.number) : "") + ">";
}

std::string ObjectAlive::Text() const
{
    std::string text = fault_injection::Text(record) + (isSubscribed ? ", subscribed" : "");
    for (const ObjectRecord& subscription : subscriptions) {
        text += std::string(subscription.deleted ? " deleted " : " ") + std::to_string(subscription.other) + "@" +
                std::to_string(subscription.value);
    }
    return text;
}

bool Alive::AreEqual(Alive& one, Alive& other)
{
    if (one.objects != other.objects) {
        std::ranges::sort(one.objects);
        std::ranges::sort(other.objects);
    }
    return one.objects == other.objects && one.collections == other.collections && one.counts == other.counts &&
           one.heldLocks == other.heldLocks && one.queuedItems == other.queuedItems;
}

Lines Alive::Text() const
{
    Lines lines;
    if (counts.empty()) {
        return lines;
    }
    for (const ObjectAlive& object : objects) {
        lines.push_back(object.Text() + " of " + std::string(object.parent) +
                        (object.parent == "client" ? " " + std::to_string(object.client) : ""));
    }
    std::sort(lines.begin(), lines.end());
    for (const auto& [name, items] : collections) {
        std::string text = std::string(name) + (items ? "" : " none");
        for (const ObjectAlive& item : items.value_or(std::vector<ObjectAlive>{})) {
            text += " [" + item.Text() + "]";
        }
        lines.push_back(text);
    }
    for (const auto& [name, count] : counts) {
        lines.push_back(std::string(name) + " " + std::to_string(count));
    }
    lines.push_back(Joined("held", heldLocks));
    lines.push_back(Joined("queued", queuedItems));
    return lines;
}

}  // namespace fault_injection
