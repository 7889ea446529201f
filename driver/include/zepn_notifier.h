// The Notifier's interfaces: all that client drivers and the crash-dump driver include.
//
// How to get a table: find the device through the interface class GUID of the table (the same GUID names class and
// table), open it, and ask it with IRP_MN_QUERY_INTERFACE (WdfIoTargetQueryForInterface) for Size and Version below.
// Check both in what comes back: the request takes them as limits, so an older and smaller table satisfies it too.
// The table's reference routines do nothing: keep the device open for as long as you use the table; deregister
// or detach before you close it (Notifier_HelperClientDeinit, Notifier_WpcdClientDeInit). docs/clients.md explains it.
//
// For every operation:
// - Any thread may call it while the device is open, at PASSIVE_LEVEL unless it says otherwise. Not at any time:
//   attaching and detaching are one thread's at a time (ZEP_NOTIFIER_WPCD_CLIENT_INIT), and a client's calls have
//   ended before it deregisters (ZEP_NOTIFIER_HELPER_CLIENT_DEINIT).
// - Nothing is bounded: clients, subscriptions, undelivered states and commands take memory for as long as they are
//   there, and a delivered command takes it until its sender deregisters.
// - All records are little-endian, sizes in bytes. Both sides are 64-bit.
// - The Notifier finds its own state; the table's Context is not an argument of any operation.
// - Records and strings passed in are read during the call only and stay the caller's.
// - A status is a failure when its sign is set, unless the text says more. Each status that an operation names is shown
//   by a scenario; docs/troubleshooting.md has the list, with what to do.
// - "The Notifier is not up" means that its driver object or driver context is missing; whoever holds its device open
//   does not meet that.
//
// For every callback but the five dump callbacks (see "Dump calls"):
// - It runs at PASSIVE_LEVEL inside a critical region (normal kernel APCs are off) with the Notifier's clients lock
//   held. The lock is not recursive: a callback that calls an operation marked "takes the clients lock" waits for
//   itself for ever, and every other client with it.
// - It must return; deliveries to all other clients wait for it. Do not wait inside it for a thread that may be inside
//   an operation.
// - It runs on whatever thread the call came about on: a system worker, or the thread of whoever subscribed, changed
//   the power state or sent the I/O control.
// - A new state that it answers through its argument is posted by the Notifier. The answer to a delivered state is
//   queued before the lock is released. The answers to a command, to an application-state change and to the first state
//   of a subscription are posted after the callback has returned, without the lock: a client that deregisters at that
//   moment is used after its memory is freed. A client that may deregister at any time does not change the values, but
//   posts from a thread of its own, under a lock that it also holds while it deregisters. If such a post may come while
//   AppsStateNotificationCallback runs, it is registered without that callback: a state posted meanwhile makes the
//   unchanged value an answer (docs/clients.md, section 5).
// - Once Notifier_HelperClientDeinit has returned, the Notifier calls none of the client's callbacks any more. The
//   crash-dump driver still can: the descriptor hands it AppsStateNotificationCallback and the descriptor callbacks,
//   and it is notified of the removal late or never. Agree with it when it stops, before the code is unloaded.
//
// Never. Each of these has a scenario that shows what comes of it (docs/troubleshooting.md):
//   [call-inside-state]       call an operation that takes the clients lock from a ZEP_STATE_NOTIFICATION_CALLBACK
//   [call-inside-command]     ... from a ZEP_COMMAND_CALLBACK
//   [call-inside-apps-state]  ... from a ZEP_APPS_STATE_CALLBACK
//   [call-inside-add]         ... from a ZEP_CLIENT_ADD
//   [call-inside-remove]      ... from a ZEP_CLIENT_REMOVE
//   [command-to-oneself]      send a command to oneself
//   [leave-before-command]    deregister while a command from or to oneself is undelivered
//   [raised-irql]             call an operation above PASSIVE_LEVEL; the dump calls alone may be made there
//   [unload-registered]       unload, or free the callback context, while registered or attached
//   [call-after-removal]      call an operation after the Notifier's device was removed
//
// Define INITGUID (include <initguid.h> first) in one source file to hold the GUIDs.

#ifndef ZEPN_NOTIFIER_H
#define ZEPN_NOTIFIER_H

#include <ntddk.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- Identities ----

// {59752ED7-B9D5-4121-818D-C69F1E667015}: table and device interface class for client drivers.
DEFINE_GUID(GUID_ZEP_NOTIFIER_HELPER_INTERFACE, 0x59752ED7, 0xB9D5, 0x4121, 0x81, 0x8D, 0xC6, 0x9F, 0x1E, 0x66, 0x70,
            0x15);

// {0B28C6F2-F696-4580-ACB5-BF16C614B1C2}: table and device interface class for the crash-dump (WPCD) driver.
DEFINE_GUID(GUID_ZEP_NOTIFIER_WPCD_INTERFACE, 0x0B28C6F2, 0xF696, 0x4580, 0xAC, 0xB5, 0xBF, 0x16, 0xC6, 0x14, 0xB1,
            0xC2);

