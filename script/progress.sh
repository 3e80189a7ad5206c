# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Sourced by the scripts that take minutes. They print what they do. The output of a command that they run is shown
# only if it fails; on a terminal its latest line is shown meanwhile, which is ninja's or apt's progress.

erase=
if [[ -t 1 && ${TERM:-dumb} != dumb ]]; then
    erase=$'\r\e[K'
fi

# say WORD...: prints a line that is not replaced
say() {
    printf '%s%s\n' "$erase" "$*"
}

# logged FILE COMMAND...: runs it without input, and stores its output in FILE.
logged() {
    local log=$1
    shift
    if [[ -n $erase ]]; then
        (set -o pipefail && "$@" </dev/null 2>&1 | tee "$log" | last_line)
    else
        "$@" >"$log" 2>&1 </dev/null
    fi
}

# Each line replaces the previous one, and is cut at the terminal's width.
last_line() {
    local line
    while IFS= read -r line; do
        printf '%s\e[?7l%s\e[?7h' "$erase" "${line//[^[:print:]]/ }"
    done
    printf '%s' "$erase"
}

usage() {
    sed -n 's/^# usage/usage/p' "$0" >&2
    exit 2
}

# no_arguments WORD...: for the scripts that have none
no_arguments() {
    (($# == 0)) || usage
}

# The comment at the top of a script, after its licence, is its help.
if [[ ${1:-} == @(-h|--help) ]]; then
    sed -n '3,/^# usage/s/^# \{0,1\}//p' "$0"
    exit
fi
