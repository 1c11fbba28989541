# Completion of kelpa's command line for bash. What it offers is read from the command's own help,
# so that it never falls behind.

# The help of what is typed so far: of its command when there is one.
_kelpa_help() {
    local word
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        render | view | info | convert | generate | bench | join)
            "${COMP_WORDS[0]}" "$word" --help-all 2>/dev/null
            return
            ;;
        esac
    done
    "${COMP_WORDS[0]}" --help 2>/dev/null
}

# What an option takes: the front|back|left, or TEXT, of its line in the help.
_kelpa_type() {
    sed -nE "s/^ +(-[a-z],)?$1 ([^ ]+).*/\2/p"
}

_kelpa() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local words='' type='' help
    help=$(_kelpa_help)
    # --view=front is three words here.
    [[ $current == = ]] && current=''
    [[ $previous == = ]] && previous=${COMP_WORDS[COMP_CWORD - 2]}
    case $current in
    -*)
        words=$(grep -E '^ +-' <<<"$help" | grep -oE '(^ +|,)-[-a-z]+' | tr -d ' ,')
        ;;
    *)
        if [[ $previous == -* ]]; then
            type=$(_kelpa_type "$previous" <<<"$help")
            words=$(tr '|,' '\n\n' <<<"$type" | grep -xE '[a-z-]+')
        elif [[ $previous == generate ]]; then
            words=$(sed -nE 's/^  KIND +(.*)/\1/p' <<<"$help" | sed 's/, / /g; s/ or / /')
        elif ((COMP_CWORD == 1)); then
            words=$(sed -n '/^Subcommands:/,$s/^  \([a-z]*\) .*/\1/p' <<<"$help")
        fi
        ;;
    esac
    # With no words of ours the shell's own completion offers files.
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current"
        [[ $type == *FILE* ]] && compgen -f -- "$current")
}

complete -o default -F _kelpa kelpa
