#include "host/framework/resource_lists.h"

#include "host/framework/devices.h"
#include "host/framework/functions.h"

namespace host::framework {

WDFCMRESLIST NewResourceList(Framework& framework, DeviceObject& device)
{
    const std::lock_guard lock(framework.mutex);
    auto object = std::make_unique<ResourceListObject>(device.driver);
    ResourceListObject& list = *object;
    framework.objects.Register(std::move(object), &device);
    return static_cast<WDFCMRESLIST>(list.handle);
}

namespace functions {

ULONG NTAPI CmResourceListGetCount(PWDF_DRIVER_GLOBALS, WDFCMRESLIST handle)
{
    const PlatformCall call("WdfCmResourceListGetCount", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    (void)framework.objects.Resolve<ResourceListObject>(call, handle, "List");
    return 0;
}

PCM_PARTIAL_RESOURCE_DESCRIPTOR NTAPI CmResourceListGetDescriptor(PWDF_DRIVER_GLOBALS, WDFCMRESLIST handle, ULONG)
{
    const PlatformCall call("WdfCmResourceListGetDescriptor", HOST_CALLER, DISPATCH_LEVEL);
    Framework& framework = Framework::Current();
    const std::lock_guard lock(framework.mutex);
    (void)framework.objects.Resolve<ResourceListObject>(call, handle, "List");
    return nullptr;  // every index lies beyond the end
}

}  // namespace functions
}  // namespace host::framework
