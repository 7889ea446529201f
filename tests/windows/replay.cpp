// Plays a captured run to Windows' own tracing, so that its tools can be asked how they show it:
//
//     replay CAPTURE_FILE TRACE_FILE.etl
//
// A private session takes the driver's events and trace messages under the driver's GUIDs, with the very payloads that
// were captured; docs/tracing.md describes the file. For an administrator. Never run on Windows; any compiler with the
// SDK builds it, for example: clang++ -std=c++20 replay.cpp -o replay.exe -ladvapi32
#include <windows.h>

#include <evntprov.h>
#include <evntrace.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace {

constexpr GUID kProvider = {0x84CD9D5E, 0x9773, 0x4BA7, {0xA7, 0x09, 0x72, 0xF0, 0x79, 0xE8, 0x1C, 0xDE}};
constexpr wchar_t kSession[] = L"zepn-replay";

void Require(ULONG error, const char* what)
{
    if (error != ERROR_SUCCESS) {
        throw std::runtime_error(std::string(what) + " fails with error " + std::to_string(error));
    }
}

// The session's properties, with room for its two names after them.
struct Properties {
    EVENT_TRACE_PROPERTIES head{};
    wchar_t session[64]{};
    wchar_t file[MAX_PATH]{};

    Properties()
    {
        head.Wnode.BufferSize = sizeof(Properties);
        head.Wnode.Flags = WNODE_FLAG_TRACED_GUID;
        head.LogFileMode = EVENT_TRACE_FILE_MODE_SEQUENTIAL;
        head.BufferSize = 256;  // KB; enough buffers that none is lost however fast the run is played
        head.MinimumBuffers = 64;
        head.MaximumBuffers = 256;
        head.LoggerNameOffset = offsetof(Properties, session);
        head.LogFileNameOffset = offsetof(Properties, file);
    }
};

class Session {
public:
    explicit Session(const wchar_t* file)
    {
        Properties properties;
        (void)lstrcpynW(properties.file, file, MAX_PATH);
        Require(StartTraceW(&handle_, kSession, &properties.head), "StartTrace");
        Require(EnableTraceEx2(handle_, &kProvider, EVENT_CONTROL_CODE_ENABLE_PROVIDER, TRACE_LEVEL_VERBOSE, 0, 0, 0,
                               nullptr),
                "EnableTraceEx2");
    }
    ~Session()
    {
        Properties properties;
        (void)ControlTraceW(handle_, nullptr, &properties.head, EVENT_TRACE_CONTROL_STOP);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    [[nodiscard]] TRACEHANDLE handle() const { return handle_; }

private:
    TRACEHANDLE handle_ = 0;
};

struct Head {
    std::uint32_t sizeBytes;
    std::uint32_t kind;
    std::uint64_t place;
};

struct Body {
    GUID guid;
    EVENT_DESCRIPTOR descriptor;
};

constexpr std::uint32_t kEnd = 0;
constexpr std::uint32_t kEvent = 1;

void WriteMessage(TRACEHANDLE session, const Body& body, const char* payload, std::size_t size)
{
    constexpr ULONG kFlags =
        TRACE_MESSAGE_SEQUENCE | TRACE_MESSAGE_GUID | TRACE_MESSAGE_TIMESTAMP | TRACE_MESSAGE_SYSTEMINFO;
    GUID set = body.guid;
    // Address and length of each part, up to a null address.
    Require(TraceMessage(session, kFlags, &set, body.descriptor.Id, size == 0 ? nullptr : payload, size, nullptr),
            "TraceMessage");
}

std::uint64_t Play(const std::string& bytes, TRACEHANDLE session, REGHANDLE provider)
{
    std::size_t at = 8;
    if (bytes.compare(0, at, "ZEPNCAP1") != 0) {
        throw std::runtime_error("this is no capture file");
    }
    for (std::uint64_t count = 0;; ++count) {
        Head head;
        if (bytes.size() - at < sizeof(head)) {
            throw std::runtime_error("the file is cut off");
        }
        std::memcpy(&head, bytes.data() + at, sizeof(head));
        if (head.kind == kEnd) {
            if (head.place != count || at + sizeof(head) != bytes.size()) {
                throw std::runtime_error("the end record does not fit what is there");
            }
            return count;
        }
        Body body;
        if (head.sizeBytes < sizeof(head) + sizeof(body) || head.sizeBytes > bytes.size() - at) {
            throw std::runtime_error("the file is cut off");
        }
        std::memcpy(&body, bytes.data() + at + sizeof(head), sizeof(body));
        const char* const payload = bytes.data() + at + sizeof(head) + sizeof(body);
        const std::size_t size = head.sizeBytes - sizeof(head) - sizeof(body);
        if (head.kind == kEvent) {
            EVENT_DATA_DESCRIPTOR data;
            EventDataDescCreate(&data, payload, static_cast<ULONG>(size));
            Require(EventWrite(provider, &body.descriptor, size == 0 ? 0 : 1, &data), "EventWrite");
        } else {
            WriteMessage(session, body, payload, size);
        }
        at += head.sizeBytes;
    }
}

}  // namespace

int wmain(int argumentCount, wchar_t** arguments)
{
    try {
        if (argumentCount != 3) {
            throw std::runtime_error("usage: replay CAPTURE_FILE TRACE_FILE.etl");
        }
        std::ifstream in(arguments[1], std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        const Session session(arguments[2]);
        REGHANDLE provider = 0;
        Require(EventRegister(&kProvider, nullptr, nullptr, &provider), "EventRegister");
        std::printf("%llu records played\n", static_cast<unsigned long long>(Play(bytes, session.handle(), provider)));
        (void)EventUnregister(provider);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "replay: %s\n", error.what());
        return 1;
    }
}
