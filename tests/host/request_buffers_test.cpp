// Requests' buffers: how an I/O control's bytes reach the driver and come back, by the method of its code.
#include "tests/host/faulty_driver_fixture.h"

#include <array>
#include <cstring>
#include <span>

namespace tests {
namespace {

constexpr std::uint32_t kBuffered = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr std::uint32_t kOutDirect = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_OUT_DIRECT, FILE_ANY_ACCESS);
constexpr std::uint32_t kNeither = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_NEITHER, FILE_ANY_ACCESS);

class RequestBuffers : public FaultyDriverTest {
protected:
    RequestBuffers() { EXPECT_EQ(driver.Open(file).status, STATUS_SUCCESS); }
    ~RequestBuffers() override { driver.Close(file); }

    // Sends text; what comes back is in `output`.
    host::IoResult Send(std::uint32_t code, const std::string& text, std::size_t outputBytes,
                        void(NTAPI* control)(WDFREQUEST request))
    {
        table.Hooks->Control = control;
        output.resize(outputBytes, '-');
        return driver.DeviceControl(file, code, std::as_bytes(std::span(text)),
                                    std::as_writable_bytes(std::span(output)));
    }

    host::FileId file = 0;
    std::string output;
};

std::string TextOf(const void* buffer, std::size_t bytes)
{
    return {static_cast<const char*>(buffer), bytes};
}

void WriteOne(WDFREQUEST request, NTSTATUS status)
{
    PVOID output = nullptr;
    EXPECT_EQ(WdfRequestRetrieveOutputBuffer(request, 1, &output, nullptr), STATUS_SUCCESS);
    *static_cast<char*>(output) = 'x';
    WdfRequestCompleteWithInformation(request, status, 1);
}

TEST_F(RequestBuffers, OfTheBufferedMethodAreOne)
{
    const host::IoResult result = Send(kBuffered, "ping", 8, [](WDFREQUEST request) NTAPI {
        WDF_REQUEST_PARAMETERS parameters;
        WDF_REQUEST_PARAMETERS_INIT(&parameters);
        WdfRequestGetParameters(request, &parameters);
        EXPECT_EQ(parameters.Type, WdfRequestTypeDeviceControl);
        EXPECT_EQ(parameters.Parameters.DeviceIoControl.IoControlCode, kBuffered);
        EXPECT_EQ(parameters.Parameters.DeviceIoControl.InputBufferLength, 4u);
        EXPECT_EQ(parameters.Parameters.DeviceIoControl.OutputBufferLength, 8u);
        PVOID input = nullptr;
        PVOID output = nullptr;
        std::size_t bytes = 0;
        EXPECT_EQ(WdfRequestRetrieveInputBuffer(request, 4, &input, &bytes), STATUS_SUCCESS);
        EXPECT_EQ(TextOf(input, bytes), "ping");
        EXPECT_EQ(WdfRequestRetrieveOutputBuffer(request, 8, &output, &bytes), STATUS_SUCCESS);
        EXPECT_EQ(output, input);
        EXPECT_EQ(bytes, 8u);
        std::memcpy(output, "pong!!!!", 8);
        WdfRequestSetInformation(request, 5);
        EXPECT_EQ(WdfRequestGetInformation(request), 5u);
        WdfRequestComplete(request, STATUS_SUCCESS);
    });
    EXPECT_EQ(result.information, 5u);
    EXPECT_EQ(output, "pong!---");

    // Data comes back with a warning, and not with an error.
    Send(kBuffered, "", 1, [](WDFREQUEST request) NTAPI { WriteOne(request, STATUS_BUFFER_OVERFLOW); });
    EXPECT_EQ(output, "x");
    output.clear();
    Send(kBuffered, "", 1, [](WDFREQUEST request) NTAPI { WriteOne(request, STATUS_BUFFER_TOO_SMALL); });
    EXPECT_EQ(output, "-");
}

