#!/usr/bin/env bash
# Fails when a report of the list was seen by no test: reports_seen.sh REPORTS_TXT SEEN_FOLDER DRIVER
# A file counts only while it is newer than the driver and than the test program that wrote it.
set -euo pipefail
seen=$(mktemp)
trap 'rm -f "$seen"' EXIT
counted=0
for file in "$2"/*; do
    program=$(sed -n '1s/^P //p' "$file")
    if [ "$file" -nt "$3" ] && [ "$file" -nt "$program" ]; then
        tail -n +2 "$file" >> "$seen"
        counted=$((counted + 1))
    fi
done
missing=$(LC_ALL=C comm -23 <(LC_ALL=C sort -u "$1") <(LC_ALL=C sort -u "$seen"))
echo "$counted tests have left what they saw; the list holds $(wc -l < "$1") reports"
if [ -n "$missing" ]; then
    printf 'seen by none of them (run all tests first):\n%s\n' "$missing"
    exit 1
fi