#define ZEP_NOTIFIER_INTERFACE_VERSION 1

// The one I/O control of \Device\ZEPN (\\.\ZEPN in user mode): notify every client of an application-state change. It
// returns when all have been notified and their answers are queued. No buffers, no bytes returned.
//
// The status is that of the last step only and does not show whom the notification reached: an earlier answer can be
// lost with STATUS_SUCCESS, and STATUS_UNSUCCESSFUL can mean no more than that the client that answered last has
// deregistered meanwhile. Each failure is reported.
//
// STATUS_SUCCESS        the last step succeeded
// STATUS_UNSUCCESSFUL   the last step failed, or the Notifier is not up
// STATUS_NOT_SUPPORTED  any other control code
#define IOCTL_ZEPN_NOTIFY_APPS_STATE CTL_CODE(0x0100u, 0x851u, METHOD_BUFFERED, FILE_ANY_ACCESS)

// ---- The Notifier's own statuses: severity error, customer bit set, facility 0x00A ----

// From Notifier_HelperInit: the Notifier is not up. From the subscription operations: the subscriber is unknown.
#define STATUS_ZEP_NOTIFIER_NO_DRIVER ((NTSTATUS)0xE00A8101L)
// A client with this interface GUID is registered already.
#define STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED ((NTSTATUS)0xE00A8102L)
// The copy of the client's data entries could not be allocated.
#define STATUS_ZEP_NOTIFIER_NO_MEMORY ((NTSTATUS)0xE00A8104L)

// ---- States ----

// In a subscription: every state of the watched client, 0 (none posted yet) included: when the client is registered,
// the first callback comes at once, perhaps with state 0. In a posted record it is a state like any other.
#define ZEP_STATE_ANY 10u

// A client's state, 32 bytes. The meaning of state values belongs to the client; 0 means none posted yet. The sender
// fills all but Reserved; in deliveries the Notifier fills it.
typedef struct _ZepState {
    ULONGLONG Size;      // filled by the sender, never checked; 32 in records that the Notifier builds, but 0 in the
                         // follow-up record of a subscriber that answered a delivery with a new state
    GUID InterfaceGUID;  // client whose state this is
    ULONG State;         // the state value
    ULONG Reserved;      // copied along, never read
} ZepState;

// Delivers another client's state to a subscriber.
//
// Called from a work item (later states) or from inside Notifier_HelperRegisterForStateNotification (the state that the
// watched client is in already). The clients lock is held: call no operation that takes it, and so post no state here.
// Every post is delivered once to each matching subscription of every other client, also when the state has not
// changed; a client never receives its own states. All posts are delivered in the order in which they were made.
//
// Answer only when your state really changes. An answer is delivered in the same run: two subscribers that answer each
// other's states without end keep the run going, and the clients lock held, for ever.
//
// CallbackContext: the subscriber's own, as given to Notifier_HelperInit.
// State:           the watched client and its state; valid during the call, read only.
// ResponseState:   in/out. On a delivery it enters as 0; keep it, or set the subscriber's new state, which is queued
//                  after all others (0 cannot be answered). From inside the registration it enters as the subscriber's
//                  current state; a value other than the subscriber's state at the return is posted, which takes a
//                  post of the subscriber's own back that came meanwhile. Do not deregister before the subscription
//                  has returned.
// Result:          ignored.
typedef NTSTATUS(NTAPI ZEP_STATE_NOTIFICATION_CALLBACK)(PVOID CallbackContext, const ZepState* State,
                                                        PULONG ResponseState);
typedef ZEP_STATE_NOTIFICATION_CALLBACK* PZEP_STATE_NOTIFICATION_CALLBACK;

// ---- Commands ----

// One client's command to another, 48 bytes. Ids and arguments are agreed between the two.
typedef struct _ZepCommand {
    ULONGLONG Size;         // never read
    ULONG CommandArgument;  // reaches the target in ZepCommandInfo
    GUID SourceGuid;        // the sending client
    GUID TargetGuid;        // the client that shall act; a command to oneself is never delivered and stops delivery
    ULONG CommandId;        // reaches the target as an argument
} ZepCommand;

// What the target of a command receives, 32 bytes, filled by the Notifier.
typedef struct _ZepCommandInfo {
    ULONGLONG Size;         // 32
    ULONG CommandArgument;  // the command's
    GUID SourceGuid;        // the sending client
    ULONG SourceState;      // the sender's current state at delivery
} ZepCommandInfo;

