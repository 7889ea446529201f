#!/usr/bin/env bash
# What distinguishes builds is the commit's alone: equal in every clone of it, and known to be unknown where it is.
set -euo pipefail
stamp=$1/cmake/build_stamp.sh
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
printf '@VERSION@.@BUILD@ @NUMBERS@ @COMMIT@ @DAY@ "@__DATE__@" @__TIME__@' > "$folder/template"
expect() {
    local found
    found=$("$stamp" "$1" "$folder/template")
    [ "$found" = "$2" ] || { printf '%s: %s\nexpected: %s\n' "$3" "$found" "$2"; exit 1; }
}

unset "${!GIT_@}"
export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_SYSTEM=/dev/null TZ=Asia/Tokyo
first=$folder/first
git init -q "$first"
commit() {
    git -C "$first" add --all
    GIT_COMMITTER_DATE=$1 git -C "$first" -c user.name=n -c user.email=e@localhost commit -q --allow-empty -m "$1"
}
echo 1.2.3 > "$first/VERSION"
commit 2024-01-01T00:00:00Z
commit 2024-05-08T23:04:05Z
id=$(git -C "$first" rev-parse HEAD)
whole="1.2.3.2 1,2,3,2 $id 05/08/2024 \"May  8 2024\" 23:04:05"
expect "$first" "$whole" 'a repository, east of Greenwich'
git clone -q "$first" "$folder/second"
expect "$folder/second" "$whole" 'its clone'
git -C "$first" worktree add -q "$folder/third"
expect "$folder/third" "$whole" 'its second worktree'

# Half a history has another number of commits: none is better than a wrong one.
git clone -q --depth 1 "file://$first" "$folder/shallow"
expect "$folder/shallow" "${whole//3.2 1,2,3,2/3.0 1,2,3,0}" 'a shallow clone'
echo changed > "$folder/second/new"
expect "$folder/second" "$whole" 'with a file that nobody asked git about'
echo 1.2.4 > "$folder/second/VERSION"
expect "$folder/second" "1.2.4.2 1,2,4,2 $id-modified 05/08/2024 \"May  8 2024\" 23:04:05" 'changed, not committed'

none='1.2.3.0 1,2,3,0 none 01/01/2010 "Jan  1 2010" 00:00:00'
mkdir "$folder/plain" "$first/inner"
echo 1.2.3 | tee "$folder/plain/VERSION" > "$first/inner/VERSION"
expect "$folder/plain" "$none" 'without git'
expect "$first/inner" "$none" 'unpacked within another repository'
git init -q "$folder/plain"
expect "$folder/plain" "$none" 'without a commit'

# A file is written only when that changes something, or all that depends on it would be built anew.
"$stamp" "$first" "$folder/template" "$folder/file"
touch -d 2000-01-01 "$folder/file"
"$stamp" "$first" "$folder/template" "$folder/file"
[ "$(date -r "$folder/file" +%Y)" = 2000 ] || { echo 'an unchanged file was written'; exit 1; }
commit 2024-05-09T00:00:00Z
"$stamp" "$first" "$folder/template" "$folder/file"
grep -q '^1\.2\.3\.3 ' "$folder/file" || { echo 'a new commit did not reach the file'; exit 1; }
