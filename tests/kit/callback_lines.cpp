#include "tests/kit/callback_lines.h"

#include <cstdio>
#include <map>

namespace tests {
namespace {

std::string Number(std::uint64_t value)
{
    return std::to_string(value);
}

std::string Texts(const std::string& client, const std::string& name, const std::string& description)
{
    return client + ": \"" + name.substr(0, 63) + "\", \"" + description.substr(0, 127) + "\"";
}

}  // namespace

std::string ClientName(unsigned client)
{
    return "client" + Number(client);
}

std::string Hex(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", value);
    return text;
}

namespace lines {

std::string State(unsigned subscriber, const std::string& from, std::uint64_t sizeBytes, std::uint32_t state,
                  std::uint32_t reserved, std::uint32_t response)
{
    return ClientName(subscriber) + " is notified: " + from + " is in state " + Number(state) + " (size " +
           Number(sizeBytes) + ", reserved " + Number(reserved) + ", response " + Number(response) + ")";
}

std::string Command(unsigned target, std::uint32_t id, std::uint64_t sizeBytes, std::uint32_t argument,
                    const std::string& source, std::uint32_t sourceState, std::uint32_t ownState)
{
    return ClientName(target) + " gets command " + Number(id) + " from " + source + " in state " + Number(sourceState) +
           " (size " + Number(sizeBytes) + ", argument " + Number(argument) + ", own state " + Number(ownState) + ")";
}

std::string AppsState(unsigned client, std::uint32_t reason, std::uint32_t ownState)
{
    return ClientName(client) + " is notified of the applications' state (reason " + Number(reason) + ", own state " +
           Number(ownState) + ")";
}

std::string Descriptor(const std::string& client, const std::string& name, const std::string& description,
                       bool wantsAppsState, bool hasEntries, unsigned entryCount)
{
    return "descriptor of " + Texts(client, name, description) + (wantsAppsState ? ", wants the apps state" : "") +
           (hasEntries ? ", entries " : ", no entries ") + Number(entryCount);
}

std::string Withdrawal(const std::string& client, const std::string& name, const std::string& description)
{
    return "withdrawal of " + Texts(client, name, description);
}

std::string Dump(Kind kind, unsigned client)
{
    static const std::map<Kind, std::pair<const char*, const char*>> kCalls = {
        {Kind::kStartDump, {"start ", " 4096 8192"}},
        {Kind::kAddDumpData, {"data ", " 55930 2147483648 4096 1"}},
        {Kind::kQueryDump, {"query ", " 7 11 12"}},
        {Kind::kAddTriageData, {"triage ", " 2415919104 256"}},
        {Kind::kStopDump, {"stop ", " 13"}}};
    return kCalls.at(kind).first + Hex(0xD0D00000u + client) + kCalls.at(kind).second;
}

std::string FromTable(unsigned table, const std::string& line)
{
    return "crash-dump driver, table " + Number(table) + ": " + line;
}

std::string Count(std::uint64_t count)
{
    return "count " + Number(count);
}

std::string Wait(std::int64_t milliseconds)
{
    return "waits " + std::to_string(milliseconds) + " ms";
}

}  // namespace lines
}  // namespace tests