// Hands a command to its target, on a work item, with the clients lock held: call no operation that takes it.
//
// CallbackContext: the target's own.
// CommandId, Info: the command; Info is valid during the call, read only.
// State:           in: the target's current state; out: its wanted state. A changed value is posted for the target
//                  after the callback, without the lock: do not change it if you may deregister at any time.
// Result:          ignored.
typedef NTSTATUS(NTAPI ZEP_COMMAND_CALLBACK)(PVOID CallbackContext, ULONG CommandId, const ZepCommandInfo* Info,
                                             PULONG State);
typedef ZEP_COMMAND_CALLBACK* PZEP_COMMAND_CALLBACK;

// ---- Application state ----

// The only reason ever passed.
#define ZEP_APPS_STATE_REASON_CHANGED 2u

// Notifies a client that the system leaves its working state, or that user mode asked for it; not of the return to the
// working state. On the power callback's or the I/O control's thread, with the clients lock held: call no operation
// that takes it. The system waits: be quick. After all were notified the power transition is held for the configured
// time (SubsystemNotificationTimeout, milliseconds), so that the answers reach their subscribers.
//
// CallbackContext: the client's own.
// Reason:          ZEP_APPS_STATE_REASON_CHANGED.
// State:           in: the client's current state; out: its wanted state. A value other than the client's state at the
//                  return is posted for the client after all clients have been notified. So a post of the client's own
//                  that comes while its callback runs is taken back by a callback that does not change the value.
//                  The answer is posted without the lock: do not change it if you may deregister at any time.
// Result:          ignored.
typedef NTSTATUS(NTAPI ZEP_APPS_STATE_CALLBACK)(PVOID CallbackContext, ULONG Reason, PULONG State);
typedef ZEP_APPS_STATE_CALLBACK* PZEP_APPS_STATE_CALLBACK;

// ---- Registration of a client ----

// A callback that the Notifier only passes on to the crash-dump driver; its true form is agreed between the two.
typedef VOID(NTAPI ZEP_DESCRIPTOR_CALLBACK)(VOID);
typedef ZEP_DESCRIPTOR_CALLBACK* PZEP_DESCRIPTOR_CALLBACK;

// A client's callbacks, 48 bytes. Any slot may be NULL and is then not called.
typedef struct _ActionCallbackTable {
    PVOID ReservedCallback;  // kept, never called, never passed on
    PZEP_APPS_STATE_CALLBACK AppsStateNotificationCallback;
    PZEP_DESCRIPTOR_CALLBACK DescriptorCallbackA;
    PZEP_DESCRIPTOR_CALLBACK DescriptorCallbackB;  // when set, the entry count is kept even without entries
    PZEP_COMMAND_CALLBACK CommandCallback;         // without it commands to this client are refused
    PZEP_DESCRIPTOR_CALLBACK DescriptorCallbackC;
} ActionCallbackTable;

// One of a client's data entries, 16 bytes; the meaning is agreed between the client and the crash-dump driver.
typedef struct _ZepDataEntry {
    ULONGLONG Value[2];
} ZepDataEntry;

#define ZEP_SUBSYSTEM_NAME_SIZE 64          // bytes with the terminating zero
#define ZEP_SUBSYSTEM_DESCRIPTION_SIZE 128  // bytes with the terminating zero

// Registers a client. Takes the clients lock; calls nobody back. The client has no state and the crash-dump driver does
// not know it until it posts its first state, or the crash-dump driver asks for all descriptors.
//
// InterfaceGUID:       the client's identity, 16 bytes compared as they are. Required.
// Name, Description:   zero-terminated; at most 63 and 127 characters are kept. Required, not checked for NULL.
// Callbacks:           copied. Required.
// Entries, EntryCount: copied to paged pool (EntryCount * 16 bytes), freed when the client deregisters. Entries may be
//                      NULL. The count is kept modulo 256.
// CallbackContext:     first argument of every callback to this client.
//
// STATUS_SUCCESS                          registered
// STATUS_INVALID_PARAMETER                InterfaceGUID is NULL, or Callbacks is NULL
// STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED  the GUID is taken (looked at before Callbacks)
// STATUS_ZEP_NOTIFIER_NO_MEMORY           no memory for the entries
// STATUS_ZEP_NOTIFIER_NO_DRIVER           the Notifier is not up
// STATUS_IO_DEVICE_ERROR, others          the framework failed
// On failure no client has been added. Two registrations of one GUID that overlap in time can both succeed; the older
// one is then the one that is found.
_IRQL_requires_max_(PASSIVE_LEVEL) _Must_inspect_result_
typedef NTSTATUS(NTAPI ZEP_NOTIFIER_HELPER_INIT)(_In_ const GUID* InterfaceGUID, _In_z_ const CHAR* Name,
                                                 _In_z_ const CHAR* Description,
                                                 _In_ const ActionCallbackTable* Callbacks,
                                                 _In_reads_opt_(EntryCount) const ZepDataEntry* Entries,
                                                 _In_ ULONG EntryCount, _In_opt_ PVOID CallbackContext);
typedef ZEP_NOTIFIER_HELPER_INIT* PZEP_NOTIFIER_HELPER_INIT;

