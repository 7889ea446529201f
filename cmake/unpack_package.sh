#!/usr/bin/env bash
# Unpacks a Debian package of any architecture into a folder, with lists of packages of its own: this machine's stay as
# they are. unpack_package.sh PACKAGE ARCHITECTURE FOLDER
set -euo pipefail
package=$1 architecture=$2 folder=$3
work=$folder.new
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/{state/partial,cache/archives/partial,root}
: > "$work/status"
options=(-q -o "APT::Architecture=$architecture" -o "APT::Architectures=$architecture" -o "Dir::State::lists=$work/state"
         -o "Dir::State::status=$work/status" -o "Dir::Cache=$work/cache" -o APT::Sandbox::User=)
apt-get "${options[@]}" update
(cd "$work" && apt-get "${options[@]}" download "$package")
dpkg-deb -x "$work"/*.deb "$work/root"
rm -rf "$folder"
mv "$work/root" "$folder"