TEST_F(RequestBuffers, AreRefusedWhereTheyAreTooSmall)
{
    static PVOID buffer;
    Send(kBuffered, "ping", 0, [](WDFREQUEST request) NTAPI {
        std::size_t bytes = 77;
        buffer = &bytes;
        EXPECT_EQ(WdfRequestRetrieveInputBuffer(request, 5, &buffer, &bytes), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(buffer, nullptr);
        EXPECT_EQ(bytes, 0u);
        EXPECT_EQ(WdfRequestRetrieveOutputBuffer(request, 0, &buffer, &bytes), STATUS_BUFFER_TOO_SMALL);
        WDFMEMORY memory = nullptr;
        EXPECT_EQ(WdfRequestRetrieveOutputMemory(request, &memory), STATUS_BUFFER_TOO_SMALL);
        WdfRequestComplete(request, STATUS_SUCCESS);
    });
    Send(kNeither, "ping", 4, [](WDFREQUEST request) NTAPI {
        EXPECT_EQ(WdfRequestRetrieveInputBuffer(request, 0, &buffer, nullptr), STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_EQ(WdfRequestRetrieveOutputBuffer(request, 0, &buffer, nullptr), STATUS_INVALID_DEVICE_REQUEST);
        WdfRequestComplete(request, STATUS_SUCCESS);
    });
    EXPECT_EQ(output, "----");
}

TEST_F(RequestBuffers, AreMemoryObjectsUntilTheRequestIsCompleted)
{
    static WDFMEMORY memory;
    Send(kBuffered, "ping", 4, [](WDFREQUEST request) NTAPI {
        WDFMEMORY again = nullptr;
        EXPECT_EQ(WdfRequestRetrieveInputMemory(request, &memory), STATUS_SUCCESS);
        EXPECT_EQ(WdfRequestRetrieveInputMemory(request, &again), STATUS_SUCCESS);
        EXPECT_EQ(again, memory);
        std::array<char, 4> copy{};
        EXPECT_EQ(WdfMemoryCopyToBuffer(memory, 0, copy.data(), copy.size()), STATUS_SUCCESS);
        EXPECT_EQ(TextOf(copy.data(), copy.size()), "ping");
        EXPECT_EQ(WdfMemoryCopyFromBuffer(memory, 1, copy.data(), copy.size()), STATUS_INVALID_BUFFER_SIZE);
        WDFMEMORY output = nullptr;
        EXPECT_EQ(WdfRequestRetrieveOutputMemory(request, &output), STATUS_SUCCESS);
        EXPECT_EQ(WdfMemoryCopyFromBuffer(output, 2, copy.data(), 2), STATUS_SUCCESS);
        WdfRequestCompleteWithInformation(request, STATUS_SUCCESS, 4);
    });
    EXPECT_EQ(output, "pipi");
    EXPECT_EQ(WdfMemoryGetBuffer(memory, nullptr), nullptr);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadHandle});
}

TEST_F(RequestBuffers, OfTheDirectMethodAreTheSendersOwn)
{
    Send(kOutDirect, "ping", 6, [](WDFREQUEST request) NTAPI {
        PVOID input = nullptr;
        PVOID output = nullptr;
        std::size_t bytes = 0;
        EXPECT_EQ(WdfRequestRetrieveInputBuffer(request, 4, &input, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(WdfRequestRetrieveOutputBuffer(request, 6, &output, &bytes), STATUS_SUCCESS);
        EXPECT_NE(input, output);
        EXPECT_EQ(TextOf(output, bytes), "------");
        std::memcpy(output, input, 4);
        WDFMEMORY memory = nullptr;
        EXPECT_EQ(WdfRequestRetrieveInputMemory(request, &memory), STATUS_SUCCESS);
        EXPECT_EQ(WdfMemoryCopyFromBuffer(memory, 0, output, 4), STATUS_ACCESS_VIOLATION);
        WdfRequestComplete(request, STATUS_UNSUCCESSFUL);  // it is written all the same
    });
    EXPECT_EQ(output, "ping--");
    EXPECT_EQ(TakeRules(), std::vector{Rule::kBadParameter});
}

TEST_F(RequestBuffers, ShowWhatMayNotBeDoneWithThem)
{
    static WDFREQUEST kept;
    static PVOID buffer;
    Send(kBuffered, "ping", 0, [](WDFREQUEST request) NTAPI {
        WdfObjectReference(kept = request);
        WdfRequestComplete(request, STATUS_SUCCESS);
    });
    EXPECT_EQ(WdfRequestRetrieveInputBuffer(kept, 0, &buffer, nullptr), STATUS_INTERNAL_ERROR);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kDeadHandle});
    WdfObjectDereference(kept);

    table.Hooks->FileCreate = [](WDFREQUEST request, WDFFILEOBJECT file) NTAPI {
        EXPECT_EQ(WdfRequestRetrieveInputBuffer(request, 0, &buffer, nullptr), STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_NE(WdfFileObjectGetDevice(file), nullptr);
        WdfRequestComplete(request, STATUS_ACCESS_DENIED);
    };
    host::FileId second = 0;
    EXPECT_EQ(driver.Open(second).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kBadParameter});

    Send(kBuffered, "ping", 0, [](WDFREQUEST request) NTAPI {
        WDF_REQUEST_PARAMETERS parameters{};  // not initialised
        WdfRequestGetParameters(request, &parameters);
        if (!kSanitized) {  // which finds it before the host does
            EXPECT_EQ(WdfRequestRetrieveInputBuffer(request, 0, &buffer, nullptr), STATUS_SUCCESS);
            static_cast<volatile char*>(buffer)[4] = 1;
        }
        WdfRequestComplete(request, STATUS_SUCCESS);
    });
    std::vector<Rule> expected{Rule::kBadParameter};
    if (!kSanitized) {
        expected.push_back(Rule::kPoolCorrupted);
    }
    EXPECT_EQ(TakeRules(), expected) << Text();
}

}  // namespace
}  // namespace tests