// Removes a client, with its own subscriptions. Takes the clients lock. Subscriptions of others to it stay and match
// again when it registers anew. The crash-dump driver is notified on a work item if it knew the client, late or never
// (see ZEP_CLIENT_REMOVE). A client that deregisters before commands from or to it are delivered stops their delivery:
// let the work drain first. States that it posted are still delivered.
//
// Nobody else may be using the client meanwhile: no post, command or answered subscription of it on another thread, no
// answer that the Notifier posts for it (see "For every callback"), and no command that another client is sending it.
// Each of these looks the client up and goes on with its memory after the lock is released.
//
// InterfaceGUID: the client. Required.
//
// STATUS_SUCCESS            gone: none of its callbacks runs any more
// STATUS_INVALID_PARAMETER  InterfaceGUID is NULL
// STATUS_NOT_FOUND          no such client
// STATUS_IO_DEVICE_ERROR    the Notifier is not up, or an inner object was missing
// others                    the framework failed. When it did so while the removal was handed to the crash-dump driver
//                           (STATUS_IO_DEVICE_ERROR included), the client is gone all the same and the crash-dump
//                           driver is not notified; else the client is still registered
_IRQL_requires_max_(PASSIVE_LEVEL)
typedef NTSTATUS(NTAPI ZEP_NOTIFIER_HELPER_CLIENT_DEINIT)(_In_ const GUID* InterfaceGUID);
typedef ZEP_NOTIFIER_HELPER_CLIENT_DEINIT* PZEP_NOTIFIER_HELPER_CLIENT_DEINIT;

// Posts a client's new state: it becomes the client's current state and a copy is queued for its subscribers, who are
// called later on a work item, in the order of posting. Takes the clients lock. Calls nobody back.
//
// State: the client and its new state. Required; Size is not checked.
//
// STATUS_SUCCESS                 recorded and queued
// STATUS_INVALID_PARAMETER       State is NULL; nothing changed
// STATUS_INVALID_DEVICE_REQUEST  no client has this GUID; nothing changed
// STATUS_IO_DEVICE_ERROR         the Notifier is not up, or an inner object was missing
// others                         the framework failed. After this and after a missing inner object the state may be
//                                recorded, but is not delivered
_IRQL_requires_max_(PASSIVE_LEVEL)
typedef NTSTATUS(NTAPI ZEP_NOTIFIER_HELPER_SEND_STATE)(_In_ const ZepState* State);
typedef ZEP_NOTIFIER_HELPER_SEND_STATE* PZEP_NOTIFIER_HELPER_SEND_STATE;

// Sends a command. Takes the clients lock. The target's CommandCallback is called later on a work item; one run
// delivers one command, so of a burst posted before the run the rest waits for later posts.
//
// Command: sender, target, id and argument. Required; Size is not read.
//
// There is no answer but the target's state: subscribe to it to learn what came of the command. The command's memory
// stays allocated after its delivery, until the sender deregisters.
//
// STATUS_SUCCESS                 accepted. Also when it could not be queued: such a loss is only reported
// STATUS_INVALID_PARAMETER       Command is NULL
// STATUS_INVALID_DEVICE_REQUEST  sender or target unknown, or the target has no CommandCallback
// STATUS_IO_DEVICE_ERROR         the Notifier is not up
_IRQL_requires_max_(PASSIVE_LEVEL)
typedef NTSTATUS(NTAPI ZEP_NOTIFIER_HELPER_SEND_COMMAND)(_In_ const ZepCommand* Command);
typedef ZEP_NOTIFIER_HELPER_SEND_COMMAND* PZEP_NOTIFIER_HELPER_SEND_COMMAND;

// Subscribes a client to another's states. Takes the clients lock. If the watched client is registered and its current
// state matches, Callback is called at once, before the call returns, with the clients lock held; a new state that it
// answers is then posted for the subscriber.
//
// InterfaceGUID: the subscriber. Required.
// State:         InterfaceGUID names the client to watch, which may register later; State the awaited state or
//                ZEP_STATE_ANY. Required; the other fields take no part. 0 and ZEP_STATE_ANY match a registered client
//                that has posted no state yet.
// Callback:      Required. Equal subscriptions are not merged: each is called.
//
// STATUS_SUCCESS                 subscribed (and any answer was posted)
// STATUS_INVALID_PARAMETER       an argument is NULL
// STATUS_ZEP_NOTIFIER_NO_DRIVER  the subscriber is not registered
// STATUS_IO_DEVICE_ERROR         the Notifier is not up, or an inner object was missing
// others                         the framework failed; or the subscription stands, but posting the answer failed with
//                                this status (see ZEP_NOTIFIER_HELPER_SEND_STATE)
_IRQL_requires_max_(PASSIVE_LEVEL)
typedef NTSTATUS(NTAPI ZEP_NOTIFIER_HELPER_REGISTER)(_In_ const GUID* InterfaceGUID, _In_ const ZepState* State,
                                                     _In_ PZEP_STATE_NOTIFICATION_CALLBACK Callback);
