#!/usr/bin/env bash
# Puts the package together from what was built: assemble.sh SOURCE_FOLDER PACKAGE_FOLDER
set -euo pipefail
source=$1 target=$2
fill() { "$source/cmake/build_stamp.sh" "$source" "$1"; }

mkdir -p "$target/trace" "$target/include"
for machine in arm64 x64; do
    mkdir -p "$target/$machine"
    cp "$source/out/$machine/zepn.sys" "$source/out/$machine/zepn.pdb" "$target/$machine"
    fill "$source/package/zepn.inf.in" | sed 's/$/\r/' > "$target/$machine/zepn.inf"
done
cp "$source/out/manifest/zepn.man" "$source"/out/manifest/*.tmf "$target/trace"
{ printf '// Version %s.\n//\n' "$(< "$source/VERSION")"; cat "$source/include/zepn_notifier.h"; } > "$target/include/zepn_notifier.h"
fill "$source/package/README.md.in" > "$target/README.md"
