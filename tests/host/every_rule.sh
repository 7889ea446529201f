#!/usr/bin/env bash
# Fails when a rule of the host was broken by no driver of the tests: every_rule.sh RULES BROKEN_FOLDER FIGURES_FOLDER
# PROGRAM. A mark counts only while it is newer than the program that leaves it.
set -euo pipefail
mkdir -p "$3"
[ -s "$1" ]
missing=$(while IFS= read -r rule; do [ "$2/$rule" -nt "$4" ] || echo "$rule"; done < "$1")
if [ -n "$missing" ]; then
    printf 'no broken driver was caught at:\n%s\n' "$missing"
    exit 1
fi
printf 'checks active, each proven by a broken driver: %s\n' "$(paste -sd, "$1" | sed 's/,/, /g')" > "$3/checks.txt"