typedef ZEP_NOTIFIER_HELPER_REGISTER* PZEP_NOTIFIER_HELPER_REGISTER;

// Ends the subscriber's oldest subscription to exactly this client and state (ZEP_STATE_ANY matches only itself here).
// Takes the clients lock; calls nobody back. Once it has returned the callback runs no more for this subscription.
//
// InterfaceGUID: the subscriber. Required.
// State:         as given when subscribing. Required.
//
// STATUS_SUCCESS                 ended; also when there was none
// STATUS_INVALID_PARAMETER       an argument is NULL
// STATUS_ZEP_NOTIFIER_NO_DRIVER  the subscriber is not registered
// STATUS_IO_DEVICE_ERROR         the Notifier is not up
// others                         the framework failed
_IRQL_requires_max_(PASSIVE_LEVEL)
typedef NTSTATUS(NTAPI ZEP_NOTIFIER_HELPER_DEREGISTER)(_In_ const GUID* InterfaceGUID, _In_ const ZepState* State);
typedef ZEP_NOTIFIER_HELPER_DEREGISTER* PZEP_NOTIFIER_HELPER_DEREGISTER;

// ---- Dump calls ----
//
// Five calls of a client that go straight through to the crash-dump driver: same arguments, same order, no lock, the
// caller's thread and IRQL. Meanings are agreed between client and crash-dump driver. The Notifier reads only the
// first 32 bits at DumpHandle (and at the second pointer of AddDumpData, when not NULL), for its trace and
// after the crash-dump driver has answered: both must stay readable until the call returns, also that of StopDump, and
// be non-paged above APC_LEVEL.
//
// Result: what the crash-dump driver answered, or
// STATUS_INVALID_PARAMETER  DumpHandle is NULL
// STATUS_IO_DEVICE_ERROR    no crash-dump driver is attached, the Notifier is not up, or an inner object was missing
// The crash-dump driver must not detach while such calls can still come, nor attach while they may come already: its
// handle can be seen before its callbacks are in place.

typedef NTSTATUS(NTAPI ZEP_DUMP_START)(_In_ PVOID DumpHandle, ULONGLONG Value1, ULONGLONG Value2);
typedef ZEP_DUMP_START* PZEP_DUMP_START;
typedef NTSTATUS(NTAPI ZEP_DUMP_STOP)(_In_ PVOID DumpHandle, ULONGLONG Value1);
typedef ZEP_DUMP_STOP* PZEP_DUMP_STOP;
typedef NTSTATUS(NTAPI ZEP_DUMP_ADD_DUMP_DATA)(_In_ PVOID DumpHandle, _In_opt_ PVOID Data, ULONGLONG Value1,
                                               ULONG Value2, ULONG Value3);
typedef ZEP_DUMP_ADD_DUMP_DATA* PZEP_DUMP_ADD_DUMP_DATA;
typedef NTSTATUS(NTAPI ZEP_DUMP_QUERY_PARAM)(_In_ PVOID DumpHandle, ULONG Value1, ULONGLONG Value2, ULONGLONG Value3);
typedef ZEP_DUMP_QUERY_PARAM* PZEP_DUMP_QUERY_PARAM;
typedef NTSTATUS(NTAPI ZEP_DUMP_ADD_TRIAGE_DATA)(_In_ PVOID DumpHandle, ULONGLONG Value1, ULONG Value2);
typedef ZEP_DUMP_ADD_TRIAGE_DATA* PZEP_DUMP_ADD_TRIAGE_DATA;

// The table for client drivers, 120 bytes. The slot order is binding.
typedef struct _ZEP_NOTIFIER_HELPER_INTERFACE {
    INTERFACE InterfaceHeader;  // Size 120, Version 1, Context the Notifier's WDFDEVICE (do not use)
    PZEP_NOTIFIER_HELPER_INIT Notifier_HelperInit;
    PZEP_NOTIFIER_HELPER_CLIENT_DEINIT Notifier_HelperClientDeinit;
    PZEP_NOTIFIER_HELPER_SEND_STATE Notifier_HelperSendState;
    PZEP_NOTIFIER_HELPER_SEND_COMMAND Notifier_HelperSendCommand;
    PZEP_NOTIFIER_HELPER_REGISTER Notifier_HelperRegisterForStateNotification;
    PZEP_NOTIFIER_HELPER_DEREGISTER Notifier_HelperDeregisterForStateNotification;
    PZEP_DUMP_START Notifier_HelperStartDump;
    PZEP_DUMP_STOP Notifier_HelperStopDump;
    PZEP_DUMP_ADD_DUMP_DATA Notifier_HelperAddDumpData;
    PZEP_DUMP_QUERY_PARAM Notifier_HelperDumpQueryParam;
    PZEP_DUMP_ADD_TRIAGE_DATA Notifier_HelperDumpAddTriageData;
} ZEP_NOTIFIER_HELPER_INTERFACE;

