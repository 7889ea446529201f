#include "host/tracing/capture_file.h"

#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace host::tracing {
namespace {

constexpr std::string_view kMagic = "ZEPNCAP1";
constexpr std::uint32_t kEnd = 0;
constexpr std::uint32_t kEvent = 1;
constexpr std::uint32_t kMessage = 2;

struct Head {
    std::uint32_t sizeBytes;  // of the record with this head
    std::uint32_t kind;
    std::uint64_t order;  // end record: number of records before it
};
static_assert(sizeof(Head) == 16);

struct Body {
    GUID guid;                    // of the provider or of the message set
    EVENT_DESCRIPTOR descriptor;  // message: the number as Id, else 0
};
static_assert(sizeof(Body) == 32);

void Put(std::ofstream& out, std::uint32_t kind, std::uint64_t order, const Body& body,
         const std::vector<std::byte>& payload)
{
    const Head head{static_cast<std::uint32_t>(sizeof(Head) + sizeof(Body) + payload.size()), kind, order};
    out.write(reinterpret_cast<const char*>(&head), sizeof(head));
    out.write(reinterpret_cast<const char*>(&body), sizeof(body));
    out.write(reinterpret_cast<const char*>(payload.data()), static_cast<std::streamsize>(payload.size()));
}

}  // namespace

CaptureWriter::CaptureWriter(const std::filesystem::path& file) : file_(file), out_(file, std::ios::binary)
{
    if (!out_) {
        throw std::runtime_error("cannot write " + file.string());
    }
    out_ << kMagic;
}

void CaptureWriter::Write(const CapturedEvent& event)
{
    Put(out_, kEvent, event.order, {event.provider, event.descriptor}, event.payload);
    ++count_;
}

void CaptureWriter::Write(const CapturedMessage& message)
{
    EVENT_DESCRIPTOR descriptor{};
    descriptor.Id = message.number;
    Put(out_, kMessage, message.order, {message.messageGuid, descriptor}, message.payload);
    ++count_;
}

void CaptureWriter::Finish()
{
    const Head head{sizeof(Head), kEnd, count_};
    out_.write(reinterpret_cast<const char*>(&head), sizeof(head));
    out_.close();
    if (!out_) {
        throw std::runtime_error("cannot write " + file_.string());
    }
}

std::vector<CapturedRecord> ReadCapture(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in || std::filesystem::is_directory(file)) {
        throw std::runtime_error("cannot read " + file.string());
    }
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    std::size_t at = 0;
    const auto fail = [&](const std::string& what) {
        throw std::runtime_error(file.string() + ": at byte " + std::to_string(at) + ": " + what);
    };
    if (!bytes.starts_with(kMagic)) {
        fail("this is no capture file");
    }
    at = kMagic.size();
    std::vector<CapturedRecord> records;
    for (;;) {
        Head head{};
        if (bytes.size() - at < sizeof(head)) {
            fail("the file is cut off");
        }
        std::memcpy(&head, &bytes[at], sizeof(head));
        if (head.kind == kEnd) {
            if (head.order != records.size() || at + sizeof(head) != bytes.size()) {
                fail("the end record does not fit what is there");
            }
            return records;
        }
        if (head.kind != kEvent && head.kind != kMessage) {
            fail("unknown kind of record " + std::to_string(head.kind));
        }
        if (head.sizeBytes < sizeof(Head) + sizeof(Body)) {
            fail("a record is smaller than its head");
        }
        if (head.sizeBytes > bytes.size() - at) {
            fail("the file is cut off");
        }
        Body body{};
        std::memcpy(&body, &bytes[at + sizeof(Head)], sizeof(body));
        const auto* payload = reinterpret_cast<const std::byte*>(bytes.data()) + at;
        const std::vector<std::byte> contents(payload + sizeof(Head) + sizeof(Body), payload + head.sizeBytes);
        if (head.kind == kEvent) {
            CapturedEvent event{};
            event.order = head.order;
            event.provider = body.guid;
            event.descriptor = body.descriptor;
            event.payload = contents;
            records.emplace_back(event);
        } else {
            CapturedMessage message{};
            message.order = head.order;
            message.messageGuid = body.guid;
            message.number = body.descriptor.Id;
            message.payload = contents;
            records.emplace_back(message);
        }
        at += head.sizeBytes;
    }
}

}  // namespace host::tracing
