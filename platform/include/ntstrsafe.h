// Text routines that know how much room there is: what they write always ends, and text that does not fit is cut, which
// they say by STATUS_BUFFER_OVERFLOW. Sizes are in bytes (Cb) or characters (Cch).
#pragma once

#include <ntddk.h>

#define NTSTRSAFE_MAX_CCH 2147483647
#define NTSTRSAFE_UNICODE_STRING_MAX_CCH (0xFFFF / sizeof(WCHAR))
typedef CHAR *NTSTRSAFE_PSTR;
typedef const CHAR* NTSTRSAFE_PCSTR;
typedef WCHAR* NTSTRSAFE_PWSTR;
typedef const WCHAR* NTSTRSAFE_PCWSTR;

// The platform's argument lists, also where a native build's own are others.
#if defined(_WIN32)
#define PLATFORM_VA_LIST __builtin_va_list
#define PLATFORM_VA_START __builtin_va_start
#define PLATFORM_VA_END __builtin_va_end
#else
#define PLATFORM_VA_LIST __builtin_ms_va_list
#define PLATFORM_VA_START __builtin_ms_va_start
#define PLATFORM_VA_END __builtin_ms_va_end
#endif
#define PLATFORM_VARIADIC_INLINE static __inline__ __attribute__((unused)) NTSTATUS NTAPI_VARIADIC

EXTERN_C_START
DECLSPEC_IMPORT int NTAPI _vsnprintf(CHAR* To, size_t Count, const CHAR* Format, PLATFORM_VA_LIST Arguments);
DECLSPEC_IMPORT int NTAPI _vsnwprintf(WCHAR* To, size_t Count, const WCHAR* Format, PLATFORM_VA_LIST Arguments);
EXTERN_C_END

