// The clients and the crash-dump driver that the sequences play with: every callback is recorded and answered as told.
#pragma once

#include "driver/include/zepn_notifier.h"
#include "tests/fault_injection/sequence.h"

namespace fault_injection {

[[nodiscard]] GUID GuidOf(ULONG client);
[[nodiscard]] void* ContextOf(ULONG client);

// Callbacks are recorded here from now on, one line each.
void RecordCallbacks(Lines& lines);

// What the crash-dump driver answers to dump calls from now on.
void AnswerDumps(NTSTATUS status);

[[nodiscard]] PZEP_STATE_NOTIFICATION_CALLBACK StateCallback();
[[nodiscard]] PZEP_COMMAND_CALLBACK CommandCallback();
[[nodiscard]] PZEP_APPS_STATE_CALLBACK AppsStateCallback();
[[nodiscard]] const WpcdClientRegistration& CrashDumpDriver();

}  // namespace fault_injection
