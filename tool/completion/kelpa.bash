# Completion of kelpa's command line for bash. What it offers is read from the command's own help,
# so that it never falls behind.

# The help of what is typed so far: of its command when there is one.
_kelpa_help() {
    local word
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        render | info | convert | generate | bench)
            "${COMP_WORDS[0]}" "$word" --help 2>/dev/null
            return
            ;;
        esac
    done
    "${COMP_WORDS[0]}" --help 2>/dev/null
}

# The words that an option takes: the front|back|left of its line in the help.
_kelpa_choices() {
    sed -nE "s/^ +(-[a-z],)?$1 ([a-z]+[|,][a-z|,]+).*/\2/p" | tr '|,' '\n\n'
}

_kelpa() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local words='' help
    help=$(_kelpa_help)
    case $current in
    -*)
        words=$(grep -E '^ +-' <<<"$help" | grep -oE '(^ +|,)-[-a-z]+' | tr -d ' ,')
        ;;
    *)
        if [[ $previous == -* ]]; then
            words=$(_kelpa_choices "$previous" <<<"$help")
        elif [[ $previous == generate ]]; then
            words='galaxy splash crystal cloud'
        elif ((COMP_CWORD == 1)); then
            words=$(sed -n '/^Subcommands:/,$s/^  \([a-z]*\) .*/\1/p' <<<"$help")
        fi
        ;;
    esac
    # With no words of ours the shell's own completion offers files.
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -o default -F _kelpa kelpa
