// The identifier type and the macros that declare and define identifiers.
//
// DEFINE_GUID declares; the one source file of an image that includes <initguid.h> first also defines.
#ifndef GUIDDEF_H
#define GUIDDEF_H

#include <ntplatform.h>

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *LPGUID;
typedef const GUID* LPCGUID;

PLATFORM_ASSERT(sizeof(GUID) == 16, "GUID size");
PLATFORM_ASSERT(PLATFORM_ALIGNOF(GUID) == 4, "GUID alignment");

#endif

// Outside the guard on purpose: including the header again after <initguid.h> turns declarations into definitions.
#undef DEFINE_GUID
#if defined(INITGUID) && defined(__cplusplus)
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
    EXTERN_C const GUID DECLSPEC_SELECTANY name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#elif defined(INITGUID)  // in C a definition is not extern
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
    const GUID DECLSPEC_SELECTANY name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#else
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) EXTERN_C const GUID name
#endif
