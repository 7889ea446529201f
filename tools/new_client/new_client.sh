#!/usr/bin/env bash
# Makes the folder of a new client driver: new_client.sh NAME [--c|--cpp] [FOLDER]
#
# Everything in it is the caller's from then on. Works in the Notifier's sources and in its package.
set -euo pipefail
here=$(dirname "$(readlink -f "$0")")
root=$(readlink -f "$here/../..")

fail() {
    echo "zepn: $1" >&2
    exit 2
}

name='' folder='' extension=c
for argument in "$@"; do
    case $argument in
    --c) extension=c ;;
    --cpp) extension=cpp ;;
    -*) fail "new-client does not know $argument; it takes NAME [--c|--cpp] [FOLDER]" ;;
    *)
        if [ -z "$name" ]; then name=$argument
        elif [ -z "$folder" ]; then folder=$argument
        else fail "new-client takes NAME [--c|--cpp] [FOLDER]; $argument is too much"; fi
        ;;
    esac
done
[ -n "$name" ] || fail "new-client takes NAME [--c|--cpp] [FOLDER]"
# It becomes a file, a service and part of identifiers, beside those of the template and the Notifier.
[[ $name =~ ^[a-z][a-z0-9_]{0,23}$ ]] ||
    fail "a client's name has small letters, digits and _, begins with a letter and is at most 24 long: not $name"
case $name in
zepn* | host | xml | peer | notifier_link | framework_entry | memory | guard) fail "the name $name is taken: choose another" ;;
esac
# The tree holds the Notifier alone: a client made where its caller stands in it lies beside it.
if [ -z "$folder" ]; then
    folder=$PWD/$name
    [[ $PWD/ != "$root"/* ]] || folder=$(dirname "$root")/$name
fi
folder=$(readlink -m "$folder")
[[ $folder/ != "$root"/* ]] || fail "$folder lies inside the Notifier's own folder: give one outside"
[ ! -e "$folder" ] || [ -z "$(ls -A "$folder" 2> /dev/null || echo file)" ] ||
    fail "$folder is there already and not empty"

new_guid() { tr '[:lower:]' '[:upper:]' < /proc/sys/kernel/random/uuid; }
# 5A3E0000-0B61-... as a C initializer.
initializer() {
    local guid=$1
    printf '{0x%s, 0x%s, 0x%s, {0x%s, 0x%s, 0x%s, 0x%s, 0x%s, 0x%s, 0x%s, 0x%s}}' "${guid:0:8}" "${guid:9:4}" \
        "${guid:14:4}" "${guid:19:2}" "${guid:21:2}" "${guid:24:2}" "${guid:26:2}" "${guid:28:2}" "${guid:30:2}" \
        "${guid:32:2}" "${guid:34:2}"
}
guid=$(new_guid) peer=$(new_guid)
capital=${name^}
location=${root//\\/\\\\}/cmake
location=${location//\"/\\\"}
values=(
    "name=$name" "NAME=${name^^}" "Name=$capital" "extension=$extension" "VERSION=$(< "$root/VERSION")"
    "GUID=$guid" "GUID_INITIALIZER=$(initializer "$guid")"
    "PEER_GUID=$peer" "PEER_GUID_INITIALIZER=$(initializer "$peer")"
    "PROJECT_GUID=$(new_guid)" "DAY=$(date -u +%m/%d/%Y)" "ZEPN_CMAKE=$location"
)
# fill TEMPLATE FILE
fill() {
    local text value
    text=$(< "$here/template/$1")
    for value in "${values[@]}"; do
        text=${text//"@${value%%=*}@"/"${value#*=}"}
    done
    printf '%s\n' "$text" > "$folder/$2"
}

mkdir -p "$folder"
fill "driver.$extension.in" "$name.$extension"
fill interface.h.in "${name}_interface.h"
fill peer_interface.h.in peer_interface.h
fill test.cpp.in "${name}_test.cpp"
fill scenario.json.in "$name.json"
fill driver.inx.in "$name.inx"
fill driver.vcxproj.in "$name.vcxproj"
fill CMakeLists.txt.in CMakeLists.txt
fill CMakePresets.json.in CMakePresets.json
fill zepn_location.cmake.in zepn_location.cmake
fill gitignore.in .gitignore
fill README.md.in README.md
printf '%s\n' "$folder: $name, a client in $([ "$extension" = c ] && echo C || echo C++); to build and test it:" \
    "  cd $(printf %q "$folder")" \
    "  cmake --preset native && cmake --build --preset native && ctest --preset native"
