// The version of the framework that a driver runs on. Included by wdf.h.
#pragma once

typedef struct _WDF_DRIVER_VERSION_AVAILABLE_PARAMS {
    ULONG Size;
    ULONG MajorVersion;
    ULONG MinorVersion;
} WDF_DRIVER_VERSION_AVAILABLE_PARAMS, *PWDF_DRIVER_VERSION_AVAILABLE_PARAMS;
PLATFORM_SIZE(WDF_DRIVER_VERSION_AVAILABLE_PARAMS, 12);

FORCEINLINE VOID WDF_DRIVER_VERSION_AVAILABLE_PARAMS_INIT(PWDF_DRIVER_VERSION_AVAILABLE_PARAMS Params,
                                                          ULONG MajorVersion, ULONG MinorVersion)
{
    RtlZeroMemory(Params, sizeof(WDF_DRIVER_VERSION_AVAILABLE_PARAMS));
    Params->Size = sizeof(WDF_DRIVER_VERSION_AVAILABLE_PARAMS);
    Params->MajorVersion = MajorVersion;
    Params->MinorVersion = MinorVersion;
}

WDF_CALL(122, WdfDriverRetrieveVersionString, NTSTATUS, (WDFDRIVER Driver, WDFSTRING String), (Driver, String))
WDF_CALL(123, WdfDriverIsVersionAvailable, BOOLEAN,
         (WDFDRIVER Driver, PWDF_DRIVER_VERSION_AVAILABLE_PARAMS VersionAvailableParams),
         (Driver, VersionAvailableParams))
