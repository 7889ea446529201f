#!/usr/bin/env bash
# Fails when a rule of the host was broken by no faulty driver: every_rule.sh RULES MARKS_FOLDER STATISTICS_FOLDER
# PROGRAM. A mark counts only while it is newer than the program that writes it.
set -euo pipefail
mkdir -p "$3"
[ -s "$1" ]
missing=$(while IFS= read -r rule; do [ "$2/$rule" -nt "$4" ] || echo "$rule"; done < "$1")
if [ -n "$missing" ]; then
    printf 'no faulty driver was caught breaking:\n%s\n' "$missing"
    exit 1
fi
printf 'checks active, each proven by a faulty driver: %s\n' "$(paste -sd, "$1" | sed 's/,/, /g')" > "$3/checks.txt"
