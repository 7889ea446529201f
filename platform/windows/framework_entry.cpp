// The image's entry point: binds the driver to the framework before its own entry runs, and unbinds it after its
// unload.
//
// The WDK links a static library for this; an image built without the WDK brings its own. The framework takes over the
// driver object's unload routine during driver creation; the stub puts itself in front, so that unbinding comes last.
#include <ntddk.h>

#include <wdf.h>

EXTERN_C DRIVER_INITIALIZE DriverEntry;
EXTERN_C DRIVER_INITIALIZE FxDriverEntry;

EXTERN_C const WDFFUNC* WdfFunctions_01015;
const WDFFUNC* WdfFunctions_01015;
PWDF_DRIVER_GLOBALS WdfDriverGlobals;

// The framework distinguishes clients of its first versions, which bring a table of their own, by this number.
constexpr ULONG kFunctionCount = 444;
constexpr USHORT kRegistryPathCharacters = 260;

static WCHAR g_ComponentName[] = L"KmdfLibrary";

// The loader keeps a pointer in it between bind and unbind.
static WDF_BIND_INFO g_BindInfo = {
    .Size = sizeof(WDF_BIND_INFO),
    .Component = g_ComponentName,
    .Version = {.Major = KMDF_VERSION_MAJOR, .Minor = KMDF_VERSION_MINOR, .Build = 0},
    .FuncCount = kFunctionCount,
    .FuncTable = &WdfFunctions_01015,
    .Module = nullptr,
};

// The system frees its string after the entry; unbinding needs it again.
static WCHAR g_RegistryPathBuffer[kRegistryPathCharacters];
static UNICODE_STRING g_RegistryPath = {
    .Length = 0, .MaximumLength = sizeof(g_RegistryPathBuffer), .Buffer = g_RegistryPathBuffer};

static PDRIVER_UNLOAD g_DisplacedUnload;

static DRIVER_UNLOAD FxStubDriverUnload;

static void FxStubDriverUnload(PDRIVER_OBJECT driverObject)
{
    if (g_DisplacedUnload != nullptr && g_DisplacedUnload != FxStubDriverUnload) {
        g_DisplacedUnload(driverObject);
    }
    (void)WdfVersionUnbind(&g_RegistryPath, &g_BindInfo, WdfDriverGlobals);
}

NTSTATUS FxDriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    if (driverObject == nullptr) {
        return DriverEntry(driverObject, registryPath);
    }
    RtlCopyUnicodeString(&g_RegistryPath, registryPath);

    NTSTATUS status = WdfVersionBind(driverObject, &g_RegistryPath, &g_BindInfo, &WdfDriverGlobals);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = DriverEntry(driverObject, registryPath);
    if (!NT_SUCCESS(status)) {
        (void)WdfVersionUnbind(&g_RegistryPath, &g_BindInfo, WdfDriverGlobals);
        return status;
    }
    if (WdfDriverGlobals->DisplaceDriverUnload != FALSE) {
        g_DisplacedUnload = driverObject->DriverUnload;
        driverObject->DriverUnload = FxStubDriverUnload;
    }
    return status;
}