// ---- The crash-dump driver's side ----

// What the crash-dump driver learns of a client, 272 bytes. It points at the Notifier's copy of the client's data
// entries and names the client's own callbacks: valid only while the client stays registered. Bytes after a text's
// terminating zero are not written: they keep what the buffer held, in announcements the texts of an earlier client.
//
// DataEntries points to paged pool that is freed when the client deregisters, before its removal is reported. Read or
// copy the entries inside ZepClientAdd, where the clients lock keeps the client; after
// Notifier_WpcdGetAllSubsystemDescriptors only if no client can deregister. Never follow the pointer above APC_LEVEL or
// while the system writes a dump: copy to non-paged memory what a dump needs.
typedef struct _ZEP_SUBSYSTEM_DESCRIPTOR {
    GUID InterfaceGUID;
    CHAR SubsystemName[ZEP_SUBSYSTEM_NAME_SIZE];                // zero-terminated
    CHAR SubsystemDescription[ZEP_SUBSYSTEM_DESCRIPTION_SIZE];  // likewise
    PZEP_APPS_STATE_CALLBACK AppsStateNotificationCallback;
    PZEP_DESCRIPTOR_CALLBACK DescriptorCallbackA;
    PZEP_DESCRIPTOR_CALLBACK DescriptorCallbackB;
    PZEP_DESCRIPTOR_CALLBACK DescriptorCallbackC;
    const ZepDataEntry* DataEntries;  // the Notifier's copy, or NULL
    UCHAR DataEntryCount;             // modulo 256; can be non-zero although DataEntries is NULL
    UCHAR Padding[7];                 // not written
    PVOID CallbackContext;
    ULONG Reserved1;                  // 0
    ULONG Reserved2;                  // 0
} ZEP_SUBSYSTEM_DESCRIPTOR;

// A removed client, as ZepClientRemove sees it. Only its head is published: InterfaceGUID (16 bytes at 0), the name (64
// bytes at 16) and the description (128 bytes at 80). Read nothing else: two of the other fields point to what is gone.
typedef struct _ZEP_NOTIFIER_CLIENT_CONTEXT ZEP_NOTIFIER_CLIENT_CONTEXT;

// Announces one client, on a work item with the clients lock held: call no operation of either table that takes it.
// Descriptor is the Notifier's own buffer and is overwritten for the next client: copy what you keep.
// Result: 0 means taken. Any other value, also a success-class one, means refused; the client is announced again after
// its next state post.
// A client can be announced several times: once for each post before the run, and again after its first state if it had
// none. Treat a GUID that you know as an update.
typedef NTSTATUS(NTAPI ZEP_CLIENT_ADD)(_In_ const ZEP_SUBSYSTEM_DESCRIPTOR* Descriptor);
typedef ZEP_CLIENT_ADD* PZEP_CLIENT_ADD;

// Reports that an announced client was removed, on a work item with the clients lock held; the same prohibition. One
// removal is reported per run, so the rest of a burst waits for later removals. Result: 0 means taken, anything else is
// reported as an event.
//
// So a removal can come after the announcement of the same GUID's next registration, can name a client that only an
// earlier crash-dump driver knew, and does not come at all when nobody is attached at that moment, when it could not be
// queued, or when the Notifier's device is removed. The GUID alone does not say which registration has ended, and the
// CallbackContext, which distinguishes descriptors, is not shown here. Rule: ask for all descriptors, on a thread of
// your own, and forget only those clients that are not among them and have not been announced since you asked. Hold no
// lock of yours while you ask that ZepClientAdd or ZepClientRemove takes.
typedef NTSTATUS(NTAPI ZEP_CLIENT_REMOVE)(_In_ const ZEP_NOTIFIER_CLIENT_CONTEXT* Client);
typedef ZEP_CLIENT_REMOVE* PZEP_CLIENT_REMOVE;

// The crash-dump driver's callbacks, 64 bytes. The dump callbacks run on the calling client's thread at its IRQL.
typedef struct _WpcdClientRegistration {
    ULONGLONG Header;  // the crash-dump driver's own; never read
    PZEP_CLIENT_ADD ZepClientAdd;
    PZEP_CLIENT_REMOVE ZepClientRemove;
    PZEP_DUMP_START ZepDumpStart;
    PZEP_DUMP_ADD_DUMP_DATA ZepDumpAddDumpData;
    PZEP_DUMP_STOP ZepDumpStop;
    PZEP_DUMP_QUERY_PARAM ZepDumpQueryParam;
    PZEP_DUMP_ADD_TRIAGE_DATA ZepDumpAddTriageData;
} WpcdClientRegistration;

