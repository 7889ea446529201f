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
    const std::string start = (object.deleted ? "deleted " : "") + object.kind;
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
    return "<" + object.kind + (object.kind == "client" ? " " + std::to_string(object.number) : "") + ">";
}

std::string SubscriptionText(const ObjectRecord& subscription)
{
    return std::string(subscription.deleted ? " deleted " : " ") + std::to_string(subscription.other) + "@" +
           std::to_string(subscription.value);
}

Lines Alive::Text() const
{
    Lines lines = objects;
    std::sort(lines.begin(), lines.end());
    for (const auto& [name, items] : collections) {
        std::string text = name + (items ? "" : " none");
        for (const std::string& item : items.value_or(Lines{})) {
            text += " [" + item + "]";
        }
        lines.push_back(text);
    }
    for (const auto& [name, count] : counts) {
        lines.push_back(name + " " + std::to_string(count));
    }
    lines.push_back(Joined("held", heldLocks));
    lines.push_back(Joined("queued", queuedItems));
    return lines;
}

}  // namespace fault_injection
