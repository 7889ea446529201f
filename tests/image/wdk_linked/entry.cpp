// An entry stub as current kits link it: the bind record of 1.25 and later, class extensions between two markers, and
// the loader's functions for them, which the image imports and here never calls.
#include <fxldr.h>

EXTERN_C DRIVER_INITIALIZE DriverEntry;
EXTERN_C DRIVER_INITIALIZE FxDriverEntry;

EXTERN_C const WDFFUNC* WdfFunctions_01033;
const WDFFUNC* WdfFunctions_01033;
// What wdf.h calls through is the same variable.
#pragma comment(linker, "/alternatename:WdfFunctions_01015=WdfFunctions_01033")
PWDF_DRIVER_GLOBALS WdfDriverGlobals;
static ULONG g_MinimumVersionRequired = 33;
static BOOLEAN g_ClientVersionHigherThanFramework = TRUE;
static ULONG g_FunctionCount;
static ULONG g_StructureCount;
static const size_t* g_Structures;

static WCHAR g_ComponentName[] = L"KmdfLibrary";
static WDF_BIND_INFO2 g_BindInfo = {
    .V1 = {.Size = sizeof(WDF_BIND_INFO2),
           .Component = g_ComponentName,
           .Version = {.Major = 1, .Minor = 33, .Build = 0},
           .FuncCount = 458,
           .FuncTable = &WdfFunctions_01033,
           .Module = nullptr},
    .MinimumVersionRequired = &g_MinimumVersionRequired,
    .ClientVersionHigherThanFramework = &g_ClientVersionHigherThanFramework,
    .FunctionCount = &g_FunctionCount,
    .StructureCount = &g_StructureCount,
    .Structures = &g_Structures,
};

#pragma section(".kmdfclassbind$a", read, write)
#pragma section(".kmdfclassbind$d", read, write)
__declspec(allocate(".kmdfclassbind$a")) static WDF_CLASS_BIND_INFO* g_ClassBindStart;
__declspec(allocate(".kmdfclassbind$d")) static WDF_CLASS_BIND_INFO* g_ClassBindEnd;

static WCHAR g_RegistryPathBuffer[260];
static UNICODE_STRING g_RegistryPath = {
    .Length = 0, .MaximumLength = sizeof(g_RegistryPathBuffer), .Buffer = g_RegistryPathBuffer};
static PDRIVER_UNLOAD g_DisplacedUnload;

static NTSTATUS BindClasses()
{
    NTSTATUS status = STATUS_SUCCESS;
    for (WDF_CLASS_BIND_INFO* volatile* at = &g_ClassBindStart + 1; NT_SUCCESS(status) && at < &g_ClassBindEnd; ++at) {
        status = WdfVersionBindClass(&g_BindInfo.V1, WdfDriverGlobals, *at);
    }
    return status;
}

static void Unbind()
{
    for (WDF_CLASS_BIND_INFO* volatile* at = &g_ClassBindStart + 1; at < &g_ClassBindEnd; ++at) {
        WdfVersionUnbindClass(&g_BindInfo.V1, WdfDriverGlobals, *at);
    }
    (void)WdfVersionUnbind(&g_RegistryPath, &g_BindInfo.V1, WdfDriverGlobals);
}

static void NTAPI StubUnload(PDRIVER_OBJECT driverObject)
{
    g_DisplacedUnload(driverObject);
    Unbind();
}

NTSTATUS FxDriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    RtlCopyUnicodeString(&g_RegistryPath, registryPath);
    NTSTATUS status = WdfVersionBind(driverObject, &g_RegistryPath, &g_BindInfo.V1, &WdfDriverGlobals);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = BindClasses();
    if (NT_SUCCESS(status)) {
        status = DriverEntry(driverObject, registryPath);
    }
    if (!NT_SUCCESS(status)) {
        DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "DriverEntry failed 0x%x for driver %wZ\n", status,
                   &g_RegistryPath);
        WDF_LOADER_INTERFACE_HEADER header = {nullptr, sizeof(header)};
        (void)WdfLdrQueryInterface(&header);
        Unbind();
        return status;
    }
    g_DisplacedUnload = driverObject->DriverUnload;
    driverObject->DriverUnload = StubUnload;
    DbgPrint("bound: %u functions, higher %u\n", g_FunctionCount, g_ClientVersionHigherThanFramework);
    return STATUS_SUCCESS;
}
