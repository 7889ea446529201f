# shellcheck shell=bash
# ./zepn test: builds what the wanted cases need, runs them by CTest and adds up what its JUnit files say. The names of
# cases come from the sources, so listing and choosing build nothing.
#
# Cases are run in groups: those of one build folder with one label. A group that passed is not run again while no file
# of the project, no commit and no compiler has changed; its results stay in build/results.

results=$root/build/results
passed=0 failed=0
chosen='' list=false all=false again=false only=''

refuse() {
    echo "zepn: $1" >&2
    exit 2
}

# All cases as "PROGRAM SUITE.CASE": GoogleTest's from the sources, scripts from the build files.
all_cases() {
    local folder
    for folder in "$root"/tests/*/; do
        find "$folder" -maxdepth 1 -name '*_test.cpp' -exec cat {} + |
            { grep -zoP '\nTEST(_[PF])?\(\s*\w+,\s*\w+\s*\)' || true; } | tr -d ' \n' | tr '\0' '\n' |
            sed -E "s|^TEST(_[PF])?\((.*),(.*)\)\$|$(basename "$folder") \2.\3|"
    done
    sed -nE 's/^ *(zepn_add_script\(|add_test\(NAME )([a-z_]+) .*/script \2/p' "$root/tests/CMakeLists.txt"
}

# ---- What must be built ----

# The programs whose cases run in one build folder, as targets.
targets_of() {
    case $1 in
    tsan) echo behaviour_tests ;;
    linux-arm64) if $all; then echo tests; else echo behaviour_tests zepn-play; fi ;;
    *) echo tests ;;
    esac
}

# has_program PRESET FOLDER
has_program() { grep -qE "^$2 .*\b${1#linux-}\b" "$root/tests/programs.txt"; }

# The build folders of a run, with what people call them.
title_of() {
    case $1 in
    native) echo "the tests" ;;
    asan) echo "the tests under sanitizers" ;;
    tsan) echo "the tests of threads under thread sanitizer" ;;
    linux-arm64) echo "the tests for AArch64" ;;
    esac
}

build_images_for_tests() {
    build windows decoding_files all_images minimal_x64 minimal_arm64 samples_x64 samples_arm64 wdk_linked
}

# ---- Running ----

# What a result depends on: all files and their modes, the commit that the build date comes from, the packages. Empty:
# not known, as in a copy that is no repository of its own.
state_of_tree() {
    local git=(git -c safe.directory='*' -C "$root")
    "${git[@]}" rev-parse HEAD > /dev/null 2>&1 && [ -z "$("${git[@]}" rev-parse --show-prefix)" ] || return 0
    (
        cd "$root" || exit
        "${git[@]}" rev-parse HEAD
        files_of_project | xargs -0 sha256sum
        files_of_project | xargs -0 stat -c '%a %n'
        dpkg-query -W "${packages[@]}" 2> /dev/null || clang++-19 --version
    ) | sha256sum
}
files_of_project() {
    "${git[@]}" ls-files -z --cached --others --exclude-from=.gitignore | sort -z |
        while IFS= read -r -d '' file; do [ ! -f "$file" ] || printf '%s\0' "$file"; done
}

# Reads CTest's lines and says how far it is: in place on a terminal, else now and then.
show_progress() {
    local title=$1 word last=$SECONDS
    while read -r word _; do
        [[ $word =~ ^[0-9]+/[0-9]+$ ]] || continue
        if [ -t 2 ]; then
            printf '\r  %-40s %s  ' "$title" "$word" >&2
        elif [ $((SECONDS - last)) -ge 30 ]; then
            printf '  %s %s\n' "$title" "$word" >&2
            last=$SECONDS
        fi
    done
    [ ! -t 2 ] || printf '\r\033[K' >&2
}

# run_ctest PRESET JUNIT_FILE TITLE ARGUMENTS...: true when CTest could do its work, whatever became of the cases.
run_ctest() {
    local preset=$1 junit=$2 title=$3
    shift 3
    mkdir -p "$results" "$logs"
    rm -f "$junit"
    local log
    log=$logs/test-$(basename "$junit" .xml).log
    ctest --test-dir "$root/build/$preset" --output-on-failure -j "$(nproc)" --output-junit "$junit" "$@" \
        2>&1 < /dev/null | tee "$log" | show_progress "$title" || true
    [ -s "$junit" ] && return
    tail -n 40 "$log" >&2
    exit 1
}

