// String objects: a counted string with a handle, which the framework frees. Included by wdf.h.
#pragma once

WDF_DECLARE_HANDLE(WDFSTRING);

WDF_CALL(308, WdfStringCreate, NTSTATUS,
         (PCUNICODE_STRING UnicodeString, PWDF_OBJECT_ATTRIBUTES StringAttributes, WDFSTRING* String),
         (UnicodeString, StringAttributes, String))
WDF_CALL(309, WdfStringGetUnicodeString, VOID, (WDFSTRING String, PUNICODE_STRING UnicodeString), (String, UnicodeString))
