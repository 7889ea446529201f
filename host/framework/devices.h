// Devices, queues, requests and file objects.
#pragma once

#include "host/framework/device_objects.h"
#include "host/framework/framework.h"
#include "host/framework/request_buffers.h"
#include "host/framework/self_managed_io.h"

#include <deque>
#include <list>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace host::framework {

// What init functions record beside names and callbacks.
struct DeviceSettings {
    DEVICE_TYPE deviceType = FILE_DEVICE_UNKNOWN;
    ULONG characteristics = FILE_DEVICE_SECURE_OPEN;
    bool exclusive = false;
    bool powerPageable = true;
    bool powerInrush = false;
    bool ownsPowerPolicy = true;
    std::optional<WDF_OBJECT_ATTRIBUTES> requestAttributes;
};

}  // namespace host::framework

// What a driver records between EvtDriverDeviceAdd and WdfDeviceCreate; opaque to it.
struct WDFDEVICE_INIT {
    host::framework::DriverInstance* driver = nullptr;
    WDF_DEVICE_IO_TYPE ioType = WdfDeviceIoBuffered;
    std::string name;
    WDF_PNPPOWER_EVENT_CALLBACKS powerCallbacks{};
    WDF_FILEOBJECT_CONFIG fileConfig{};
    bool hasFileConfig = false;
    std::optional<WDF_OBJECT_ATTRIBUTES> fileAttributes;
    host::framework::DeviceSettings settings;
    bool consumed = false;  // by WdfDeviceCreate; the framework owns it then
};

namespace host::framework {

struct DeviceInterface {
    GUID interfaceClass;
    std::optional<std::string> referenceString;
    bool enabled = false;
};

struct QueryInterfaceEntry {
    GUID type;
    std::vector<std::byte> table;  // the INTERFACE and what follows it; empty: none was given
    bool imports;                  // the callback fills in the requester's table, nothing is copied
    PFN_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST process;
};

struct QueueObject;

enum class PnpState { kAdded, kStarted, kSurpriseRemoved, kRemoved };

struct DeviceObject final : Object {
    explicit DeviceObject(DriverInstance* owner) : Object(ObjectType::kDevice, owner) { noDelete = true; }
    void OnFinished(Framework& framework, std::unique_lock<std::mutex>& lock) override;
    [[nodiscard]] bool NeedsPassiveLevel() const override { return true; }

    PnpState pnpState = PnpState::kAdded;
    bool inD0 = false;
    int stopRemoveRefusals = 0;  // not 0: refused, also when it was taken back once too often
    std::string deviceName;
    std::string symbolicLink;
    WDF_PNPPOWER_EVENT_CALLBACKS power{};
    WDF_FILEOBJECT_CONFIG files{};
    bool hasFiles = false;
    std::optional<WDF_OBJECT_ATTRIBUTES> fileAttributes;
    DeviceSettings settings;
    std::optional<bool> hasSystemManagedIdle;  // who says when the device is idle; empty until the driver assigns it
    std::unique_ptr<WdmDeviceObjects> wdm;
    SelfManagedIo selfManagedIo;                 // of who drives the device
    WDFCMRESLIST resourcesTranslated = nullptr;  // since its start
    std::list<DeviceInterface> interfaces;
    std::list<QueryInterfaceEntry> queryInterfaces;
    QueueObject* defaultQueue = nullptr;
    std::vector<QueueObject*> queues;
    unsigned openFiles = 0;
};

struct RequestObject;

struct QueueObject final : Object {
    explicit QueueObject(DriverInstance* owner) : Object(ObjectType::kQueue, owner) {}
    void OnDispose(Framework& framework, std::unique_lock<std::mutex>& lock) override;
    [[nodiscard]] bool NeedsPassiveLevel() const override { return true; }
    void Show(ObjectSnapshot& view) const override { view.config = &config; }

