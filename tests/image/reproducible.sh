#!/usr/bin/env bash
# Builds both images from a copy of the sources in another folder and compares them, PDBs too, with those in out/.
set -euo pipefail
source=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
git -c safe.directory='*' -C "$source" ls-files -z --cached --others --exclude-standard |
    (cd "$source" && tar c --null -T - .git) | tar x -C "$folder"
cd "$folder"
for machine in arm64 x64; do
    cmake --preset "windows-$machine" > log 2>&1 && cmake --build --preset "windows-$machine" >> log 2>&1 ||
        { tail -n 40 log; exit 1; }
    for file in zepn.sys zepn.pdb; do
        cmp "out/$machine/$file" "$source/out/$machine/$file"
    done
done
