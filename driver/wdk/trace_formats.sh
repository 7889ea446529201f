#!/usr/bin/env bash
# Prints a source file that takes the trace messages' formats into the PDB of the WDK's build, where tracepdb and the
# debugger look for them: trace_formats.sh TMF_FILE...
#
# Its compiler writes an annotation's texts beside the code of the function that it stands in; there is no code of it.
set -euo pipefail
cat << 'TEXT'
// Generated from the message-format files; not edited by hand. One annotation for each trace message.
#pragma comment(linker, "/include:ZepnTraceFormats")  // nobody calls it

extern "C" void ZepnTraceFormats()
{
TEXT
awk '
    function wide(text) { gsub(/\\/, "\\\\&", text); gsub(/"/, "\\\"", text); return "L\"" text "\"" }
    /^[0-9a-f-]+ .*\/\/ SRC=/ { set = wide($0); next }
    /^#typev / { printf "    __annotation(L\"TMF:\", %s,\n        %s", set, wide($0); inside = 1; next }
    inside { printf ",\n        %s", wide($0) }
    /^}/ { printf ");\n"; inside = 0 }
' "$@"
echo '}'
