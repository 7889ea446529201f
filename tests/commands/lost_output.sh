#!/usr/bin/env bash
# The programs of the commands: output that does not arrive is no success, and numbers are taken as they are typed
# or not at all: lost_output.sh PLAY DECODE FUZZ IMAGE_CHECK CAPTURE IMAGE
set -euo pipefail
play=$1 decode=$2 fuzz=$3 check=$4 capture=$5 image=$6
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

# ends_with STATUS SENTENCE COMMAND...
ends_with() {
    local wanted=$1 sentence=$2 status=0
    shift 2
    "$@" 2> error || status=$?
    if [ "$status" != "$wanted" ] || ! grep -qF -- "$sentence" error; then
        echo "$* ended with $status: $(cat error)" >&2
        exit 1
    fi
}

loses_nothing() {
    "$@" > /dev/null
    ends_with 2 "$(basename "$1"): the output could not be written" "$@" > /dev/full
    ends_with 2 "$(basename "$1"): the standard output is closed" "$@" >&-
}
loses_nothing "$play" --image native
loses_nothing "$play" --help
loses_nothing "$decode" "$capture"
loses_nothing "$fuzz" --image native --sequences 3 --seed 18446744073709551615
loses_nothing "$check" --structure-only "$image"

for seed in -5 18446744073709551616 1x ''; do
    ends_with 2 "--seed: no whole number" "$fuzz" --image native --sequences 1 --seed "$seed" > /dev/null
done
