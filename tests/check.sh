# shellcheck shell=bash
# ./zepn check: what can be said of the sources without running them. Files are checked that differ from the main
# branch's and have not passed as they are; the hashes of those that have stand in build/check/passed.
#
# A changed header is read by clang-tidy through one source that includes it.

passed_list=$root/build/check/passed

# The files of the project whose names match, one a line.
sources_like() {
    (cd "$root" && git -c safe.directory='*' ls-files --cached --others --exclude-standard -- "$@" | sort -u |
        while IFS= read -r file; do [ ! -f "$file" ] || printf '%s\n' "$file"; done)
}

# What differs from the commit where this branch left the main one: all, where that is not known.
changed_files() {
    local git=(git -c safe.directory='*' -C "$root") branch base
    for branch in origin/main main; do
        if base=$("${git[@]}" merge-base HEAD "$branch" 2> /dev/null); then
            "${git[@]}" diff --name-only "$base"
            "${git[@]}" ls-files --others --exclude-standard
            return
        fi
    done
    sources_like .
}

# With what the checks depend on beside the file: their settings and programs.
settings_hash() {
    (cd "$root" && cat .clang-format .clang-tidy .shellcheckrc && clang-tidy-19 --version && shellcheck --version) |
        sha256sum | cut -c1-16
}

# to_check KIND PATTERN...: of the files of these names, those that this run checks.
to_check() {
    local kind=$1 file
    shift
    sources_like "$@" | if $all; then cat; else grep -xFf "$changed" || true; fi | while IFS= read -r file; do
        $all || ! grep -qxF "$(mark_of "$kind" "$file")" "$passed_list" 2> /dev/null || continue
        printf '%s\n' "$file"
    done
}
mark_of() { printf '%s %s %s' "$settings" "$1" "$(cd "$root" && sha256sum "$2")"; }

# From the standard input, the files that have passed a kind of check.
note_passed() {
    local file
    while IFS= read -r file; do
        printf '%s\n' "$(mark_of "$1" "$file")"
    done >> "$passed_list"
}

# For each header from the standard input a source that includes it, where there is one; sources as they are.
as_sources() {
    local file source
    while IFS= read -r file; do
        source=$file
        if [[ $file = *.h ]]; then
            source=${file%.h}.cpp
            [ -f "$root/$source" ] || source=$(first_that_includes "$file")
        fi
        [ -z "$source" ] || printf '%s\n' "$source"
    done | sort -u
}

# That grep finds nothing, or is cut off, is no failure: one would end the list here without a word.
first_that_includes() {
    (cd "$root" && sources_like 'driver/*.cpp' 'host/*.cpp' 'tools/*.cpp' 'samples/*.cpp' |
        xargs grep -lF -e "#include \"$1\"" -e "#include \"$(basename "$1")\"" || true) | sed -n 1p
}

# Of a build that compiles each source by itself, without precompiled headers, and that is never made.
configure_for_tidy() {
    configured_here check || cmake --preset check --fresh
    cmake --build build/check --target build_stamp
}

# The placeholders of a template, @NAME@, stand as names of the same width.
format_template() {
    tr @ _ < "$root/$1" | clang-format-19 --dry-run --Werror --assume-filename="$root/${1%.in}"
}

run_tidy() { printf '%s\0' "$@" | xargs -0 -n 1 -P "$(nproc)" clang-tidy-19 -p build/check --quiet; }

run_checks() {
    local all=false settings changed files file sources
    if [ "$*" = --all ]; then
        all=true
    elif [ $# -gt 0 ]; then
        echo "zepn: check takes --all and nothing else" >&2
        exit 2
    fi
    mkdir -p "$root/build/check"
    settings=$(settings_hash)
    changed=$root/build/check/changed
    changed_files > "$changed"

    mapfile -t files < <(to_check format '*.cpp' '*.h' '*.c')
    if [ ${#files[@]} -gt 0 ]; then
        step "clang-format, ${#files[@]} files" check-format clang-format-19 --dry-run --Werror "${files[@]}"
        printf '%s\n' "${files[@]}" | note_passed format
    fi
    mapfile -t files < <(to_check format '*.cpp.in' '*.h.in' '*.c.in')
    for file in "${files[@]}"; do
        step "clang-format, $file" check-format format_template "$file"
        echo "$file" | note_passed format
    done
    mapfile -t files < <(to_check shell zepn .ci/run '*.sh' | grep -vxF -e tests/run.sh -e tests/check.sh)
    if [ ${#files[@]} -gt 0 ]; then
        step "shellcheck, ${#files[@]} files" check-shell shellcheck --external-sources "${files[@]}"
        printf '%s\n' "${files[@]}" | note_passed shell
    fi
    mapfile -t files < <(to_check tidy 'driver/*.cpp' 'driver/*.h' 'host/*.cpp' 'host/*.h' 'tools/*.cpp' 'tools/*.h' \
        'samples/*.cpp' 'samples/*.h')
    mapfile -t sources < <([ ${#files[@]} = 0 ] || printf '%s\n' "${files[@]}" | as_sources)
    if [ ${#sources[@]} -gt 0 ]; then
        step "configuring for clang-tidy" check-configure configure_for_tidy
        step "clang-tidy, ${#sources[@]} sources" check-tidy run_tidy "${sources[@]}"
        printf '%s\n' "${files[@]}" | note_passed tidy
    fi
    echo "checked"
}
