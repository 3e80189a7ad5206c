# shellcheck shell=bash
# Sourced by the scripts that take minutes. They print what they do; a command that they run is only heard of
# when it fails, and on a terminal by its last line until the next one comes: ninja's or apt's own progress.

# logged FILE COMMAND...: runs it with nothing to read, and keeps what it prints in FILE.
logged() {
    local log=$1
    shift
    if [[ -t 1 && ${TERM:-dumb} != dumb ]]; then
        (set -o pipefail && "$@" </dev/null 2>&1 | tee "$log" | last_line)
    else
        "$@" >"$log" 2>&1 </dev/null
    fi
}

# Each line takes the place of the one before, and what does not fit into the terminal's width is cut.
last_line() {
    local line
    while IFS= read -r line; do
        printf '\r\e[K\e[?7l%s\e[?7h' "${line//[^[:print:]]/ }"
    done
    printf '\r\e[K'
}

usage() {
    sed -n 's/^# usage/usage/p' "$0" >&2
    exit 2
}

# no_arguments WORD...: for the scripts that have none
no_arguments() {
    (($# == 0)) || usage
}

# The comment at the top of a script is its help.
if [[ ${1:-} == @(-h|--help) ]]; then
    sed -n '2,/^# usage/s/^# \{0,1\}//p' "$0"
    exit
fi
