// What two sample clients agree on: identities, states, the one command.
#pragma once

#include <ntddk.h>

// Each client is this GUID with its number added to Data1. {5A3E0000-0B61-4B0C-9D55-27C2F8F1A900}
#define SAMPLE_CLIENT_GUID {0x5A3E0000, 0x0B61, 0x4B0C, {0x9D, 0x55, 0x27, 0xC2, 0xF8, 0xF1, 0xA9, 0x00}}

#define SAMPLE_STATE_STARTING 1u
#define SAMPLE_STATE_UP 2u
#define SAMPLE_STATE_CONNECTED 3u  // up, and the watched client is up too
#define SAMPLE_STATE_ASLEEP 4u     // the system leaves its working state

// Record a dump of yourself.
#define SAMPLE_COMMAND_RECORD 1u