was_skipped='@message="SKIP_REGULAR_EXPRESSION_MATCHED"'
cases_with() { xmllint --xpath "count(//testcase[$2])" "$1"; }

# Prints a line for a JUnit file, and of each failed case what it said; adds to the sums.
count_cases() {
    local junit=$1 title=$2 note=${3:-} good skipped bad number
    good=$(cases_with "$junit" '@status="run"')
    skipped=$(cases_with "$junit" "skipped[$was_skipped]")
    bad=$(($(cases_with "$junit" 'true()') - good - skipped))
    for ((number = 1; number <= bad; ++number)); do
        xmllint --xpath "(//testcase[@status!='run' and not(skipped[$was_skipped])])[$number]" "$junit" |
            sed -E 's/&#10;|<!\[CDATA\[|\]\]>//g; s/&lt;/</g; s/&gt;/>/g; s/&quot;/"/g; s/&amp;/\&/g' | tail -n 60 >&2
        echo >&2
    done
    # The programs were not built, or no case bears the label.
    if [ $((good + bad + skipped)) = 0 ]; then
        echo "of $title no case ran" >&2
        bad=1
    fi
    passed=$((passed + good)) failed=$((failed + bad))
    printf '  %-48s %4d passed%s%s%s\n' "$title" "$good" "$([ "$skipped" = 0 ] || echo ", $skipped skipped")" \
        "$([ "$bad" = 0 ] || echo ", $bad FAILED")" "$note"
}

# run_group PRESET LABELS TITLE
run_group() {
    local preset=$1 labels=$2 title=$3 arguments=() name junit before=$failed begin
    begin=$(milliseconds)
    name=$preset-${labels//|/-}
    # Only these have slow cases.
    if [[ $labels = *files* || $preset = linux-arm64 ]]; then
        if $all; then name+=-all; else arguments=(-LE '^slow$'); fi
    fi
    junit=$results/$name.xml
    if ! $again && [ -n "$state" ] && [ -s "$junit" ] &&
        [ "$(cat "$results/$name.passed" 2> /dev/null)" = "$state" ]; then
        count_cases "$junit" "$title" ", unchanged since"
        return
    fi
    rm -f "$results/$name.passed"
    [[ $labels != *host* ]] || rm -rf "$root/build/$preset/rules_proven"
    remove_statistics "$preset" "$labels"
    # The cases that others need have a group of their own.
    rm -rf "$results/batch"
    mkdir -p "$results/batch"
    ZEPN_BATCH=$results/batch run_ctest "$preset" "$junit" "$title" -FA '.*' -L "^($labels)\$" "${arguments[@]}"
    count_cases "$junit" "$title" " in $(seconds_since "$begin") s"
    # What was saved meanwhile may be in the files and not in the programs.
    if [ "$failed" = "$before" ] && [ "$(state_of_tree)" = "$state" ]; then
        printf '%s' "$state" > "$results/$name.passed"
    fi
}

# remove_statistics PRESET LABELS, show_statistics PRESET LABELS: what the group's cases leave in statistics/, by
# container.
remove_statistics() {
    local folder=$root/build/$1/statistics
    rm -f "$folder"/{model,fault-injection}-"$2"*.txt "$folder/concurrency/$2,"*
}
show_statistics() {
    local folder=$root/build/$1/statistics
    cat "$folder"/{model,fault-injection}-"$2"*.txt 2> /dev/null || true
    cat "$folder/concurrency/$2,"* 2> /dev/null | awk '
        { walked[$2] += $(NF - 5); random[$2] += $(NF - 1) }
        END { for (on in walked) print "systematic concurrency testing, " on " schedules: " walked[on] \
            " up to the preemption bound, " random[on] " random" }' ||
        true
}

# ---- The kinds of runs ----

# PRESET:LABELS:TITLE of each group.
groups_of_run() {
    if [ "$(uname -m)" = x86_64 ]; then
        echo "native:native:native driver"
        echo "native:x64:x64 image"
        echo "native:host|files:host, tools, images, files"
        echo "linux-arm64:arm64:ARM64 image, under emulation"
    else
        echo "native:native:native driver"
        echo "native:arm64:ARM64 image"
        echo "native:host|files:host, tools, images, files"
        echo "  x64 image: skipped, this is no x86-64 machine" >&2
    fi
    $all || return 0
    echo "asan:native:native driver, sanitizers"
    if [ "$(uname -m)" = x86_64 ]; then
        echo "asan:x64:x64 image, host under sanitizers"
        echo "linux-arm64:host|files:host and tools, under emulation"
    else
        echo "asan:arm64:ARM64 image, host under sanitizers"
    fi
    echo "asan:host|files:host, tools, images, files, sanitizers"
    echo "tsan:native:native driver, threads under thread sanitizer"
}

run_groups() {
    local preset labels title presets state
    presets=$(groups_of_run | cut -d: -f1 | awk '!seen[$0]++')
    state=$(state_of_tree)
    step "building the driver images" windows build_images_for_tests
    for preset in $presets; do
        # shellcheck disable=SC2046
        step "building $(title_of "$preset")" "$preset" build "$preset" $(targets_of "$preset")
    done
    while IFS=: read -r preset labels title; do
        run_group "$preset" "$labels" "$title"
    done < <(groups_of_run)
    cat "$root/build/native/statistics/checks.txt" 2> /dev/null || true
    for labels in native x64 arm64; do
        show_statistics native "$labels"
    done
    if $all; then
        show_statistics linux-arm64 arm64
        return
    fi
    if [ "$(uname -m)" = x86_64 ]; then
        echo "left to ./zepn test --all: address, undefined-behaviour and thread sanitizers; on the ARM64 image fault"
        echo "injection, model, schedules, scenarios and samples; host and tools under emulation; whether two builds"
        echo "are equal; the commands as typed; damaged and very large files"
    else
        echo "left to ./zepn test --all: address, undefined-behaviour and thread sanitizers; whether two builds are equal;"
        echo "the commands as typed; damaged and very large files"
    fi
}

# images_for PROGRAM...: the targets of the image build that these programs' cases load or look at.
images_for() {
    local machine program targets=(decoding_files)
    machine=$([ "$(uname -m)" = aarch64 ] && echo arm64 || echo x64)
    [ "$only" != arm64 ] || machine=arm64
    for program in "$@"; do
        case $program in
        host) ;;
        behaviour | fault_injection | concurrency | model) [ "$only" = native ] || targets+=("zepn_$machine") ;;
        bench) targets+=(all_images minimal_x64 minimal_arm64) ;;
        *) targets+=(all_images samples_x64 samples_arm64 wdk_linked) ;;
        esac
    done
    printf '%s\n' "${targets[@]}" | sort -u
}

