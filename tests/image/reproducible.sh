#!/usr/bin/env bash
# Builds both images from a copy of the sources in another folder and compares them, PDBs too, with those in out/.
set -euo pipefail
source=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
git=(git -c safe.directory='*' -C "$source")
"${git[@]}" ls-files -z --cached --others --exclude-standard | while IFS= read -r -d '' file; do
    [ ! -e "$source/$file" ] || printf '%s\0' "$file"  # deleted, but not committed yet
done | (cd "$source" && tar c --null -T -) | tar x -C "$folder"
# The commit's time is in the images: a commit made since they were built makes them differ.
printf 'gitdir: %s\n' "$("${git[@]}" rev-parse --absolute-git-dir)" > "$folder/.git"
cd "$folder"
cmake --preset windows > log 2>&1 && cmake --build --preset windows --target zepn_arm64 zepn_x64 >> log 2>&1 ||
    { tail -n 40 log; exit 1; }
for machine in arm64 x64; do
    for file in zepn.sys zepn.pdb; do
        cmp "out/$machine/$file" "$source/out/$machine/$file"
    done
done
