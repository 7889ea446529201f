// What differs between the three builds, and the basic types that every other header here stands on.
//
// The same declarations serve the ARM64 and x64 Windows images (LLP64) and the native 64-bit Linux build (LP64): all
// types that cross a boundary have the platform's width, and every function and callback has the platform's calling
// convention. Nothing outside platform/ includes this file; with the WDK at hand it is not part of the build.
#pragma once

#include <sal.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define EXTERN_C extern "C"
#define EXTERN_C_START extern "C" {
#define EXTERN_C_END }
#define PLATFORM_ASSERT(condition, text) static_assert(condition, text)
#define PLATFORM_ALIGNOF(type) alignof(type)
#else
#define EXTERN_C extern
#define EXTERN_C_START
#define EXTERN_C_END
#define PLATFORM_ASSERT(condition, text) _Static_assert(condition, text)
#define PLATFORM_ALIGNOF(type) _Alignof(type)
#endif
#define C_ASSERT(condition) PLATFORM_ASSERT(condition, #condition)
#define PLATFORM_LAYOUT(type, field, offset) \
    PLATFORM_ASSERT(offsetof(type, field) == (offset), #type "." #field " is at its binary offset")
#define PLATFORM_SIZE(type, bytes) PLATFORM_ASSERT(sizeof(type) == (bytes), #type " has its binary size")

#if defined(_WIN32)
#define NTAPI __stdcall
#define NTAPI_VARIADIC __cdecl
#define DECLSPEC_IMPORT __declspec(dllimport)
#define DECLSPEC_SELECTANY __declspec(selectany)
#define DECLSPEC_NORETURN __declspec(noreturn)
#elif defined(__x86_64__)
// The image's convention also inside a Linux process, so that one host serves images and native builds alike.
#define NTAPI __attribute__((ms_abi))
#define NTAPI_VARIADIC __attribute__((ms_abi))
#define DECLSPEC_IMPORT
#define DECLSPEC_SELECTANY __attribute__((weak))
#define DECLSPEC_NORETURN __attribute__((noreturn))
#elif defined(__aarch64__)
// AArch64 Linux and Windows agree on everything this driver passes; variadic calls use the Windows list form.
#define NTAPI
#define NTAPI_VARIADIC __attribute__((ms_abi))
#define DECLSPEC_IMPORT
#define DECLSPEC_SELECTANY __attribute__((weak))
#define DECLSPEC_NORETURN __attribute__((noreturn))
#else
#error "64-bit x86 and ARM only"
#endif

// A function of the platform that the host does not play. With any arguments, so that nothing but this is said of a
// call.
#if defined(__cplusplus)
#define PLATFORM_ANY_PARAMETERS ...
#else
#define PLATFORM_ANY_PARAMETERS
#endif
#define PLATFORM_ABSENT(name)                                                                                   \
    EXTERN_C __attribute__((unavailable("the host does not play it; docs/platform.md lists what it plays"))) LONG \
    name(PLATFORM_ANY_PARAMETERS);

#define STDCALL NTAPI
#define DECLSPEC_ALIGN(bytes) __attribute__((aligned(bytes)))
#define POINTER_ALIGNMENT DECLSPEC_ALIGN(8)
#define NTKERNELAPI DECLSPEC_IMPORT
#define NTSYSAPI DECLSPEC_IMPORT
#ifndef FORCEINLINE
#define FORCEINLINE static inline __attribute__((always_inline))
#endif

#if defined(_WIN32)
typedef long LONG;
typedef unsigned long ULONG;
#else
typedef int32_t LONG;
typedef uint32_t ULONG;
#endif
typedef char CHAR, CCHAR;
typedef unsigned char UCHAR, BOOLEAN;
typedef short SHORT;
typedef unsigned short USHORT;
typedef long long LONGLONG, LONG64, LONG_PTR;
typedef unsigned long long ULONGLONG, ULONG64, ULONG_PTR, SIZE_T;
#if !defined(__cplusplus) && defined(_WIN32)
typedef unsigned short WCHAR;
#elif !defined(__cplusplus)
typedef uint_least16_t WCHAR;
#elif __SIZEOF_WCHAR_T__ == 2
typedef wchar_t WCHAR;
#else
typedef char16_t WCHAR;
#endif
typedef void VOID;
typedef void* PVOID;
typedef void* HANDLE;
typedef LONG NTSTATUS;
typedef CCHAR KPROCESSOR_MODE;
typedef UCHAR KIRQL;
typedef ULONG ACCESS_MASK;
typedef LONG *PLONG;
typedef ULONG* PULONG;
typedef USHORT* PUSHORT;
typedef UCHAR* PUCHAR;
typedef CHAR* PCHAR;
typedef const CHAR* PCSTR;
typedef BOOLEAN* PBOOLEAN;
typedef LONGLONG* PLONGLONG;
typedef ULONGLONG *PULONGLONG, *PULONG64;
typedef ULONG_PTR* PULONG_PTR;
typedef WCHAR *PWCHAR, *PWSTR;
typedef const WCHAR* PCWSTR;

#define TRUE 1
#define FALSE 0
#ifndef CONST
#define CONST const
#endif

PLATFORM_ASSERT(sizeof(LONG) == 4 && sizeof(ULONG) == 4 && sizeof(USHORT) == 2 && sizeof(WCHAR) == 2, "narrow types");
PLATFORM_ASSERT(sizeof(LONGLONG) == 8 && sizeof(ULONG_PTR) == 8 && sizeof(PVOID) == 8, "wide types");
PLATFORM_ASSERT((char)-1 < 0, "plain char is signed on the platform: build with -fsigned-char");
PLATFORM_ASSERT((WCHAR)-1 > 0, "WCHAR is unsigned");
