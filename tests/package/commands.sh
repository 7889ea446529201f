#!/usr/bin/env bash
# The commands that read and leave files, as typed: the package is whole and signed, a captured run reads back, and all
# files are named from where the caller stands.
set -euo pipefail
root=$(readlink -f "$1")
cd "$root"
folder=$(mktemp -d)
product=out/zepn-$(< VERSION)
# A package that is there, signed by whomever, comes back.
[ ! -d "$product" ] || mv "$product" "$folder/product"
restore() {
    [ ! -d "$folder/product" ] || { rm -rf "$product" && mv "$folder/product" "$product"; }
    rm -rf "$folder" "$product.new"  # left by the refused signature
}
trap restore EXIT
./zepn package --sign > "$folder/package"
for name in arm64/zepn.sys x64/zepn.inf install.ps1 probe/arm64/zepn_probe.sys samples/client/x64/zepn_client.inf; do
    grep -q "/$name\$" "$folder/package" || { echo "the package lacks $name"; exit 1; }
done
# A pair of one's own; one that does not belong together is refused, and the package stays.
for name in own other; do
    openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=$name" -keyout "$folder/$name.key" \
        -out "$folder/$name.pem" 2> /dev/null
done
(cd "$folder" && "$root/zepn" package --sign own.pem own.key) > /dev/null
if ./zepn package --sign "$folder/own.pem" "$folder/other.key" 2> "$folder/error"; then
    echo "signed with a key of another certificate"
    exit 1
fi
grep -q 'does not belong' "$folder/error"
if ./zepn package --sign "$folder/own.pem" "$folder/own.key" --timestamp http://127.0.0.1:9/ 2> "$folder/error"; then
    echo "signed without the time stamp that was asked for"
    exit 1
fi
for machine in arm64 x64; do
    osslsigncode verify -CAfile "$folder/own.pem" -in "$product/$machine/zepn.sys" | grep '/CN=own' > /dev/null
done
./zepn demo --capture "$folder/run" > "$folder/demo"
./zepn decode "$folder/run" > "$folder/reports"
grep -q 'Notifier_HelperInit' "$folder/reports"
./zepn demo --image arm64 > "$folder/arm64"
grep -q 'no violation, nothing left' "$folder/arm64"
# The samples as any client's author would test them.
for machine in x64 arm64; do
    for sample in zepn_client zepn_crashdump; do
        ./zepn test-client "out/$machine/$sample.sys" --output-junit "$folder/results.xml" > "$folder/course"
        grep -q 'no finding' "$folder/course"
        xmllint --xpath '//testcase[@classname="'$sample'.sys.faults"]' "$folder/results.xml" > "$folder/faults"
    done
done
for refused in 'no-such.sys: there is no such file' 'README.md: neither'; do
    status=0
    ./zepn test-client "${refused%%:*}" 2> "$folder/error" || status=$?
    [ "$status" = 2 ] && grep -q "$refused" "$folder/error" || { echo "not refused: $refused"; exit 1; }
done
# The seed is printed before the search, whatever becomes of that.
./zepn fuzz --image native --seed 5 --seconds 0.5 --scenario "$folder/fuzz.json" > "$folder/fuzz"
head -n 1 "$folder/fuzz" | grep -q -- '--seed 5 '
# From a folder of the caller's, where a name may look like a value and a value like a name.
caller="$folder/the caller's folder"
mkdir "$caller"
sed 's/"title": *"[^"]*"/"title": "A scenario of the caller"/' scenarios/boot.json > "$caller/mine.json"
(
    cd "$caller"
    touch 3 x64
    # shellcheck disable=SC2094
    "$root/zepn" demo mine.json --etw 3 --image x64 --capture=run --diagram picture.mmd > demo
    grep -q 'A scenario of the caller' demo
    "$root/zepn" decode run > reports
    grep -q 'Notifier_HelperInit' reports
    [ -s picture.mmd ]
    "$root/zepn" fuzz --image=native --seed 5 --seconds 0.5 --scenario=fuzz.json > /dev/null
    # Level 3 shows warnings and worse, so fewer than all.
    "$root/zepn" demo mine.json --etw=0 > all
    [ "$(wc -l < demo)" -lt "$(wc -l < all)" ]
    [ "$(ls)" = "$(printf '%s\n' 3 all demo mine.json picture.mmd reports run x64)" ] && [ ! -s 3 ] && [ ! -s x64 ]
)
[ ! -e run ] && [ ! -e picture.mmd ]
if ./zepn decode "$folder/demo" 2> "$folder/error"; then
    echo "a text file passed for a capture"
    exit 1
fi
grep -q "zepn-decode: " "$folder/error"