# Of the cases that match, those of one build folder.
run_chosen() {
    local preset=native part matching programs=() arguments=() program script targets=() pattern
    # As failures name it: On/SUITE.CASE/x64.
    part=$(sed -E 's|^[A-Za-z]+/||; s|/.*||' <<< "$chosen")
    if [ -z "$only" ] && [[ $chosen =~ ^On/.*/(native|x64|arm64)(_[0-9]+)?$ ]]; then
        only=${BASH_REMATCH[1]}
    fi
    matching=$(all_cases | awk -v part="$part" 'index($2, part)')
    [ -n "$matching" ] || refuse "no case is called $chosen; ./zepn test --list lists them"
    mapfile -t programs < <(cut -d' ' -f1 <<< "$matching" | sort -u)
    # These exist in one kind of build alone.
    if [ -z "$only" ] && [ "${programs[*]}" = script ]; then
        case $(cut -d' ' -f2 <<< "$matching" | paste -sd' ') in
        demo_plays) only=arm64 ;;
        libfuzzer_*) only=asan ;;
        esac
    fi
    case $only in
    asan | tsan) preset=$only ;;
    arm64) [ "$(uname -m)" = aarch64 ] || preset=linux-arm64 ;;&
    native | x64 | arm64) arguments=(-L "^$only\$") ;;
    esac
    for program in "${programs[@]}"; do
        if [ "$program" != script ]; then
            ! has_program "$preset" "$program" || targets+=("${program}_tests")
            continue
        fi
        while read -r script; do
            case $script in
            demo_plays) targets+=(zepn-play) ;;
            libfuzzer_*) targets+=(zepn-libfuzzer libfuzzer_with_model_bug) ;;
            *) targets+=(tests) ;;  # they look at what other cases have left
            esac
        done < <(awk '$1 == "script" { print $2 }' <<< "$matching")
    done
    [ ${#targets[@]} -gt 0 ] || refuse "of the cases called $chosen none is built for $only"
    # The host's own cases load no image.
    # shellcheck disable=SC2046
    [ "${programs[*]}" = host ] ||
        step "building the driver images" windows build windows $(images_for "${programs[@]}")
    step "building what they need" "$preset" build "$preset" "${targets[@]}"
    pattern=$(sed 's/[.[\*^$()+?{|\\]/\\&/g' <<< "$chosen")
    run_ctest "$preset" "$results/chosen.xml" "$chosen" -R "$pattern" -E '_NOT_BUILT$' "${arguments[@]}"
    [ "$(cases_with "$results/chosen.xml" 'true()')" -gt 0 ] ||
        refuse "of the cases called $chosen none runs on ${only:-the native build}"
    count_cases "$results/chosen.xml" "$chosen${only:+, on $only}"
}

# What of the driver's own code the tests reach on the native build.
run_coverage() {
    local folder=$root/build/coverage
    step "building the driver images" windows build_images_for_tests
    step "building with coverage" coverage build coverage tests zepn-coverage
    rm -rf "$folder/profiles"
    export LLVM_PROFILE_FILE=$folder/profiles/%4m.profraw
    step "testing the native driver" test-coverage ctest --test-dir "$folder" -j "$(nproc)" \
        -FA '.*' -L '^native$'
    unset LLVM_PROFILE_FILE
    llvm-profdata-19 merge -o "$folder/all.profdata" "$folder"/profiles/*.profraw
    llvm-cov-19 export "$folder/platform/zepn.so" -instr-profile="$folder/all.profdata" > "$folder/all.json"
    "$folder/tools/zepn-coverage" "$folder/all.json" "$root/tests/coverage/exceptions.txt" "$root"
}

# Two runs would build and count in the same folders.
wait_for_other_run() {
    local lock
    exec {lock}> "$root/build/test.lock"
    flock --nonblock "$lock" && return
    echo "zepn: another ./zepn test is running in $root; this one begins when that has ended" >&2
    flock "$lock"
}

# run_mutants [COUNT] [--seed N] [--in FILE[:LINE]]
run_mutants() {
    local arguments=("$@")
    [[ ! ${1:-} =~ ^[0-9]+$ ]] || shift
    while [ $# -gt 0 ]; do
        [[ $# -gt 1 && $1 =~ ^--(seed|in)$ ]] || refuse "test --mutants takes a number, --seed N and --in FILE[:LINE]"
        shift 2
    done
    step "building the decoding files" windows build windows decoding_files
    step "building driver and tests" native build native zepn-mutants \
        behaviour_tests model_tests fault_injection_tests concurrency_tests
    "$root/build/native/tools/zepn-mutants" "${arguments[@]}"
}

run_tests() {
    # What would choose among the cases.
    unset ZEPN_SCHEDULE ZEPN_SCHEDULES ZEPN_FAULT "${!GTEST_@}"
    if [ "$*" = --coverage ]; then
        wait_for_other_run
        run_coverage
        return
    fi
    if [ "${1:-}" = --mutants ]; then
        wait_for_other_run
        run_mutants "${@:2}"
        return
    fi
    while [ $# -gt 0 ]; do
        case $1 in
        --all) all=true ;;
        --again) again=true ;;
        --list) list=true ;;
        --coverage) refuse "test --coverage goes alone" ;;
        --on)
            [ $# -gt 1 ] && [[ $2 =~ ^(native|x64|arm64|asan|tsan)$ ]] ||
                refuse "test --on takes native, x64, arm64, asan or tsan"
            only=$2
            shift
            ;;
        -*) refuse "test does not know $1" ;;
        *)
            [ -z "$chosen" ] || refuse "test takes one name, and there is $chosen and $1"
            chosen=$1
            ;;
        esac
        shift
    done
    if $list; then
        all_cases | awk -v part="$chosen" 'part == "" || index($2, part)'
        return
    fi
    [ -z "$chosen" ] || ! $all || refuse "test takes a name or --all"
    [ -n "$chosen" ] || [ -z "$only" ] || refuse "test --on goes with a name"
    wait_for_other_run
    if [ -n "$chosen" ]; then run_chosen; else run_groups; fi
    printf '%d passed, %d failed\n' "$passed" "$failed"
    [ "$failed" = 0 ]
}
