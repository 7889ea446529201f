#!/usr/bin/env bash
# Fills a template with what distinguishes builds: build_stamp.sh SOURCE_FOLDER TEMPLATE [FILE]
#
#   @VERSION@   1.2.3, from the file VERSION       @COMMIT@  the commit's id
#   @NUMBERS@   1,2,3,BUILD                        @DAY@     its day in UTC, mm/dd/yyyy
#   @BUILD@     how many commits led to it         @__DATE__@, @__TIME__@  the same in the compiler's form
#
# Everything is the commit's, so that equal commits make equal builds; changes that are not committed add "-modified" to
# the id. Without git it is build 0 of 2010, commit "none"; a clone without its whole history cannot count and is build
# 0, too. (inf2cat refuses an INF of a day before 21 April 2009.) FILE is rewritten only when its contents change;
# without it the text goes to the standard output.
set -euo pipefail
source=$1 template=$2
# In containers the sources often belong to another user; reading from them is harmless.
git() { command git -c safe.directory='*' --no-optional-locks -C "$source" "$@" 2> /dev/null; }
commit_time() { LC_ALL=C TZ=UTC0 git log -1 --date="format-local:$1" --format=%cd; }

version=$(< "$source/VERSION")
build=0 commit=none day=01/01/2010 date='Jan  1 2010' time=00:00:00
# A repository around the sources' folder says nothing about them.
if prefix=$(git rev-parse --show-prefix) && [ -z "$prefix" ] && id=$(git rev-parse --verify HEAD); then
    commit=$id
    [ "$(git rev-parse --is-shallow-repository)" = true ] || build=$(git rev-list --count HEAD)
    [ -z "$(git status --porcelain --untracked-files=no)" ] || commit+=-modified
    day=$(commit_time %m/%d/%Y) date=$(commit_time '%b %e %Y') time=$(commit_time %H:%M:%S)
fi
text=$(sed -e "s|@VERSION@|$version|g" -e "s|@NUMBERS@|${version//./,},$build|g" -e "s|@BUILD@|$build|g" \
    -e "s|@COMMIT@|$commit|g" -e "s|@DAY@|$day|g" -e "s|@__DATE__@|$date|g" -e "s|@__TIME__@|$time|g" "$template")
if [ $# -lt 3 ]; then
    printf '%s\n' "$text"
elif [ "$(cat "$3" 2> /dev/null || true)" != "$text" ]; then
    printf '%s\n' "$text" > "$3"
fi