// For characters of a type C, with the suffix S of the names and the routine that formats.
#define PLATFORM_STRSAFE(S, C, FORMAT)                                                                          \
    FORCEINLINE NTSTATUS RtlStringCchLength##S(const C* Text, size_t Capacity, size_t* Length)                  \
    {                                                                                                           \
        size_t length = 0;                                                                                      \
        while (Text != NULL && Capacity <= NTSTRSAFE_MAX_CCH && length < Capacity && Text[length] != 0) {       \
            ++length;                                                                                           \
        }                                                                                                       \
        const BOOLEAN ends = Text != NULL && Capacity <= NTSTRSAFE_MAX_CCH && length < Capacity;                \
        if (Length != NULL) {                                                                                   \
            *Length = ends ? length : 0;                                                                        \
        }                                                                                                       \
        return ends ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;                                                \
    }                                                                                                           \
    /* Puts up to Count characters after the first Used ones. */                                                \
    FORCEINLINE NTSTATUS PlatformPut##S(C* To, size_t Capacity, size_t Used, const C* From, size_t Count)       \
    {                                                                                                           \
        size_t at = Used;                                                                                       \
        if (Capacity == 0 || Capacity > NTSTRSAFE_MAX_CCH) {                                                    \
            return STATUS_INVALID_PARAMETER;                                                                    \
        }                                                                                                       \
        while (at + 1 < Capacity && at - Used < Count && From[at - Used] != 0) {                                \
            To[at] = From[at - Used];                                                                           \
            ++at;                                                                                               \
        }                                                                                                       \
        To[at] = 0;                                                                                             \
        return at - Used < Count && From[at - Used] != 0 ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;             \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCchCopyN##S(C* To, size_t Capacity, const C* From, size_t Count)              \
    {                                                                                                           \
        return PlatformPut##S(To, Capacity, 0, From, Count);                                                    \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCchCopy##S(C* To, size_t Capacity, const C* From)                             \
    {                                                                                                           \
        return PlatformPut##S(To, Capacity, 0, From, NTSTRSAFE_MAX_CCH);                                        \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCchCatN##S(C* To, size_t Capacity, const C* From, size_t Count)               \
    {                                                                                                           \
        size_t used;                                                                                            \
        NTSTATUS status = RtlStringCchLength##S(To, Capacity, &used);                                           \
        return NT_SUCCESS(status) ? PlatformPut##S(To, Capacity, used, From, Count) : status;                   \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCchCat##S(C* To, size_t Capacity, const C* From)                              \
    {                                                                                                           \
        return RtlStringCchCatN##S(To, Capacity, From, NTSTRSAFE_MAX_CCH);                                      \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCchVPrintf##S(C* To, size_t Capacity, const C* Format, PLATFORM_VA_LIST List) \
    {                                                                                                           \
        if (Capacity == 0 || Capacity > NTSTRSAFE_MAX_CCH) {                                                    \
            return STATUS_INVALID_PARAMETER;                                                                    \
        }                                                                                                       \
        const int length = FORMAT(To, Capacity - 1, Format, List);                                              \
        if (length < 0 || (size_t)length >= Capacity - 1) {                                                     \
            To[Capacity - 1] = 0;                                                                               \
        }                                                                                                       \
        return length < 0 ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;                                            \
    }                                                                                                           \
    PLATFORM_VARIADIC_INLINE RtlStringCchPrintf##S(C* To, size_t Capacity, const C* Format, ...)                \
    {                                                                                                           \
        PLATFORM_VA_LIST list;                                                                                  \
        PLATFORM_VA_START(list, Format);                                                                        \
        const NTSTATUS status = RtlStringCchVPrintf##S(To, Capacity, Format, list);                             \
        PLATFORM_VA_END(list);                                                                                  \
        return status;                                                                                          \
    }                                                                                                           \
    PLATFORM_VARIADIC_INLINE RtlStringCbPrintf##S(C* To, size_t Bytes, const C* Format, ...)                    \
    {                                                                                                           \
        PLATFORM_VA_LIST list;                                                                                  \
        PLATFORM_VA_START(list, Format);                                                                        \
        const NTSTATUS status = RtlStringCchVPrintf##S(To, Bytes / sizeof(C), Format, list);                    \
        PLATFORM_VA_END(list);                                                                                  \
        return status;                                                                                          \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCbLength##S(const C* Text, size_t Bytes, size_t* Length)                      \
    {                                                                                                           \
        const NTSTATUS status = RtlStringCchLength##S(Text, Bytes / sizeof(C), Length);                         \
        if (Length != NULL) {                                                                                   \
            *Length *= sizeof(C);                                                                               \
        }                                                                                                       \
        return status;                                                                                          \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCbCopyN##S(C* To, size_t Bytes, const C* From, size_t FromBytes)              \
    {                                                                                                           \
        return RtlStringCchCopyN##S(To, Bytes / sizeof(C), From, FromBytes / sizeof(C));                        \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCbCopy##S(C* To, size_t Bytes, const C* From)                                 \
    {                                                                                                           \
        return RtlStringCchCopy##S(To, Bytes / sizeof(C), From);                                                \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCbCatN##S(C* To, size_t Bytes, const C* From, size_t FromBytes)               \
    {                                                                                                           \
        return RtlStringCchCatN##S(To, Bytes / sizeof(C), From, FromBytes / sizeof(C));                         \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCbCat##S(C* To, size_t Bytes, const C* From)                                  \
    {                                                                                                           \
        return RtlStringCchCat##S(To, Bytes / sizeof(C), From);                                                 \
    }                                                                                                           \
    FORCEINLINE NTSTATUS RtlStringCbVPrintf##S(C* To, size_t Bytes, const C* Format, PLATFORM_VA_LIST List)     \
    {                                                                                                           \
        return RtlStringCchVPrintf##S(To, Bytes / sizeof(C), Format, List);                                     \
    }

PLATFORM_STRSAFE(A, CHAR, _vsnprintf)
PLATFORM_STRSAFE(W, WCHAR, _vsnwprintf)

// ---- Counted strings: cut where the buffer ends, without a zero after it ----

FORCEINLINE NTSTATUS RtlUnicodeStringInit(PUNICODE_STRING To, NTSTRSAFE_PCWSTR From)
{
    size_t length = 0;
    To->Length = To->MaximumLength = 0;
    To->Buffer = NULL;
    if (From != NULL) {
        if (!NT_SUCCESS(RtlStringCchLengthW(From, NTSTRSAFE_UNICODE_STRING_MAX_CCH, &length))) {
            return STATUS_INVALID_PARAMETER;
        }
        To->Length = (USHORT)(length * sizeof(WCHAR));
        To->MaximumLength = (USHORT)(To->Length + sizeof(WCHAR));
        To->Buffer = (PWSTR)From;
    }
    return STATUS_SUCCESS;
}

FORCEINLINE NTSTATUS RtlUnicodeStringCat(PUNICODE_STRING To, PCUNICODE_STRING From)
{
    const size_t room = (size_t)(To->MaximumLength - To->Length) / sizeof(WCHAR);
    const size_t wanted = From->Length / sizeof(WCHAR);
    const size_t count = wanted < room ? wanted : room;
    memmove(To->Buffer + To->Length / sizeof(WCHAR), From->Buffer, count * sizeof(WCHAR));
    To->Length = (USHORT)(To->Length + count * sizeof(WCHAR));
    return wanted > room ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

FORCEINLINE NTSTATUS RtlUnicodeStringCatString(PUNICODE_STRING To, NTSTRSAFE_PCWSTR From)
{
    UNICODE_STRING counted;
    const NTSTATUS status = RtlUnicodeStringInit(&counted, From);
    return NT_SUCCESS(status) ? RtlUnicodeStringCat(To, &counted) : status;
}

FORCEINLINE NTSTATUS RtlUnicodeStringCopy(PUNICODE_STRING To, PCUNICODE_STRING From)
{
    To->Length = 0;
    return RtlUnicodeStringCat(To, From);
}

FORCEINLINE NTSTATUS RtlUnicodeStringCopyString(PUNICODE_STRING To, NTSTRSAFE_PCWSTR From)
{
    To->Length = 0;
    return RtlUnicodeStringCatString(To, From);
}

PLATFORM_VARIADIC_INLINE RtlUnicodeStringPrintf(PUNICODE_STRING To, NTSTRSAFE_PCWSTR Format, ...)
{
    const size_t room = To->MaximumLength / sizeof(WCHAR);
    PLATFORM_VA_LIST list;
    PLATFORM_VA_START(list, Format);
    const int length = _vsnwprintf(To->Buffer, room, Format, list);
    PLATFORM_VA_END(list);
    To->Length = (USHORT)((length < 0 ? room : (size_t)length) * sizeof(WCHAR));
    return length < 0 ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}
