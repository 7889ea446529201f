// What the driver reported, in words, and what must hold for all of it.
#include "tests/kit/driver_fixture.h"

#include "tests/kit/one_report.h"

#include <algorithm>
#include <map>

namespace tests {

std::string DriverFixture::HandleName(std::uint64_t handle)
{
    return NameOfHandle(machine, driver, handle, [](const host::framework::ObjectSnapshot& object) {
        const bool isGeneral = object.type == host::framework::ObjectType::kGeneral;
        return isGeneral ? "<object>" : std::string("<") + host::framework::Name(object.type) + ">";
    });
}

Lines DriverFixture::TakeReports()
{
    constexpr std::uint8_t kWarning = 3;
    Lines lines;
    const auto events = machine.tracing().Events();
    for (; eventsSeen_ < events.size(); ++eventsSeen_) {
        if (events[eventsSeen_].descriptor.Level > kWarning) {
            continue;
        }
        const auto decoded = manifest_.Decode(events[eventsSeen_]);
        if (!decoded) {
            lines.push_back("undecodable event " + std::to_string(events[eventsSeen_].descriptor.Id));
            continue;
        }
        lines.push_back(LineOf(*decoded, [this](std::uint64_t handle) { return HandleName(handle); }));
    }
    return lines;
}

Lines DriverFixture::TakeRecords()
{
    std::vector<std::pair<std::uint64_t, std::string>> records;
    for (const auto& event : machine.tracing().Events()) {
        const auto decoded = manifest_.Decode(event);
        records.emplace_back(event.order, "E" + std::to_string(event.descriptor.Id) + " " +
                                              (decoded ? decoded->fields[0].text : "undecodable"));
    }
    for (const auto& message : machine.tracing().Messages()) {
        const auto decoded = formats_.Decode(message);
        records.emplace_back(message.order, "M" + std::to_string(message.number) + " " +
                                                (decoded ? decoded->function : "undecodable"));
    }
    std::sort(records.begin(), records.end());
    Lines lines;
    for (const auto& [order, line] : records) {
        if (order > recordsSeen_) {
            lines.push_back(line);
            recordsSeen_ = order;
        }
    }
    return lines;
}

// An error event and its trace message are one report: same site, same values, one right after the other. All must
// decode.
void DriverFixture::CheckReports()
{
    if (!options_.records) {
        return;
    }
    std::map<std::uint64_t, std::pair<host::tracing::CapturedMessage, host::tracing::DecodedMessage>> messages;
    for (const auto& message : machine.tracing().Messages()) {
        const auto decoded = formats_.Decode(message);
        ASSERT_TRUE(decoded) << "trace message " << message.number << " does not decode";
        messages[message.order] = {message, *decoded};
    }
    for (const auto& event : machine.tracing().Events()) {
        const auto decoded = manifest_.Decode(event);
        ASSERT_TRUE(decoded) << "event " << event.descriptor.Id << " does not decode";
        EXPECT_EQ(decoded->level, manifest_.events().at(decoded->id).level);
        // The manifest gives no event any of these, and Windows finds an event's description by them.
        const EVENT_DESCRIPTOR& descriptor = event.descriptor;
        EXPECT_EQ(descriptor.Version | descriptor.Channel | descriptor.Opcode | descriptor.Task | descriptor.Keyword,
                  0u)
            << "event " << descriptor.Id;
        if (decoded->level == 2) {
            const auto message = messages.find(event.order + 1);
            ASSERT_NE(message, messages.end()) << "no trace message after: " << decoded->message;
            EXPECT_EQ(DifferenceOf(*decoded, message->second.first, message->second.second), "");
        }
    }
}

}  // namespace tests
