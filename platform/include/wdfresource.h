// Lists of the hardware resources that a device got. Included by wdf.h.
#pragma once

WDF_CALL(304, WdfCmResourceListGetCount, ULONG, (WDFCMRESLIST List), (List))
WDF_CALL(305, WdfCmResourceListGetDescriptor, PCM_PARTIAL_RESOURCE_DESCRIPTOR, (WDFCMRESLIST List, ULONG Index), (List, Index))
