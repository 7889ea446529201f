#!/usr/bin/env bash
# ./zepn test itself, in a small project of its own: what it lists, refuses, builds, runs, counts, shows and does not
# run again. CMake is played by a script that notes what is to be built; CTest is the real one, and its cases note that
# they ran: test_command.sh ROOT BUILD_FOLDER
set -euo pipefail
# A commit hook runs it too: the variables that git sets for its hooks name another repository.
unset "${!GIT_@}"
export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_SYSTEM=/dev/null
root=$1 build=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
project="$folder/the project"

fail() {
    printf '%s\n' "$*"
    cat "$folder/output" "$folder/error" 2> /dev/null
    exit 1
}

# ---- The project ----

mkdir -p "$project/build" "$project/bench" "$project"/tests/{behaviour,empty,host} "$folder/bin"
cp "$root/zepn" "$project"
cp "$root/tests/run.sh" "$root/tests/programs.txt" "$project/tests"
cp "$root/bench/main.cpp" "$project/bench"
printf '/build/\n/out/\n' > "$project/.gitignore"
echo '{}' > "$project/CMakePresets.json"
printf '// A comment.\nTEST_P(Loud, Works)\n{\n}\n' > "$project/tests/behaviour/loud_test.cpp"
printf '// A comment.\nTEST(Quiet, Works)\n{\n}\nTEST_F(Quiet, Rests)\n{\n}\n' > "$project/tests/host/quiet_test.cpp"
printf '    zepn_add_script(pages_work "files"\nzepn_add_script(pages_take_long "files;slow" x)\n' \
    > "$project/tests/CMakeLists.txt"
git -C "$project" init -q
commit() {
    git -C "$project" add -A
    git -C "$project" -c user.name=tests -c user.email=tests@localhost commit -q --allow-empty -m "$1"
}
commit first

# Every build folder has every case; labels choose.
cat > "$folder/bin/cmake" <<SCRIPT
#!/bin/sh
echo "\$*" >> '$folder/built'
if [ -e '$folder/unbuildable' ]; then echo 'error: expected a semicolon'; exit 1; fi
[ "\$1" = --preset ] || exit 0
mkdir -p "build/\$2"
echo "CMAKE_HOME_DIRECTORY:INTERNAL=\$PWD" > "build/\$2/CMakeCache.txt"
: > "build/\$2/build.ninja"
add() { printf 'add_test("%s" "%s" "%s")\nset_tests_properties("%s" PROPERTIES LABELS "%s")\n' "\$1" '$folder/case' "\$1" "\$1" "\$2"; }
for container in native x64 arm64; do add "On/Loud.Works/\$container" \$container; done > "build/\$2/CTestTestfile.cmake"
{ add Quiet.Works host; add pages_work files; add pages_take_long 'files;slow'; } >> "build/\$2/CTestTestfile.cmake"
SCRIPT
cat > "$folder/case" <<SCRIPT
#!/bin/sh
echo "\$1" >> '$folder/ran'
if grep -qsxF "\$1" '$folder/failing'; then echo 'expected <up> & saw <down>'; exit 1; fi
SCRIPT
chmod +x "$folder/bin/cmake" "$folder/case"

# zepn STATUS ARGUMENTS...: what it printed lies in output and error, what was built and ran in built and ran.
zepn() {
    local wanted=$1 status=0
    shift
    rm -f "$folder/built" "$folder/ran"
    : > "$folder/built"
    : > "$folder/ran"
    (cd "$folder" && PATH="$folder/bin:$PATH" "$project/zepn" "$@") > "$folder/output" 2> "$folder/error" || status=$?
    [ "$status" = "$wanted" ] || fail "zepn $* ended with $status, not $wanted"
}
ran() { [ "$(sort "$folder/ran" | paste -sd' ')" = "$1" ] || fail "$(paste -sd' ' "$folder/ran") ran, not $1"; }
says() { grep -qF -- "$1" "$folder/output" "$folder/error" || fail "nothing says: $1"; }

# ---- Listing ----

zepn 0 test --list
diff - "$folder/output" <<'TEXT' || fail "the list differs"
behaviour Loud.Works
host Quiet.Works
host Quiet.Rests
script pages_work
script pages_take_long
TEXT
[ ! -s "$folder/built" ] || fail "listing built something"
zepn 0 test --list Quiet.W
[ "$(cat "$folder/output")" = "host Quiet.Works" ] || fail "a part of a name lists other cases"