// Attaches the crash-dump driver; one at a time. Takes no lock, calls nobody back. Clients that are registered already
// are announced after their next state post, unless they were announced to an earlier crash-dump driver or it
// enumerated them by Notifier_WpcdGetAllSubsystemDescriptors.
//
// Attach before clients post states and make dump calls: for an instant the attached driver can be seen while its
// callbacks are still NULL, and an announcement or dump call in that instant calls address 0.
//
// Attach and detach from one thread, or under a lock of your own: attaching is safe neither against itself nor against
// detaching. Two attaches at once can both succeed; the object of one then stays, out of reach, until unload. A detach
// meanwhile makes the attach use a handle that is cleared or deleted.
//
// Registration: the seven callbacks, copied. Required; none of the seven may be NULL, though that is not checked.
//
// STATUS_SUCCESS             attached
// STATUS_OBJECT_NAME_EXISTS  attached already (a success-class status): the first callbacks stay
// STATUS_INVALID_PARAMETER   Registration is NULL
// STATUS_IO_DEVICE_ERROR     the Notifier is not up, or an inner object was missing
// others                     the framework failed
_IRQL_requires_max_(PASSIVE_LEVEL)
typedef NTSTATUS(NTAPI ZEP_NOTIFIER_WPCD_CLIENT_INIT)(_In_ const WpcdClientRegistration* Registration);
typedef ZEP_NOTIFIER_WPCD_CLIENT_INIT* PZEP_NOTIFIER_WPCD_CLIENT_INIT;

// Detaches the crash-dump driver; not while it attaches. Takes the clients lock. Reports no removals, and clients stay
// marked as announced: a driver that attaches anew learns them by Notifier_WpcdGetAllSubsystemDescriptors. Once it has
// returned, no announcement runs any more; a dump call may still be under way.
//
// STATUS_SUCCESS                detached
// STATUS_OBJECT_NAME_NOT_FOUND  none was attached
// STATUS_IO_DEVICE_ERROR        the Notifier is not up
// others                        the framework failed
_IRQL_requires_max_(PASSIVE_LEVEL)
typedef NTSTATUS(NTAPI ZEP_NOTIFIER_WPCD_CLIENT_DEINIT)(VOID);
typedef ZEP_NOTIFIER_WPCD_CLIENT_DEINIT* PZEP_NOTIFIER_WPCD_CLIENT_DEINIT;

// Counts the registered clients. Takes the clients lock.
//
// NumberDescriptors: receives the count; 0 on every failure but a NULL pointer. Required.
//
// STATUS_SUCCESS            counted (0 also when an inner object was missing)
// STATUS_INVALID_PARAMETER  NumberDescriptors is NULL
// STATUS_IO_DEVICE_ERROR    the Notifier is not up
// others                    the framework failed
_IRQL_requires_max_(PASSIVE_LEVEL)
typedef NTSTATUS(NTAPI ZEP_NOTIFIER_WPCD_GET_COUNT)(_Out_ PULONG NumberDescriptors);
typedef ZEP_NOTIFIER_WPCD_GET_COUNT* PZEP_NOTIFIER_WPCD_GET_COUNT;

// Describes all registered clients, oldest first, and marks each as announced. Takes the clients lock.
//
// Descriptors:       the caller's array. Required, also without clients. What it points to: ZEP_SUBSYSTEM_DESCRIPTOR.
// NumberDescriptors: in: capacity in records; out: records written, or needed. Required.
//
// STATUS_SUCCESS            done; NumberDescriptors is how many (unchanged when an inner object was missing)
// STATUS_BUFFER_TOO_SMALL   NumberDescriptors holds the count needed; no record was touched
// STATUS_INVALID_PARAMETER  an argument is NULL
// STATUS_IO_DEVICE_ERROR    the Notifier is not up
// others                    the framework failed; some records may be filled
_IRQL_requires_max_(PASSIVE_LEVEL)
typedef NTSTATUS(NTAPI ZEP_NOTIFIER_WPCD_GET_ALL)(_Out_writes_to_(*NumberDescriptors, *NumberDescriptors)
                                                      ZEP_SUBSYSTEM_DESCRIPTOR* Descriptors,
                                                  _Inout_ PULONG NumberDescriptors);
typedef ZEP_NOTIFIER_WPCD_GET_ALL* PZEP_NOTIFIER_WPCD_GET_ALL;

// The table for the crash-dump driver, 64 bytes. The slot order is binding.
typedef struct _ZEP_NOTIFIER_WPCD_INTERFACE {
    INTERFACE InterfaceHeader;  // Size 64, Version 1, Context the Notifier's WDFDEVICE (do not use)
    PZEP_NOTIFIER_WPCD_CLIENT_INIT Notifier_WpcdClientInit;
    PZEP_NOTIFIER_WPCD_CLIENT_DEINIT Notifier_WpcdClientDeInit;
    PZEP_NOTIFIER_WPCD_GET_COUNT Notifier_WpcdGetNumSubsystemDescriptors;
    PZEP_NOTIFIER_WPCD_GET_ALL Notifier_WpcdGetAllSubsystemDescriptors;
} ZEP_NOTIFIER_WPCD_INTERFACE;

