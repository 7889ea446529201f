#!/usr/bin/env bash
# The folder of a new client as its author gets it, in C from the sources and in C++ from the package, each with spaces
# in its path: both images and the native module are built, the scenario plays and the test passes, the first under
# sanitizers. The test that comes with it is a test: a client that forgets to leave fails it.
set -euo pipefail
root=$(readlink -f "$1")
cd "$root"
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

fail() {
    echo "$1"
    exit 1
}
run() { "$@" > "$folder/log" 2>&1 || { tail -n 40 "$folder/log"; fail "failed: $*"; }; }

# refused PART ARGUMENT...: of the message.
refused() {
    local part=$1 status=0
    shift
    tools/new_client/new_client.sh "$@" > "$folder/log" 2>&1 || status=$?
    [ "$status" = 2 ] && grep -q "$part" "$folder/log" || fail "not refused for '$part': new-client $*"
}
refused 'small letters' Fan "$folder/fan"
refused 'is taken' zepn_client "$folder/fan"
refused 'does not know --rust' fan --rust "$folder/fan"
refused 'outside' fan driver/fan
mkdir "$folder/taken"
touch "$folder/taken/file"
refused 'not empty' fan "$folder/taken"
[ ! -e "$folder/fan" ] && [ ! -e driver/fan ] || fail "a refused client left a folder"

# works_in FOLDER NAME PRESET
works_in() (
    cd "$1"
    run cmake --preset "$3"
    run cmake --build --preset "$3"
    run ctest --preset "$3" --no-tests=error
    [ -f "build/$3/native/$2.so" ] || fail "no native module"
)

./zepn new-client fan --c "$folder/a client in C"
driver/package/assemble.sh "$root" "$folder/the package"
"$folder/the package/client/tools/new_client/new_client.sh" pump --cpp "$folder/a client in C++"
# Beside the sources the tree's own host serves both presets; from the package it is compiled, which is what takes long.
for client in C/fan/asan C++/pump/native; do
    IFS=/ read -r language name preset <<< "$client"
    made="$folder/a client in $language"
    ! grep -rn '@' "$made" || fail "a place that nothing filled"
    works_in "$made" "$name" "$preset"
    [ "$preset" = native ] || works_in "$made" "$name" native
    run build/native/tools/zepn-image-check --without-reports "$made/build/$preset"/{arm64,x64}/"$name.sys"
    ! grep -c "$folder" "$made/build/$preset"/{arm64,x64}/"$name".{sys,pdb} || fail "an image names this machine's folders"
    for machine in arm64 amd64; do
        grep -q "NT$machine\.10.*"$'\r'"\$" "$made/build/$preset/${machine/amd64/x64}/$name.inf" || fail "INF for $machine"
    done
    run ./zepn demo "$made/$name.json" --driver "$name=$made/build/$preset/x64/$name.sys"
    run ./zepn test-client "$made/build/$preset/x64/$name.sys"
    run xmllint --noout "$made/$name.vcxproj"
done

# A hang is named by its root: here the callback waits for the lock that its thread holds, and the driver cannot go.
sed -i.good 's|^    UNREFERENCED_PARAMETER(callbackContext);|    (void)PostState(callbackContext, FAN_STATE_UP);|' \
    "$folder/a client in C/fan.c"
(
    cd "$folder/a client in C"
    run cmake --build --preset asan
    ! ctest --preset asan --output-on-failure > "$folder/log" || fail "a client that hangs passes its test"
    grep -q 'self-wait: WdfWaitLockAcquire called from ' "$folder/log"
    grep -q 'fan.c:[0-9]*) → fan.*!PostState\|!OnPeerState (fan.c:[0-9]*)' "$folder/log"
)
mv "$folder/a client in C/fan.c.good" "$folder/a client in C/fan.c"

[ ! -e "$folder/a client in C/build/native/zepn" ] && [ ! -e "$folder/a client in C/build/asan/zepn" ] ||
    fail "a client beside the sources compiles a host of its own"

sed -i 's/= .*Notifier_HelperClientDeinit(&OwnGuid);/= device ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;/' \
    "$folder/a client in C/fan.c"
(
    cd "$folder/a client in C"
    run cmake --build --preset asan
    ! ctest --preset asan > "$folder/log" || fail "a client that does not leave passes its test"
    grep -q 'DeregistersFromARemovedNotifierAndRegistersWithTheNext/Image' "$folder/log"
    grep -q 'DeregistersFromARemovedNotifierAndRegistersWithTheNext/Module' "$folder/log"
)
