// Memory routines of the kernel's C library. A freestanding Windows build has no other; a Linux build adds the one
// routine that its own C library lacks.
#pragma once

#include <ntplatform.h>

#if !defined(_WIN32)
#include_next <string.h>
#else
EXTERN_C_START
void* __cdecl memcpy(void* destination, const void* source, size_t size);
void* __cdecl memmove(void* destination, const void* source, size_t size);
void* __cdecl memset(void* destination, int value, size_t size);
int __cdecl memcmp(const void* first, const void* second, size_t size);
EXTERN_C_END
#endif

// 0 when copied (also for size 0); 22 for a null pointer, 34 for a destination that is too small, and the destination
// is then zeroed. Never writes beyond destinationSize bytes.
EXTERN_C int NTAPI_VARIADIC memcpy_s(void* destination, size_t destinationSize, const void* source, size_t size);
