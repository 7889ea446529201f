#!/usr/bin/env bash
# Puts the package together from what was built: assemble.sh SOURCE_FOLDER PACKAGE_FOLDER
#
# Each folder of a driver holds one architecture: image, PDB and an INF for that one. What Windows reads line by line
# has its line ends.
set -euo pipefail
source=$1 target=$2
# As a sed script, for several templates; what it looks for is written so that it does not find itself.
stamp=$("$source/cmake/build_stamp.sh" "$source" /dev/stdin << 'TEXT'
s|[@]VERSION[@]|@VERSION@|g
s|[@]NUMBERS[@]|@NUMBERS@|g
s|[@]BUILD[@]|@BUILD@|g
s|[@]COMMIT[@]|@COMMIT@|g
s|[@]DAY[@]|@DAY@|g
TEXT
)
fill() { sed -e "$stamp" -f "$source/out/pages/identifiers.sed" "$1"; }
windows_lines() { sed 's/$/\r/'; }

# driver NAME INF_TEMPLATE FOLDER: its images, for each architecture in a folder below FOLDER.
driver() {
    local machine folder
    for machine in arm64 x64; do
        folder=$target/$3$machine
        mkdir -p "$folder"
        cp "$source/out/$machine/$1.sys" "$source/out/$machine/$1.pdb" "$folder"
        fill "$source/$2" | sed "s|@ARCHITECTURE@|${machine/x64/amd64}|g" | windows_lines > "$folder/$1.inf"
    done
}
driver zepn driver/package/zepn.inf.in ''
driver zepn_probe samples/probe/zepn_probe.inf.in probe/
driver zepn_client samples/client/zepn_client.inf.in samples/client/
driver zepn_crashdump samples/crashdump/zepn_crashdump.inf.in samples/crashdump/
cp "$source/samples/probe/README.md" "$target/probe"
windows_lines < "$source/samples/probe/answers.txt" > "$target/probe/answers.txt"

mkdir -p "$target/trace" "$target/include"
cp "$source/out/manifest/zepn.man" "$source"/out/manifest/*.tmf "$target/trace"
for file in zepn.ctl zepn.wprp; do
    fill "$source/driver/package/$file.in" | windows_lines > "$target/trace/$file"
done
mkdir -p "$target/wdk"
fill "$source/driver/package/zepn_version.h.in" > "$target/wdk/zepn_version.h"
fill "$source/driver/wdk/stamp.props.in" > "$target/wdk/stamp.props"
"$source/driver/wdk/trace_formats.sh" "$source"/out/manifest/*.tmf > "$target/wdk/trace_formats.cpp"
for script in install.ps1 uninstall.ps1; do
    windows_lines < "$source/driver/package/$script" > "$target/$script"
done
{
    printf '// Version %s.\n//\n' "$(< "$source/VERSION")"
    cat "$source/driver/include/zepn_notifier.h"
} > "$target/include/zepn_notifier.h"
fill "$source/driver/package/README.md.in" > "$target/README.md"
# What client drivers are built and tested with on Linux, where cmake/zepn-config.cmake looks for it.
mkdir -p "$target/client"
kit=$(readlink -f "$target/client")
(
    cd "$source"
    cp -r --parents -t "$kit" VERSION host platform/include platform/windows driver/include driver/trace/identifiers.h \
        samples/common tools/play tools/peers tools/test_client tools/command_line tools/new_client cmake/zepn-config.cmake \
        cmake/zepn-config-version.cmake cmake/image_options.cmake cmake/compile_time.cmake cmake/linux-arm64.cmake \
        cmake/pugixml.cmake cmake/unpack_package.sh
    rm "$kit/platform/include/.clang-format" "$kit/driver/include/.clang-format"
)
