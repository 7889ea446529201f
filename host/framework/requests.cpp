// Requests and file objects: opening, I/O controls through the default queue, closing; and completion with its checks.
//
// Delivery is in the caller's thread, inside a critical region. A request object lives until its sender has its result.
#include "host/framework/devices.h"
#include "host/framework/functions.h"

namespace host::framework {

using checks::Rule;

namespace {

RequestObject& MakeRequest(Framework& framework, DeviceObject& device, RequestKind kind)
{
    auto object = std::make_unique<RequestObject>(device.driver);
    RequestObject& request = *object;
    request.kind = kind;
    framework.Register(std::move(object), nullptr);
    return request;
}

// Takes the result; a request that is still with the driver stays.
RequestResult TakeResult(Framework& framework, std::unique_lock<std::mutex>& lock, RequestObject& request)
{
    const RequestResult result{request.status, request.information, request.completed};
    if (request.completed) {
        request.deleted = true;
        framework.Finish(lock, request);
    }
    return result;
}

void Present(Framework& framework, RequestObject& request)
{
    const QueueObject& queue = *request.queue;
    ++ThreadState::Current().criticalRegions;
    framework.Guarded("EvtIoDeviceControl", reinterpret_cast<const void*>(queue.config.EvtIoDeviceControl), [&] {
        queue.config.EvtIoDeviceControl(static_cast<WDFQUEUE>(queue.handle), static_cast<WDFREQUEST>(request.handle),
                                        request.outputBytes, request.inputBytes, request.code);
    });
    --ThreadState::Current().criticalRegions;
}

}  // namespace

RequestResult OpenFile(Framework& framework, DeviceObject& device, FileObjectObject*& file)
{
    file = nullptr;
    std::unique_lock lock(framework.mutex);
    if (device.stage != DeviceStage::kStarted && device.stage != DeviceStage::kAdded) {
        return {STATUS_NO_SUCH_DEVICE, 0, true};
    }
    auto object = std::make_unique<FileObjectObject>(device.driver);
    FileObjectObject& opened = *object;
    opened.device = &device;
    opened.executionLevel = WdfExecutionLevelPassive;
    framework.Register(std::move(object), &device);

    RequestResult result{STATUS_SUCCESS, 0, true};
    if (device.hasFiles && device.files.EvtDeviceFileCreate != nullptr) {
        RequestObject& request = MakeRequest(framework, device, RequestKind::kCreate);
        request.file = &opened;
        const auto create = device.files.EvtDeviceFileCreate;
        lock.unlock();
        framework.Guarded("EvtDeviceFileCreate", reinterpret_cast<const void*>(create), [&] {
            create(static_cast<WDFDEVICE>(device.handle), static_cast<WDFREQUEST>(request.handle),
                   static_cast<WDFFILEOBJECT>(opened.handle));
        });
        lock.lock();
        result = TakeResult(framework, lock, request);
    }
    if (!NT_SUCCESS(result.status) || !result.completed) {
        framework.Delete(lock, opened);
        return result;
    }
    ++device.openFiles;
    file = &opened;
    return result;
}

void CloseFile(Framework& framework, FileObjectObject& file)
{
    DeviceObject& device = *file.device;
    if (device.hasFiles && device.files.EvtFileCleanup != nullptr) {
        framework.Guarded("EvtFileCleanup", reinterpret_cast<const void*>(device.files.EvtFileCleanup),
                          [&] { device.files.EvtFileCleanup(static_cast<WDFFILEOBJECT>(file.handle)); });
    }
    if (device.hasFiles && device.files.EvtFileClose != nullptr) {
        framework.Guarded("EvtFileClose", reinterpret_cast<const void*>(device.files.EvtFileClose),
                          [&] { device.files.EvtFileClose(static_cast<WDFFILEOBJECT>(file.handle)); });
    }
    std::unique_lock lock(framework.mutex);
    --device.openFiles;
    framework.Delete(lock, file);
}

RequestResult DeviceControl(Framework& framework, FileObjectObject& file, std::uint32_t code, std::size_t inputBytes,
                            std::size_t outputBytes)
{
    DeviceObject& device = *file.device;
    std::unique_lock lock(framework.mutex);
    QueueObject* queue = device.defaultQueue;
    if (queue == nullptr || queue->gone || device.stage == DeviceStage::kRemoved) {
        return {STATUS_INVALID_DEVICE_STATE, 0, true};
    }
    if (queue->config.EvtIoDeviceControl == nullptr) {
        return {STATUS_INVALID_DEVICE_REQUEST, 0, true};
    }
    RequestObject& request = MakeRequest(framework, device, RequestKind::kDeviceControl);
    request.queue = queue;
    request.file = &file;
    request.code = code;
    request.inputBytes = inputBytes;
    request.outputBytes = outputBytes;

    // Sequential: the next request is presented when the former is completed.
    const bool sequential = queue->config.DispatchType == WdfIoQueueDispatchSequential;
    if (sequential && queue->presented != nullptr) {
        queue->waiting.push_back(&request);
        queue->completed.wait(lock, [&] {
            return request.completed || (queue->presented == nullptr && queue->waiting.front() == &request);
        });
        if (request.completed) {
            return TakeResult(framework, lock, request);
        }
        queue->waiting.pop_front();
    }
    queue->presented = sequential ? &request : nullptr;
    lock.unlock();
    Present(framework, request);
    lock.lock();
    return TakeResult(framework, lock, request);
}

namespace functions {
namespace {

void Complete(const PlatformCall& call, WDFREQUEST handle, NTSTATUS status, std::uint64_t information)
{
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    auto* request = framework.Resolve<RequestObject>(call, handle, "Request");
    if (request == nullptr) {
        return;
    }
    if (request->completed) {
        call.Violation(Rule::kRequestCompletedTwice, Framework::Describe(*request) + " was completed before");
        return;
    }
    if (request->kind == RequestKind::kDeviceControl && information > request->outputBytes) {
        call.Violation(Rule::kRequestInformation, std::to_string(information) + " bytes for an output buffer of " +
                                                      std::to_string(request->outputBytes));
    }
    request->completed = true;
    request->status = status;
    request->information = information;
    if (request->queue != nullptr && request->queue->presented == request) {
        request->queue->presented = nullptr;
        request->queue->completed.notify_all();
    }
}

}  // namespace

void NTAPI RequestComplete(PWDF_DRIVER_GLOBALS, WDFREQUEST handle, NTSTATUS status)
{
    const PlatformCall call("WdfRequestComplete", HOST_CALLER, DISPATCH_LEVEL);
    Complete(call, handle, status, 0);
}

void NTAPI RequestCompleteWithInformation(PWDF_DRIVER_GLOBALS, WDFREQUEST handle, NTSTATUS status,
                                          ULONG_PTR information)
{
    const PlatformCall call("WdfRequestCompleteWithInformation", HOST_CALLER, DISPATCH_LEVEL);
    Complete(call, handle, status, information);
}

WDFFILEOBJECT NTAPI RequestGetFileObject(PWDF_DRIVER_GLOBALS, WDFREQUEST handle)
{
    const PlatformCall call("WdfRequestGetFileObject", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* request = framework.Resolve<RequestObject>(call, handle, "Request");
    return request == nullptr || request->file == nullptr ? nullptr
                                                          : static_cast<WDFFILEOBJECT>(request->file->handle);
}

WDFQUEUE NTAPI RequestGetIoQueue(PWDF_DRIVER_GLOBALS, WDFREQUEST handle)
{
    const PlatformCall call("WdfRequestGetIoQueue", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* request = framework.Resolve<RequestObject>(call, handle, "Request");
    return request == nullptr || request->queue == nullptr ? nullptr : static_cast<WDFQUEUE>(request->queue->handle);
}

}  // namespace functions
}  // namespace host::framework
