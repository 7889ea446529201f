#include "host/framework/request_buffers.h"

#include "host/framework/devices.h"
#include "host/framework/functions.h"
#include "host/framework/memory_objects.h"

#include <algorithm>
#include <cstring>

namespace host::framework {

using checks::Rule;

namespace {

unsigned MethodOf(const RequestObject& request)
{
    constexpr unsigned kMethodMask = 3;
    return request.code & kMethodMask;
}

bool IsError(NTSTATUS status)
{
    constexpr unsigned kSeverityShift = 30;
    constexpr unsigned kSeverityError = 3;
    return static_cast<std::uint32_t>(status) >> kSeverityShift == kSeverityError;
}

}  // namespace

void LendBuffers(Framework& framework, RequestObject& request, std::span<const std::byte> input,
                 std::span<const std::byte> output)
{
    const unsigned method = MethodOf(request);
    if (method == METHOD_NEITHER) {
        return;
    }
    const std::string name = Describe(request);
    const auto lend = [&](std::size_t bytes, std::span<const std::byte> contents, const char* what) {
        std::unique_ptr<LentBuffer> buffer;
        if (bytes != 0) {
            buffer = std::make_unique<LentBuffer>(framework.kernel, bytes, what + name);
            std::ranges::copy(contents, buffer->get());
        }
        return buffer;
    };
    if (method == METHOD_BUFFERED) {
        request.buffers.system = lend(std::max(input.size(), output.size()), input, "the system buffer of ");
    } else {
        request.buffers.system = lend(input.size(), input, "the input buffer of ");
        request.buffers.direct = lend(output.size(), output, "the output buffer of ");
    }
}

void ReclaimBuffers(RequestObject& request)
{
    RequestBuffers& buffers = request.buffers;
    if (buffers.direct != nullptr) {
        buffers.result.assign(buffers.direct->get(), buffers.direct->get() + request.outputBytes);
    } else if (buffers.system != nullptr && !IsError(request.status)) {
        const std::size_t bytes = std::min<std::uint64_t>(request.information, request.outputBytes);
        buffers.result.assign(buffers.system->get(), buffers.system->get() + bytes);
    }
    buffers.system.reset();
    buffers.direct.reset();
    for (MemoryObject* memory : {buffers.inputMemory, buffers.outputMemory}) {
        if (memory != nullptr) {
            memory->buffer = nullptr;
            memory->sizeBytes = 0;
        }
    }
}

namespace functions {
namespace {

enum class Side { kInput, kOutput };

struct BufferView {
    NTSTATUS status;
    std::byte* begin;
    std::size_t sizeBytes;
};

// The mutex is held.
BufferView ViewOf(const PlatformCall& call, const RequestObject& request, Side side)
{
    if (request.completed) {
        call.Violation(Rule::kDeadHandle, Describe(request) + " is completed, and its buffers are gone");
        return {STATUS_INTERNAL_ERROR, nullptr, 0};
    }
    if (request.kind == RequestKind::kCreate) {
        call.Violation(Rule::kBadParameter, Describe(request) + " opens a file and has no buffers");
        return {STATUS_INVALID_DEVICE_REQUEST, nullptr, 0};
    }
    const std::size_t bytes = side == Side::kInput ? request.inputBytes : request.outputBytes;
    if (bytes == 0) {
        return {STATUS_BUFFER_TOO_SMALL, nullptr, 0};
    }
    if (MethodOf(request) == METHOD_NEITHER) {
        return {STATUS_INVALID_DEVICE_REQUEST, nullptr, 0};
    }
    const bool isDirect = side == Side::kOutput && MethodOf(request) != METHOD_BUFFERED;
    return {STATUS_SUCCESS, (isDirect ? request.buffers.direct : request.buffers.system)->get(), bytes};
}

NTSTATUS RetrieveBuffer(const PlatformCall& call, WDFREQUEST handle, Side side, std::size_t minimum, void** buffer,
                        std::size_t* sizeBytes)
{
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* request = framework.objects.Resolve<RequestObject>(call, handle, "Request");
    if (request == nullptr || !Requires(call, buffer, "Buffer")) {
        return STATUS_INVALID_PARAMETER;
    }
    *buffer = nullptr;
    if (sizeBytes != nullptr) {
        *sizeBytes = 0;
    }
    if (call.IsRefused()) {
        return call.fault()->status;
    }
    const BufferView view = ViewOf(call, *request, side);
    if (!NT_SUCCESS(view.status) || view.sizeBytes < minimum) {
        return NT_SUCCESS(view.status) ? STATUS_BUFFER_TOO_SMALL : view.status;
    }
    *buffer = view.begin;
    if (sizeBytes != nullptr) {
        *sizeBytes = view.sizeBytes;
    }
    return call.Done();
}

NTSTATUS RetrieveMemory(const PlatformCall& call, WDFREQUEST handle, Side side, WDFMEMORY* memory)
{
    if (const std::optional<NTSTATUS> injected = Injected(call, memory)) {
        return *injected;
    }
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* request = framework.objects.Resolve<RequestObject>(call, handle, "Request");
    if (request == nullptr || !Requires(call, memory, "Memory")) {
        return STATUS_INVALID_PARAMETER;
    }
    const BufferView view = ViewOf(call, *request, side);
    if (!NT_SUCCESS(view.status)) {
        return view.status;
    }
    MemoryObject*& kept = side == Side::kInput ? request->buffers.inputMemory : request->buffers.outputMemory;
    if (kept == nullptr) {
        auto object = std::make_unique<MemoryObject>(request->driver);
        kept = object.get();
        kept->buffer = view.begin;
        kept->sizeBytes = view.sizeBytes;
        kept->isReadOnly = side == Side::kInput && MethodOf(*request) != METHOD_BUFFERED;
        kept->noDelete = true;
        framework.objects.Register(std::move(object), request);
    }
    *memory = static_cast<WDFMEMORY>(kept->handle);
    return call.Done();
}

}  // namespace

NTSTATUS NTAPI RequestRetrieveInputBuffer(PWDF_DRIVER_GLOBALS, WDFREQUEST request, size_t minimum, PVOID* buffer,
                                          size_t* sizeBytes)
{
    const PlatformCall call("WdfRequestRetrieveInputBuffer", HOST_CALLER, DISPATCH_LEVEL);
    return RetrieveBuffer(call, request, Side::kInput, minimum, buffer, sizeBytes);
}

NTSTATUS NTAPI RequestRetrieveOutputBuffer(PWDF_DRIVER_GLOBALS, WDFREQUEST request, size_t minimum, PVOID* buffer,
                                           size_t* sizeBytes)
{
    const PlatformCall call("WdfRequestRetrieveOutputBuffer", HOST_CALLER, DISPATCH_LEVEL);
    return RetrieveBuffer(call, request, Side::kOutput, minimum, buffer, sizeBytes);
}

NTSTATUS NTAPI RequestRetrieveInputMemory(PWDF_DRIVER_GLOBALS, WDFREQUEST request, WDFMEMORY* memory)
{
    const PlatformCall call("WdfRequestRetrieveInputMemory", HOST_CALLER, DISPATCH_LEVEL);
    return RetrieveMemory(call, request, Side::kInput, memory);
}

NTSTATUS NTAPI RequestRetrieveOutputMemory(PWDF_DRIVER_GLOBALS, WDFREQUEST request, WDFMEMORY* memory)
{
    const PlatformCall call("WdfRequestRetrieveOutputMemory", HOST_CALLER, DISPATCH_LEVEL);
    return RetrieveMemory(call, request, Side::kOutput, memory);
}

void NTAPI RequestGetParameters(PWDF_DRIVER_GLOBALS, WDFREQUEST handle, PWDF_REQUEST_PARAMETERS parameters)
{
    const PlatformCall call("WdfRequestGetParameters", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* request = framework.objects.Resolve<RequestObject>(call, handle, "Request");
    if (request == nullptr || !Requires(call, parameters, "Parameters")) {
        return;
    }
    if (parameters->Size != sizeof(WDF_REQUEST_PARAMETERS)) {
        call.Violation(Rule::kBadParameter, "a structure of " + std::to_string(parameters->Size) +
                                                " bytes instead of " + std::to_string(sizeof(WDF_REQUEST_PARAMETERS)) +
                                                "; nothing is stored");
        return;
    }
    *parameters = {};
    parameters->Size = sizeof(WDF_REQUEST_PARAMETERS);
    if (request->kind == RequestKind::kDeviceControl) {
        parameters->Type = WdfRequestTypeDeviceControl;
        parameters->Parameters.DeviceIoControl.OutputBufferLength = request->outputBytes;
        parameters->Parameters.DeviceIoControl.InputBufferLength = request->inputBytes;
        parameters->Parameters.DeviceIoControl.IoControlCode = request->code;
    }
}

void NTAPI RequestSetInformation(PWDF_DRIVER_GLOBALS, WDFREQUEST handle, ULONG_PTR information)
{
    const PlatformCall call("WdfRequestSetInformation", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    if (auto* request = framework.objects.Resolve<RequestObject>(call, handle, "Request")) {
        request->information = information;
    }
}

ULONG_PTR NTAPI RequestGetInformation(PWDF_DRIVER_GLOBALS, WDFREQUEST handle)
{
    const PlatformCall call("WdfRequestGetInformation", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* request = framework.objects.Resolve<RequestObject>(call, handle, "Request");
    return request == nullptr ? 0 : request->information;
}

}  // namespace functions
}  // namespace host::framework
