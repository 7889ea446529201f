#!/usr/bin/env bash
# Runs a case under emulation, where starting a program takes longer than most cases do: emulated.sh EMULATOR... PROGRAM
# --gtest_filter=CASE ...
#
# In a run of many cases ZEPN_BATCH names a folder. The first case of a program then runs all that may run in one
# process, and the others find in its results whether they passed. A case that did not, or whose results a crash has
# cost, runs in a process of its own for its output. It has failed when it does there, or did among the others.
set -euo pipefail
command=() case=''
for word; do
    case $word in
    --gtest_filter=*) case=${word#*=} ;;
    --gtest_*) ;;
    *) command+=("$word") ;;
    esac
done
if [ -n "${ZEPN_BATCH:-}" ] && [ -n "$case" ]; then
    results=$ZEPN_BATCH/$(basename "${command[-1]}").xml
    case $case in
    On/*) batch="On/*/${case##*/}" results+=.${case##*/} ;;
    *) batch='-On/*' ;;
    esac
    exec 9>> "$results.lock"
    flock 9
    if [ ! -s "$results.lock" ]; then
        echo begun >&9
        "${command[@]}" "--gtest_filter=$batch" "--gtest_output=xml:$results" > /dev/null 2>&1 9>&- || true
    fi
    exec 9>&-
    # cases_that TEST: how many of this name are so in those results
    cases_that() {
        xmllint --xpath "count(//testcase[@classname='${case%%.*}' and @name='${case#*.}' and $1])" \
            "$results" 2> /dev/null || echo 0
    }
    if [ "$(cases_that "@result='completed' and not(failure)")" = 1 ]; then
        echo "passed, with the others of its program"
        exit
    fi
    if [ "$(cases_that failure)" = 1 ]; then
        "$@"
        echo "failed among the others of its program, and passes alone"
        exit 1
    fi
fi
exec "$@"
