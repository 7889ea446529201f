// A driver that a machine has loaded: its device, its interfaces and its files, as the system and user mode use them.
#pragma once

#include "host/framework/holdings.h"
#include "host/results.h"

#include <ntddk.h>

#include <wdf.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <vector>

namespace host {

namespace framework {
struct DriverInstance;
struct FileObjectObject;
}  // namespace framework

class Machine;

// References stay valid until the machine ends, also after Unload.
class Driver {
public:
    // Status of the entry point. After a failed entry the image is unmapped again and nothing else may be called.
    [[nodiscard]] NTSTATUS EntryStatus() const;

    // Plug and play. AddDevice enumerates one device node and runs EvtDriverDeviceAdd; on failure the framework's
    // failed-creation path has run. At most one device of a driver exists at a time (a second AddDevice is allowed
    // after, or for a test while, the first exists; the calls below then mean the newest device). The framework takes
    // any status of the success class from the device's callbacks; the first that is not STATUS_SUCCESS is returned.
    NTSTATUS AddDevice();
    NTSTATUS StartDevice();
    NTSTATUS QueryStopDevice();
    NTSTATUS QueryRemoveDevice();     // asks also those who hold the device open
    NTSTATUS Sleep();                 // D0Exit(D3)
    NTSTATUS Wake();                  // D0Entry(D3)
    NTSTATUS SurpriseRemoveDevice();  // the surprise-removal half; the device answers on until RemoveDevice
    Outcome RemoveDevice();  // IRP_MN_REMOVE_DEVICE once no handle is open; waits for work items, so it can park
    [[nodiscard]] bool HasDevice() const;
    [[nodiscard]] WDFDEVICE Device() const;

    // Unloads: runs the unload routine, unbinds, reports what is left, unmaps. No device may exist. When the routine
    // parks, the driver stays loaded.
    Outcome Unload();
    [[nodiscard]] bool IsLoaded() const;

    // IRP_MN_QUERY_INTERFACE to the device. `buffer` receives at most buffer.size() bytes.
    NTSTATUS QueryInterface(const GUID& type, std::span<std::byte> buffer, std::uint16_t version);

    // Whether an interface of the class is enabled now; every change that the driver itself asked for, oldest first.
    struct InterfaceChange {
        GUID interfaceClass;
        bool enabled;
    };
    [[nodiscard]] bool IsInterfaceEnabled(const GUID& interfaceClass) const;
    [[nodiscard]] std::vector<InterfaceChange> InterfaceChanges() const;

    // The open handles of all its devices: of applications, and of the I/O targets of other drivers.
    [[nodiscard]] unsigned OpenHandles() const;

    // What the driver holds now, by the calls that made it.
    [[nodiscard]] std::vector<framework::Holding> Holdings() const;

    // File handles and I/O controls, as user mode would make them; from any thread.
    IoResult Open(FileId& file);
    void Close(FileId file);  // cleanup and close
    IoResult DeviceControl(FileId file, std::uint32_t code, std::span<const std::byte> input = {},
                           std::span<std::byte> output = {});

    // For inspection: the WDFDRIVER, the tag of what the framework allocates for the driver, where the image lies.
    [[nodiscard]] WDFDRIVER Handle() const;
    [[nodiscard]] std::uint32_t PoolTag() const;  // 0 while not bound
    [[nodiscard]] const void* ImageBase() const;
    [[nodiscard]] std::size_t ImageSizeBytes() const;

private:
    friend class Machine;
    Driver(Machine& machine, framework::DriverInstance& instance);

    Machine& machine_;
    framework::DriverInstance& instance_;
    framework::FileObjectObject& FileOf(FileId file, bool forget);

    std::mutex filesMutex_;
    std::map<FileId, framework::FileObjectObject*> files_;
    FileId nextFile_ = 1;

public:
    ~Driver();
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;
};

}  // namespace host