    DeviceObject* device = nullptr;
    WDF_IO_QUEUE_CONFIG config{};
    bool powerManaged = false;
    bool purged = false;                      // nothing is accepted any more
    std::deque<RequestObject*> waiting;       // not with the driver yet
    std::vector<RequestObject*> presented;    // with the driver
    std::vector<std::uint64_t> deliveringOn;  // threads that hand requests to the driver now
};

struct FileObjectObject final : Object {
    explicit FileObjectObject(DriverInstance* owner) : Object(ObjectType::kFileObject, owner) { noDelete = true; }
    [[nodiscard]] bool NeedsPassiveLevel() const override { return true; }

    DeviceObject* device = nullptr;
    unsigned requests = 0;  // not completed yet
    bool closing = false;   // the last handle is closed; EvtFileClose waits for the requests
};

enum class RequestKind { kCreate, kDeviceControl };

struct RequestObject final : Object {
    explicit RequestObject(DriverInstance* owner) : Object(ObjectType::kRequest, owner) { noDelete = true; }
    RequestKind kind = RequestKind::kDeviceControl;
    QueueObject* queue = nullptr;
    FileObjectObject* file = nullptr;
    std::uint32_t code = 0;
    std::size_t inputBytes = 0;
    std::size_t outputBytes = 0;
    bool completed = false;
    NTSTATUS status = STATUS_PENDING;
    std::uint64_t information = 0;
    RequestBuffers buffers;
    bool isAbandoned = false;  // nobody waits for the result any more
};

template <>
inline constexpr ObjectType kTypeOf<DeviceObject> = ObjectType::kDevice;
template <>
inline constexpr ObjectType kTypeOf<QueueObject> = ObjectType::kQueue;
template <>
inline constexpr ObjectType kTypeOf<FileObjectObject> = ObjectType::kFileObject;
template <>
inline constexpr ObjectType kTypeOf<RequestObject> = ObjectType::kRequest;

// ---- What plug and play and user mode do to a device (device.cpp, interfaces.cpp, requests.cpp) ----

NTSTATUS AddDevice(Framework& framework, DriverInstance& driver);
NTSTATUS StartDevice(Framework& framework, DeviceObject& device);
NTSTATUS SleepDevice(Framework& framework, DeviceObject& device);
NTSTATUS WakeDevice(Framework& framework, DeviceObject& device);
NTSTATUS SurpriseRemoveDevice(Framework& framework, DeviceObject& device);
// Stops the device if it still runs, and disposes it; on a thread that may park while it waits for work items.
void RemoveDevice(Framework& framework, DeviceObject& device);
// The last step of a removal, and what follows a failed device add.
void DisposeDevice(Framework& framework, DeviceObject& device);

NTSTATUS QueryInterface(Framework& framework, DeviceObject& device, const GUID& type, std::span<std::byte> buffer,
                        std::uint16_t version);
// The same for a driver that asks another.
NTSTATUS QueryInterfaceForDriver(Framework& framework, DeviceObject& device, const GUID& type,
                                 std::span<std::byte> buffer, std::uint16_t version);

struct RequestResult {
    NTSTATUS status;
    std::uint64_t information;
    bool completed;
};
RequestResult OpenFile(Framework& framework, DeviceObject& device, FileObjectObject*& file);
void CloseFile(Framework& framework, FileObjectObject& file);
RequestResult DeviceControl(Framework& framework, FileObjectObject& file, std::uint32_t code,
                            std::span<const std::byte> input, std::span<std::byte> output);

// Hands waiting requests to the driver as long as the queue may; the lock is released meanwhile.
void Deliver(Framework& framework, std::unique_lock<std::mutex>& lock, QueueObject& queue);

// Completes what waits in a queue, of one file or of all.
void CancelWaiting(Framework& framework, std::unique_lock<std::mutex>& lock, QueueObject& queue,
                   const FileObjectObject* file, NTSTATUS status);

// Completes a request: its result is there, its queue and its file are notified.
void CompleteRequest(Framework& framework, std::unique_lock<std::mutex>& lock, RequestObject& request, NTSTATUS status,
                     std::uint64_t information);

[[nodiscard]] bool SameGuid(const GUID& first, const GUID& second);

}  // namespace host::framework
