# SPDX-License-Identifier: MIT
# Completion of pfbctl for bash. Verbs and options are asked of the program itself, so that they are those it has.

_pfbctl_verbs()
{
    "$1" --help 2> /dev/null | sed -n '/^Verbs/,/^$/s/^  \([a-z]\{1,\}\) .*/\1/p'
}

# The options of a verb; "=" behind those that take a value.
_pfbctl_options()
{
    "$1" "$2" --help 2> /dev/null | sed -n 's/^  \(-., \|    \)*\(--[a-z0-9-]*=\{0,1\}\).*/\2/p'
}

_pfbctl()
{
    local word=${COMP_WORDS[COMP_CWORD]} verb=${COMP_WORDS[1]}
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_pfbctl_verbs "$1") --help --version" -- "$word")
    elif [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_pfbctl_options "$1" "$verb")" -- "$word")
        [[ ${COMPREPLY[0]-} != *= ]] || compopt -o nospace 2> /dev/null
    elif [ "$verb" = show ] || [ "$verb" = shot ]; then
        compopt -o filenames 2> /dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -F _pfbctl pfbctl
