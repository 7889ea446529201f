// Requests and file objects: opening, I/O controls through the default queue, closing; and completion with its checks.
//
// Delivery is in the caller's thread, inside a critical region. A request object exists until its sender has its
// result.
#include "host/framework/devices.h"
#include "host/framework/functions.h"

#include <algorithm>

namespace host::framework {

using checks::Rule;

namespace {

RequestObject& MakeRequest(Framework& framework, DeviceObject& device, RequestKind kind, FileObjectObject& file)
{
    auto object = std::make_unique<RequestObject>(device.driver);
    RequestObject& request = *object;
    request.kind = kind;
    request.file = &file;
    ++file.requests;
    if (device.settings.requestAttributes) {
        framework.objects.ApplyAttributes(request, &*device.settings.requestAttributes);
    }
    framework.objects.Register(std::move(object), nullptr);
    return request;
}

// Takes the result and what goes back; a request that the driver still has is kept.
RequestResult TakeResult(Framework& framework, std::unique_lock<std::mutex>& lock, RequestObject& request,
                         std::span<std::byte> output = {})
{
    const RequestResult result{request.status, request.information, request.completed};
    request.isAbandoned = true;
    if (request.completed) {
        std::ranges::copy(request.buffers.result, output.begin());
        framework.objects.Delete(lock, request);
    }
    return result;
}

// Whether a file object of the device exists, if only of an opening that is under way.
bool IsOpen(const DeviceObject& device)
{
    for (const Object* child = device.firstChild(); child != nullptr; child = child->nextSibling()) {
        if (child->type == ObjectType::kFileObject) {
            return true;
        }
    }
    return false;
}

void Present(Framework& framework, QueueObject& queue, RequestObject& request)
{
    const auto queueHandle = static_cast<WDFQUEUE>(queue.handle);
    const auto requestHandle = static_cast<WDFREQUEST>(request.handle);
    if (const auto control = queue.config.EvtIoDeviceControl) {
        framework.threads.Guarded("EvtIoDeviceControl", reinterpret_cast<const void*>(control), [&] {
            control(queueHandle, requestHandle, request.outputBytes, request.inputBytes, request.code);
        });
    } else {
        const auto any = queue.config.EvtIoDefault;
        framework.threads.Guarded("EvtIoDefault", reinterpret_cast<const void*>(any),
                                  [&] { any(queueHandle, requestHandle); });
    }
}

bool MayPresent(const QueueObject& queue)
{
    return !queue.waiting.empty() && !queue.purged && (!queue.powerManaged || queue.device->inD0) &&
           (queue.config.DispatchType == WdfIoQueueDispatchParallel ||
            (queue.config.DispatchType == WdfIoQueueDispatchSequential && queue.presented.empty()));
}

bool HasHandler(const QueueObject& queue)
{
    return queue.config.EvtIoDeviceControl != nullptr || queue.config.EvtIoDefault != nullptr;
}

// EvtFileClose, then the deletion of the file object: the handle is closed and its last request is completed.
void FinishClose(Framework& framework, std::unique_lock<std::mutex>& lock, FileObjectObject& file)
{
    DeviceObject& device = *file.device;
    const auto close = device.hasFiles ? device.files.EvtFileClose : nullptr;
    if (close != nullptr) {
        lock.unlock();
        framework.threads.Guarded("EvtFileClose", reinterpret_cast<const void*>(close),
                                  [&] { close(static_cast<WDFFILEOBJECT>(file.handle)); });
        lock.lock();
    }
    framework.objects.Delete(lock, file);
}

}  // namespace

void Deliver(Framework& framework, std::unique_lock<std::mutex>& lock, QueueObject& queue)
{
    const ThreadState& thread = ThreadState::Current();
    if (std::find(queue.deliveringOn.begin(), queue.deliveringOn.end(), thread.id) != queue.deliveringOn.end()) {
        return;  // a completion inside the handler: the delivery around it continues
    }
    if (queue.executionLevel == WdfExecutionLevelPassive && thread.irql > PASSIVE_LEVEL) {
        ObjectTree::Reference(queue);
        framework.work.Defer(nullptr, nullptr, [&framework, &queue] {
            std::unique_lock later(framework.mutex);
            Deliver(framework, later, queue);
            framework.objects.Dereference(later, queue);
        });
        return;
    }
    const std::uint64_t self = thread.id;
    queue.deliveringOn.push_back(self);
    ObjectTree::Reference(queue);
    while (MayPresent(queue)) {
        RequestObject& request = *queue.waiting.front();
        queue.waiting.pop_front();
        queue.presented.push_back(&request);
        lock.unlock();
        ++ThreadState::Current().criticalRegions;
        Present(framework, queue, request);
        --ThreadState::Current().criticalRegions;
        lock.lock();
    }
    std::erase(queue.deliveringOn, self);
    framework.threads.NotifyWaiting();
    framework.objects.Dereference(lock, queue);
}

void CancelWaiting(Framework& framework, std::unique_lock<std::mutex>& lock, QueueObject& queue,
                   const FileObjectObject* file, NTSTATUS status)
{
    std::vector<RequestObject*> cancelled;
    std::erase_if(queue.waiting, [&](RequestObject* request) {
        const bool matches = file == nullptr || request->file == file;
        if (matches) {
            cancelled.push_back(request);
        }
        return matches;
    });
    for (RequestObject* request : cancelled) {
        CompleteRequest(framework, lock, *request, status, 0);
    }
}

void CompleteRequest(Framework& framework, std::unique_lock<std::mutex>& lock, RequestObject& request, NTSTATUS status,
                     std::uint64_t information)
{
    request.completed = true;
    request.status = status;
    request.information = information;
    ReclaimBuffers(request);
    QueueObject* queue = request.queue;
    FileObjectObject* file = request.file;
    if (queue != nullptr) {
        std::erase(queue->presented, &request);
    }
    if (request.isAbandoned) {
        framework.objects.Delete(lock, request);
    }
    framework.threads.NotifyWaiting();
    if (file != nullptr && --file->requests == 0 && file->closing) {
        FinishClose(framework, lock, *file);
    }
    if (queue != nullptr) {
        Deliver(framework, lock, *queue);
    }
}

RequestResult OpenFile(Framework& framework, DeviceObject& device, FileObjectObject*& file)
{
    file = nullptr;
    std::unique_lock lock(framework.mutex);
    if (device.pnpState != PnpState::kStarted && device.pnpState != PnpState::kAdded) {
        return {STATUS_NO_SUCH_DEVICE, 0, true};
    }
    if (device.settings.exclusive && IsOpen(device)) {
        return {STATUS_ACCESS_DENIED, 0, true};
    }
    auto object = std::make_unique<FileObjectObject>(device.driver);
    FileObjectObject& opened = *object;
    opened.device = &device;
    opened.executionLevel = WdfExecutionLevelPassive;
    if (device.fileAttributes) {
        framework.objects.ApplyAttributes(opened, &*device.fileAttributes);
    }
    framework.objects.Register(std::move(object), &device);

    RequestResult result{STATUS_SUCCESS, 0, true};
    if (device.hasFiles && device.files.EvtDeviceFileCreate != nullptr) {
        RequestObject& request = MakeRequest(framework, device, RequestKind::kCreate, opened);
        const auto create = device.files.EvtDeviceFileCreate;
        lock.unlock();
        framework.threads.Guarded("EvtDeviceFileCreate", reinterpret_cast<const void*>(create), [&] {
            create(static_cast<WDFDEVICE>(device.handle), static_cast<WDFREQUEST>(request.handle),
                   static_cast<WDFFILEOBJECT>(opened.handle));
        });
        lock.lock();
        if (!request.completed) {
            request.file = nullptr;  // the opener gives up, and its file object is deleted
        }
        result = TakeResult(framework, lock, request);
    }
    if (!NT_SUCCESS(result.status) || !result.completed) {
        framework.objects.Delete(lock, opened);
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
        framework.threads.Guarded("EvtFileCleanup", reinterpret_cast<const void*>(device.files.EvtFileCleanup),
                                  [&] { device.files.EvtFileCleanup(static_cast<WDFFILEOBJECT>(file.handle)); });
    }
    std::unique_lock lock(framework.mutex);
    for (QueueObject* queue : std::vector<QueueObject*>(device.queues)) {
        CancelWaiting(framework, lock, *queue, &file, STATUS_CANCELLED);
    }
    --device.openFiles;
    file.closing = true;
    if (file.requests == 0) {
        FinishClose(framework, lock, file);
    }
}

RequestResult DeviceControl(Framework& framework, FileObjectObject& file, std::uint32_t code,
                            std::span<const std::byte> input, std::span<std::byte> output)
{
    DeviceObject& device = *file.device;
    std::unique_lock lock(framework.mutex);
    QueueObject* queue = device.defaultQueue;
    if (queue == nullptr || queue->purged || device.pnpState == PnpState::kRemoved) {
        return {STATUS_INVALID_DEVICE_STATE, 0, true};
    }
    if (!HasHandler(*queue) && queue->config.DispatchType != WdfIoQueueDispatchManual) {
        return {STATUS_INVALID_DEVICE_REQUEST, 0, true};
    }
    RequestObject& request = MakeRequest(framework, device, RequestKind::kDeviceControl, file);
    request.queue = queue;
    request.code = code;
    request.inputBytes = input.size();
    request.outputBytes = output.size();
    LendBuffers(framework, request, input, output);
    queue->waiting.push_back(&request);
    ObjectTree::Reference(*queue);
    Deliver(framework, lock, *queue);

    // A sender whose request is queued after another one waits as long as a thread delivers from the queue.
    const auto isSettled = [&] { return request.completed || queue->deliveringOn.empty(); };
    (void)framework.threads.WaitFor(lock,
                                    {.subject = [&request] { return Describe(request); },
                                     .isReady = isSettled,
                                     .heldBy = [&] { return queue->deliveringOn; }},
                                    "I/O control", nullptr);
    const RequestResult result = TakeResult(framework, lock, request, output);
    framework.objects.Dereference(lock, *queue);
    return result;
}

namespace functions {
namespace {

// A request is destroyed when it is completed, so a second completion finds a dead handle.
RequestObject* ResolveIncomplete(const PlatformCall& call, Framework& framework, WDFREQUEST handle)
{
    if (framework.handles.WasRequest(handle)) {
        call.Violation(Rule::kRequestCompletedTwice, "the request was completed before and is destroyed");
        return nullptr;
    }
    auto* request = framework.objects.Resolve<RequestObject>(call, handle, "Request");
    if (request != nullptr && request->completed) {
        call.Violation(Rule::kRequestCompletedTwice, Describe(*request) + " was completed before");
        return nullptr;
    }
    return request;
}

// Information that is not given is what was set before.
void Complete(const PlatformCall& call, WDFREQUEST handle, NTSTATUS status, std::optional<std::uint64_t> given)
{
    Framework& framework = Framework::Current();
    std::unique_lock lock(framework.mutex);
    RequestObject* request = ResolveIncomplete(call, framework, handle);
    if (request == nullptr) {
        return;
    }
    const std::uint64_t information = given.value_or(request->information);
    if (request->kind == RequestKind::kDeviceControl && information > request->outputBytes) {
        call.Violation(Rule::kRequestInformation, std::to_string(information) + " bytes for an output buffer of " +
                                                      std::to_string(request->outputBytes));
    }
    CompleteRequest(framework, lock, *request, status, information);
}

}  // namespace

void NTAPI RequestComplete(PWDF_DRIVER_GLOBALS, WDFREQUEST handle, NTSTATUS status)
{
    const PlatformCall call("WdfRequestComplete", HOST_CALLER, DISPATCH_LEVEL);
    Complete(call, handle, status, std::nullopt);
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
    const auto* request = framework.objects.Resolve<RequestObject>(call, handle, "Request");
    return request == nullptr || request->file == nullptr ? nullptr : static_cast<WDFFILEOBJECT>(request->file->handle);
}

WDFDEVICE NTAPI FileObjectGetDevice(PWDF_DRIVER_GLOBALS, WDFFILEOBJECT handle)
{
    const PlatformCall call("WdfFileObjectGetDevice", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* file = framework.objects.Resolve<FileObjectObject>(call, handle, "FileObject");
    return file == nullptr ? nullptr : static_cast<WDFDEVICE>(file->device->handle);
}

WDFQUEUE NTAPI RequestGetIoQueue(PWDF_DRIVER_GLOBALS, WDFREQUEST handle)
{
    const PlatformCall call("WdfRequestGetIoQueue", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    const auto* request = framework.objects.Resolve<RequestObject>(call, handle, "Request");
    return request == nullptr || request->queue == nullptr ? nullptr : static_cast<WDFQUEUE>(request->queue->handle);
}

}  // namespace functions
}  // namespace host::framework
