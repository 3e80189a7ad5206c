# SPDX-License-Identifier: Apache-2.0
# Bash completion for tessera. What there is to complete comes from the command's own --help, so the two
# cannot disagree.

# _tessera_words WORD...: the verbs and options that `tessera WORD... --help` names.
_tessera_words() {
    "${COMP_WORDS[0]}" "$@" --help 2>/dev/null | awk '
        /^[A-Z].*:$/ { section = $1 }
        section ~ /^Options/ && match($0, /^  -[^ ]*/) { gsub(/,/, "\n", $1); print $1 }
        section ~ /^Commands/ && /^  [a-z]/ { print $1 }'
}

_tessera() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} word
    local by_name=/dev/block/platform/by-name unasked='^$' command=() words=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case ${#command[@]}:${command[0]:-}:$word in
        *:-*) ;;
        0:* | 1:slots:* | 1:status:* | 1:package:* | 1:version:* | 1:efuse:*) command+=("$word") ;;
        esac
    done
    case "${command[*]}:$previous" in
    *:--kind) words=(miniboot uboot vbmeta) ;;
    *:--progress) words=(bar plain json) ;;
    *:--trust-time) words=(now signing) ;;
    *:--data | *:--board | *:--trust | *:--sign | *:--cert) ;;
    digest:* | compare:*) mapfile -t words < <(ls "$by_name" 2>/dev/null && _tessera_words "${command[@]}") ;;
    "slots set-next:"* | "slots mark-good:"* | "slots mark-bad:"*) words=(a b) ;;
    "status set:set") words=(update system backup app middleware param owner next-slot) ;;
    "status set:"*) words=(normal burn verify verified none tool service a b) ;;
    *) mapfile -t words < <(_tessera_words "${command[@]}") ;;
    esac
    [[ $current == -* ]] || unasked='^-'
    mapfile -t COMPREPLY < <(compgen -W "${words[*]}" -- "$current" | grep -v "$unasked")
}

complete -o default -F _tessera tessera
