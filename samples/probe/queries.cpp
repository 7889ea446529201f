// Query interfaces, which the device asks of its own stack, and registry values.
#include "samples/probe/probe.h"

typedef struct _QUERY_TABLE {
    INTERFACE Header;
    ULONG Number;
} QUERY_TABLE;

static const GUID kType = {0x6C7C7C9F, 0x0FD6, 0x4C4F, {0x8E, 0x55, 0x90, 0x2C, 0x7B, 0x8F, 0x1A, 0x01}};
static ULONG g_References;

static VOID NTAPI CountReference(PVOID)
{
    ++g_References;
}

static VOID NTAPI CountDereference(PVOID)
{
    --g_References;
}

static NTSTATUS AddTable(WDFDEVICE device, USHORT size, USHORT version, ULONG number)
{
    QUERY_TABLE table;
    RtlZeroMemory(&table, sizeof(table));
    table.Header.Size = size;
    table.Header.Version = version;
    table.Header.InterfaceReference = CountReference;
    table.Header.InterfaceDereference = CountDereference;
    table.Number = number;
    WDF_QUERY_INTERFACE_CONFIG config;
    WDF_QUERY_INTERFACE_CONFIG_INIT(&config, &table.Header, &kType, NULL);
    return WdfDeviceAddQueryInterface(device, &config);
}

static NTSTATUS Query(WDFDEVICE device, USHORT size, USHORT version, QUERY_TABLE* table)
{
    RtlZeroMemory(table, sizeof(*table));
    return WdfFdoQueryForInterface(device, &kType, &table->Header, size, version, NULL);
}

VOID AskQueries(WDFDEVICE device)
{
    WDF_QUERY_INTERFACE_CONFIG config;
    WDF_QUERY_INTERFACE_CONFIG_INIT(&config, NULL, &kType, NULL);
    Answer(L"QueryInterface.NoTable", (ULONG)WdfDeviceAddQueryInterface(device, &config));
    Answer(L"QueryInterface.SmallTable", (ULONG)AddTable(device, sizeof(INTERFACE) - 1, 2, 0));

    QUERY_TABLE table;
    Answer(L"QueryInterface.NobodyAnswers", (ULONG)Query(device, sizeof(table), 2, &table));
    if (!NT_SUCCESS(AddTable(device, sizeof(QUERY_TABLE), 2, 20))) {
        return;
    }
    Answer(L"QueryInterface.SmallerThanOffered", (ULONG)Query(device, sizeof(INTERFACE), 2, &table));
    Answer(L"QueryInterface.OlderThanOffered", (ULONG)Query(device, sizeof(table), 1, &table));
    Answer(L"QueryInterface.NotReferencedYet", g_References);
    Answer(L"QueryInterface.NewerThanOffered", (ULONG)Query(device, sizeof(table), 9, &table));
    Answer(L"QueryInterface.ReferenceIsCalled", g_References);
    Answer(L"QueryInterface.VersionThatIsThere", table.Header.Version);

    // A second table of the type that would suit: the first decides.
    if (NT_SUCCESS(AddTable(device, sizeof(QUERY_TABLE), 1, 10))) {
        Answer(L"QueryInterface.SecondWouldSuit", (ULONG)Query(device, sizeof(table), 1, &table));
        (void)Query(device, sizeof(table), 2, &table);
        Answer(L"QueryInterface.NumberOfFirst", table.Number);
    }
}

static NTSTATUS ReadBack(WDFKEY key, PCUNICODE_STRING name, ULONG type, ULONG length, PULONG number)
{
    UCHAR data[8] = {7, 0, 0, 0, 0, 0, 0, 0};
    const NTSTATUS status = WdfRegistryAssignValue(key, name, type, length, data);
    return NT_SUCCESS(status) ? WdfRegistryQueryULong(key, name, number) : status;
}

VOID AskRegistry(VOID)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"Scratch");
    ULONG number = 0;
    WDFKEY key = NULL;
    if (NT_SUCCESS(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ, WDF_NO_OBJECT_ATTRIBUTES, &key))) {
        Answer(L"Registry.Missing", (ULONG)WdfRegistryQueryULong(key, &name, &number));
        WdfRegistryClose(key);
    }
    if (NT_SUCCESS(
            WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ | KEY_WRITE, WDF_NO_OBJECT_ATTRIBUTES, &key))) {
        Answer(L"Registry.OtherType", (ULONG)ReadBack(key, &name, REG_SZ, 4, &number));
        Answer(L"Registry.ShortNumber", (ULONG)ReadBack(key, &name, REG_DWORD, 2, &number));
        Answer(L"Registry.LowBytesOfShort", number & 0xFFFF);
        Answer(L"Registry.LongNumber", (ULONG)ReadBack(key, &name, REG_DWORD, 8, &number));
        Answer(L"Registry.Remove", (ULONG)WdfRegistryRemoveValue(key, &name));
        WdfRegistryClose(key);
    }
}