#ifdef __cplusplus
}
#endif

// ---- The binary contract, checked in C (C11) and C++ (C++14) alike ----

C_ASSERT(sizeof(ZepState) == 32 && offsetof(ZepState, Size) == 0 && offsetof(ZepState, InterfaceGUID) == 8 &&
         offsetof(ZepState, State) == 24 && offsetof(ZepState, Reserved) == 28);
C_ASSERT(sizeof(ZepCommand) == 48 && offsetof(ZepCommand, Size) == 0 && offsetof(ZepCommand, CommandArgument) == 8 &&
         offsetof(ZepCommand, SourceGuid) == 12 && offsetof(ZepCommand, TargetGuid) == 28 &&
         offsetof(ZepCommand, CommandId) == 44);
C_ASSERT(sizeof(ZepCommandInfo) == 32 && offsetof(ZepCommandInfo, Size) == 0 &&
         offsetof(ZepCommandInfo, CommandArgument) == 8 && offsetof(ZepCommandInfo, SourceGuid) == 12 &&
         offsetof(ZepCommandInfo, SourceState) == 28);
C_ASSERT(sizeof(ActionCallbackTable) == 48 && offsetof(ActionCallbackTable, ReservedCallback) == 0 &&
         offsetof(ActionCallbackTable, AppsStateNotificationCallback) == 8 &&
         offsetof(ActionCallbackTable, DescriptorCallbackA) == 16 &&
         offsetof(ActionCallbackTable, DescriptorCallbackB) == 24 &&
         offsetof(ActionCallbackTable, CommandCallback) == 32 &&
         offsetof(ActionCallbackTable, DescriptorCallbackC) == 40);
C_ASSERT(sizeof(ZepDataEntry) == 16);
C_ASSERT(sizeof(ZEP_NOTIFIER_HELPER_INTERFACE) == 120 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, InterfaceHeader) == 0 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperInit) == 32 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperClientDeinit) == 40 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperSendState) == 48 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperSendCommand) == 56 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperRegisterForStateNotification) == 64 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperDeregisterForStateNotification) == 72 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperStartDump) == 80 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperStopDump) == 88 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperAddDumpData) == 96 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperDumpQueryParam) == 104 &&
         offsetof(ZEP_NOTIFIER_HELPER_INTERFACE, Notifier_HelperDumpAddTriageData) == 112);
C_ASSERT(sizeof(ZEP_SUBSYSTEM_DESCRIPTOR) == 272 && offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, InterfaceGUID) == 0 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, SubsystemName) == 16 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, SubsystemDescription) == 80 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, AppsStateNotificationCallback) == 208 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, DescriptorCallbackA) == 216 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, DescriptorCallbackB) == 224 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, DescriptorCallbackC) == 232 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, DataEntries) == 240 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, DataEntryCount) == 248 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, Padding) == 249 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, CallbackContext) == 256 &&
         offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, Reserved1) == 264 && offsetof(ZEP_SUBSYSTEM_DESCRIPTOR, Reserved2) == 268);
C_ASSERT(sizeof(WpcdClientRegistration) == 64 && offsetof(WpcdClientRegistration, Header) == 0 &&
         offsetof(WpcdClientRegistration, ZepClientAdd) == 8 &&
         offsetof(WpcdClientRegistration, ZepClientRemove) == 16 &&
         offsetof(WpcdClientRegistration, ZepDumpStart) == 24 &&
         offsetof(WpcdClientRegistration, ZepDumpAddDumpData) == 32 &&
         offsetof(WpcdClientRegistration, ZepDumpStop) == 40 &&
         offsetof(WpcdClientRegistration, ZepDumpQueryParam) == 48 &&
         offsetof(WpcdClientRegistration, ZepDumpAddTriageData) == 56);
C_ASSERT(sizeof(ZEP_NOTIFIER_WPCD_INTERFACE) == 64 && offsetof(ZEP_NOTIFIER_WPCD_INTERFACE, InterfaceHeader) == 0 &&
         offsetof(ZEP_NOTIFIER_WPCD_INTERFACE, Notifier_WpcdClientInit) == 32 &&
         offsetof(ZEP_NOTIFIER_WPCD_INTERFACE, Notifier_WpcdClientDeInit) == 40 &&
         offsetof(ZEP_NOTIFIER_WPCD_INTERFACE, Notifier_WpcdGetNumSubsystemDescriptors) == 48 &&
         offsetof(ZEP_NOTIFIER_WPCD_INTERFACE, Notifier_WpcdGetAllSubsystemDescriptors) == 56);
C_ASSERT(IOCTL_ZEPN_NOTIFY_APPS_STATE == 0x01002144u);

#endif