# The real one: every folder, and every case that CTest knows.
"$root/zepn" test --list > "$folder/list"
for name in "$root"/tests/*/*_test.cpp; do
    name=$(basename "$(dirname "$name")")
    grep -q "^$name " "$folder/list" || fail "no case of tests/$name is listed"
done
ctest --test-dir "$build" -N | sed -nE 's/^ *Test +#[0-9]+: //p' | grep -v '_NOT_BUILT$' |
    sed -E 's|^[A-Za-z]+/||; s|/.*||' | sort -u > "$folder/known"
[ "$(wc -l < "$folder/known")" -gt 100 ] || fail "CTest knows hardly a case"
unlisted=$(cut -d' ' -f2 "$folder/list" | sort -u | comm -13 - "$folder/known")
[ -z "$unlisted" ] || fail "not listed: $unlisted"

# ---- Refusing ----

refuses() {
    local sentence=$1
    shift
    zepn 2 "$@"
    [ ! -s "$folder/built" ] && [ ! -s "$folder/ran" ] || fail "zepn $* is refused after something was done"
    [ "$(cat "$folder/error")" = "zepn: $sentence" ] || fail "zepn $* is refused in other words"
}
refuses "no case is called Silent; ./zepn test --list lists them" test Silent
refuses "test takes one name, and there is Loud and Quiet" test Loud Quiet
refuses "test does not know --fast" test --fast
refuses "test --on takes native, x64, arm64, asan or tsan" test Loud --on mars
refuses "test --on takes native, x64, arm64, asan or tsan" test Loud --on
refuses "test --on goes with a name" test --on x64
refuses "test takes a name or --all" test Loud --all
refuses "test --coverage goes alone" test --again --coverage
refuses "test --mutants takes a number, --seed N and --in FILE[:LINE]" test --mutants many
refuses "test --mutants takes a number, --seed N and --in FILE[:LINE]" test --mutants 20 --seed
refuses "of the cases called Quiet none is built for tsan" test Quiet --on tsan

refuses "fuzz --libfuzzer takes a number of seconds, up to 9999999" fuzz --libfuzzer 99999999999999999999
zepn 2 bench --quick host nonsense
says "zepn: bench has no section nonsense; there are: "
says " host"
[ ! -s "$folder/built" ] || fail "an unknown section is refused after something was built"

# ---- What cannot be written ----

# unwritable NAME SENTENCE: something else lies where the build would write. (A superuser may write everywhere else.)
unwritable() {
    rm -rf "$project/build" "$project/out"
    mkdir -p "$(dirname "$project/$1")"
    if [ "${1%.log}" = "$1" ]; then : > "$project/$1"; else mkdir "$project/$1"; fi
    zepn 1 test Quiet
    [ "$(cat "$folder/error")" = "zepn: $project/$2" ] || fail "not said: $2"
    rm -r "${project:?}/$1"
}
unwritable build "build cannot be written to, and what is built belongs there"
unwritable out "out cannot be written to, and what is built belongs there"
unwritable build/logs/native.log "build/logs/native.log cannot be written"

# ---- Choosing ----

zepn 0 test Quiet
ran Quiet.Works
says "1 passed, 0 failed"
grep -q -- '--target host_tests$' "$folder/built" || fail "host_tests is not what was built"
zepn 0 test Loud
ran "On/Loud.Works/arm64 On/Loud.Works/native On/Loud.Works/x64"
zepn 0 test Loud --on x64
ran On/Loud.Works/x64
zepn 0 test Loud --on asan
grep -q -- '--build --preset asan --target behaviour_tests$' "$folder/built" || fail "not built under sanitizers"
# As a failure names it.
zepn 0 test On/Loud.Works/arm64
ran On/Loud.Works/arm64
[ "$(uname -m)" = aarch64 ] || grep -q -- '--build --preset linux-arm64 ' "$folder/built" || fail "built for this machine"
zepn 0 test pages_
ran "pages_take_long pages_work"
# In the sources, and in no build: an older list of CTest's, or a case that is compiled elsewhere only.
zepn 2 test Quiet.Rests
says "zepn: of the cases called Quiet.Rests none runs on the native build"

echo Quiet.Works > "$folder/failing"
zepn 1 test Quiet
says "expected <up> & saw <down>"
says "0 passed, 1 failed"
: > "$folder/unbuildable"
zepn 1 test Quiet
says "expected a semicolon"
ran ""
rm "$folder/unbuildable" "$folder/failing"

# ---- All, and not again ----

ordinary="On/Loud.Works/arm64 On/Loud.Works/native On/Loud.Works/x64 Quiet.Works pages_work"
# Of an AArch64 machine, which has no x64 container.
[ "$(uname -m)" = x86_64 ] || ordinary=${ordinary/ On\/Loud.Works\/x64/}
count=$(wc -w <<< "$ordinary")
zepn 0 test
ran "$ordinary"
says "$count passed, 0 failed"
says "left to ./zepn test --all:"
[ "$(xmllint --xpath 'count(//testcase)' "$project/build/results/native-host-files.xml")" = 2 ] ||
    fail "the results are not in build/results"

zepn 0 test
ran ""
says "unchanged since"
says "$count passed, 0 failed"
zepn 0 test --again
ran "$ordinary"
echo '// Another.' >> "$project/tests/host/quiet_test.cpp"
zepn 0 test
ran "$ordinary"
: > "$project/new.cpp"
zepn 0 test
ran "$ordinary"
git -C "$project" add -A
zepn 0 test
ran ""
# Its time is in what is built.
commit second
zepn 0 test
ran "$ordinary"

# One after the other: the second says what it waits for.
mkfifo "$folder/held"
( flock 9; : > "$folder/held"; for _ in {1..600}; do
      grep -qs 'another ./zepn test is running' "$folder/error" && break; sleep 0.1; done; echo freed >> "$folder/ran"
) 9> "$project/build/test.lock" &
: < "$folder/held"
zepn 0 test Quiet
[ "$(paste -sd' ' "$folder/ran")" = "freed Quiet.Works" ] || fail "two runs at once: $(paste -sd' ' "$folder/ran")"

# What failed runs again, unchanged or not; what passed does not.
echo '// A third.' >> "$project/tests/host/quiet_test.cpp"
echo Quiet.Works > "$folder/failing"
zepn 1 test
ran "$ordinary"
says "expected <up> & saw <down>"
says "$((count - 1)) passed, 1 failed"
zepn 1 test
ran "Quiet.Works pages_work"
rm "$folder/failing"

zepn 0 test --all
grep -q pages_take_long "$folder/ran" || fail "--all leaves out what is slow"
for preset in asan tsan; do
    grep -q -- "--build --preset $preset " "$folder/built" || fail "--all leaves out $preset"
done
if grep -q 'left to' "$folder/output"; then fail "--all leaves something"; fi

# ---- Under emulation ----

# Of a program that runs as a whole once, who passed there is done; all others run alone, and end as they end then. Who
# failed there has failed.
cat > "$folder/bin/emulator" <<SCRIPT
#!/bin/sh
echo "\$2" >> '$folder/ran'
case "\$3" in
--gtest_output=xml:*) cat > "\${3#*:}" ;;
*) [ "\$2" != --gtest_filter=Loud.Fails ] ;;
esac << TEXT
<testsuites><testcase classname="Loud" name="Works" result="completed"/><testcase classname="Loud" name="Rests" \
result="skipped"/><testcase classname="Loud" name="Fails" result="completed"><failure/></testcase><testcase \
classname="Loud" name="FailsAmongOthers" result="completed"><failure/></testcase></testsuites>
TEXT
SCRIPT
chmod +x "$folder/bin/emulator"
mkdir "$folder/batch"
rm -f "$folder/ran"
for end in Works/0 Fails/1 FailsAmongOthers/1 Rests/0 IsMissing/0 Works/0; do
    name=${end%/*} status=0
    ZEPN_BATCH=$folder/batch "$root/tests/kit/emulated.sh" "$folder/bin/emulator" loud_tests "--gtest_filter=Loud.$name" \
        > /dev/null || status=$?
    [ "$name/$status" = "$end" ] || fail "$name ended with $status"
done
ran "--gtest_filter=-On/* --gtest_filter=Loud.Fails --gtest_filter=Loud.FailsAmongOthers --gtest_filter=Loud.IsMissing --gtest_filter=Loud.Rests"

# ---- Checking ----

cp "$root"/{.clang-format,.clang-tidy,.shellcheckrc} "$project"
cp "$root/tests/check.sh" "$project/tests"
mkdir -p "$project/host"
printf 'int One();\n' > "$project/host/one.h"
printf '#include "host/one.h"\n\nint One()\n{\n    return 1;\n}\n' > "$project/host/first.cpp"
printf 'int Two()\n{\n    return 2;\n}\n' > "$project/host/two.cpp"
cat > "$folder/bin/clang-tidy-19" <<SCRIPT
#!/bin/sh
if [ "\$1" = --version ]; then echo 'a version'; else for file; do :; done; echo "\$file" >> '$folder/ran'; fi
! grep -qs UNTIDY "\$file"
SCRIPT
chmod +x "$folder/bin/clang-tidy-19"
git -C "$project" branch -q -M main
commit third
zepn 0 check
says "checked"
ran ""
zepn 0 check --all
ran "host/first.cpp host/two.cpp"
# A changed header is read through a source that includes it; what has passed is not read again.
printf 'int Zero();\n' >> "$project/host/one.h"
printf '// UNTIDY\n' >> "$project/host/two.cpp"
zepn 1 check
ran "host/first.cpp host/two.cpp"
printf 'int Two()\n{\n    return 3;\n}\n' > "$project/host/two.cpp"
zepn 0 check
ran "host/first.cpp host/two.cpp"
zepn 0 check
ran ""
printf 'int  Three();\n' > "$project/host/three.h"
zepn 1 check
says "host/three.h:1:4"
rm "$project/host/three.h"
# shellcheck disable=SC2016
printf '#!/bin/sh\necho $unquoted\n' > "$project/tests/careless.sh"
zepn 1 check
says "SC2154"
rm "$project/tests/careless.sh"
refuses "check takes --all and nothing else" check everything

# Without a repository nobody knows what has changed.
rm -rf "$project/.git"
zepn 0 test
zepn 0 test
ran "$ordinary"
