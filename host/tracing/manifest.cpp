// Events decoded by the manifest alone, the way the system's viewer walks a payload: each field consumes what its type
// says, and the last one must end with the payload.
#include "host/tracing/decode.h"

#include <cstdio>
#include <cstring>

namespace host::tracing {
namespace {

constexpr std::size_t kGuidBytes = 16;

std::string NumberText(std::uint64_t number, const std::string& outType)
{
    char text[32];
    if (outType == "win:NTSTATUS" || outType == "win:HexInt32") {
        std::snprintf(text, sizeof(text), "0x%08llX", static_cast<unsigned long long>(number));
    } else if (outType == "win:HexInt64") {
        std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(number));
    } else {
        std::snprintf(text, sizeof(text), "%llu", static_cast<unsigned long long>(number));
    }
    return text;
}

// Takes one field off the payload; false when it ends too early.
bool TakeField(const Manifest::Field& field, const std::vector<std::byte>& payload, std::size_t& at,
               DecodedField& decoded)
{
    decoded.name = field.name;
    decoded.type = field.type;
    const std::size_t left = payload.size() - at;
    if (field.type == FieldType::kAnsiString) {
        const void* end = left == 0 ? nullptr : std::memchr(payload.data() + at, 0, left);
        if (end == nullptr) {
            return false;
        }
        const auto length = static_cast<std::size_t>(static_cast<const std::byte*>(end) - (payload.data() + at));
        decoded.text.assign(reinterpret_cast<const char*>(payload.data() + at), length);
        at += length + 1;
        return true;
    }
    if (field.type == FieldType::kGuid) {
        if (left < kGuidBytes) {
            return false;
        }
        GUID guid;
        std::memcpy(&guid, payload.data() + at, sizeof(guid));
        decoded.text = GuidText(guid);
        at += kGuidBytes;
        return true;
    }
    const std::size_t width = field.type == FieldType::kUInt32 ? 4 : 8;
    if (left < width) {
        return false;
    }
    std::memcpy(&decoded.number, payload.data() + at, width);
    decoded.text = NumberText(decoded.number, field.outType);
    at += width;
    return true;
}

// "%1" is the first field, "%%" a percent sign.
std::string FillInserts(const std::string& message, const std::vector<DecodedField>& fields)
{
    std::string text;
    for (std::size_t index = 0; index < message.size(); ++index) {
        if (message[index] != '%' || index + 1 == message.size()) {
            text.push_back(message[index]);
            continue;
        }
        ++index;
        const auto field = static_cast<std::size_t>(message[index] - '1');
        if (field < fields.size()) {
            text += fields[field].text;
        } else {
            text.push_back(message[index]);
        }
    }
    return text;
}

}  // namespace

std::string DecodedEvent::Text(const std::string& field) const
{
    for (const DecodedField& candidate : fields) {
        if (candidate.name == field) {
            return candidate.text;
        }
    }
    return {};
}

std::uint64_t DecodedEvent::Number(const std::string& field) const
{
    for (const DecodedField& candidate : fields) {
        if (candidate.name == field) {
            return candidate.number;
        }
    }
    return 0;
}

std::optional<DecodedEvent> Manifest::Decode(const CapturedEvent& event) const
{
    const auto known = events_.find(event.descriptor.Id);
    if (known == events_.end() || std::memcmp(&event.provider, &provider_, sizeof(GUID)) != 0) {
        return std::nullopt;
    }
    DecodedEvent decoded{.id = event.descriptor.Id,
                         .level = event.descriptor.Level,
                         .symbol = known->second.symbol,
                         .message = {},
                         .fields = {}};
    std::size_t at = 0;
    for (const Field& field : known->second.fields) {
        DecodedField value;
        if (!TakeField(field, event.payload, at, value)) {
            return std::nullopt;
        }
        decoded.fields.push_back(std::move(value));
    }
    if (at != event.payload.size()) {
        return std::nullopt;
    }
    decoded.message = FillInserts(known->second.message, decoded.fields);
    return decoded;
}

}  // namespace host::tracing
