// What the driver frame's files share among themselves.
#pragma once

#include <ntddk.h>

#include <wdf.h>

struct ZEP_NOTIFIER_DRIVER_CONTEXT;

// Reference tracking names the power callback's hold on the driver object by these. On purpose: fixed, whatever the
// source looks like.
inline constexpr char kReferenceFile[] = "driver";
inline constexpr LONG kReferenceLine = 769;
inline constexpr LONG kDereferenceLine = 1092;

// Creates the default queue, a child of the device, and stores its handle in the driver context.
[[nodiscard]] NTSTATUS CreateDefaultQueue(WDFDEVICE device, ZEP_NOTIFIER_DRIVER_CONTEXT& context);

// Publishes both device interfaces, then both query interfaces, the crash-dump driver's first each time.
[[nodiscard]] NTSTATUS PublishInterfaces(WDFDEVICE device);

// Opens \Callback\PowerState and registers for it; on success the driver object carries one more reference.
[[nodiscard]] NTSTATUS RegisterPowerStateCallback(WDFDRIVER driver, ZEP_NOTIFIER_DRIVER_CONTEXT& context);
