# Completes zorvik-report and record-host in bash, with the words that their --help tells.

_zorvik_discover() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} help words
    COMPREPLY=()
    case $before in
    -o | --output | --host) return ;; # a file, which bash itself completes
    --debug)
        words="0 1 2 3 4"
        ;;
    --format)
        words="xml json"
        ;;
    *)
        help=$("$1" --help 2>/dev/null) || return
        if [[ $word == -* ]]; then
            words=$(sed -nE 's/^  (-[^ ,]+)( [A-Z]+)?(, (-[^ ]+))?.*/\1 \4/p' <<<"$help")
        elif [[ " ${COMP_WORDS[*]:1:COMP_CWORD-1} " == *" status "* ]]; then
            words=$(sed -nE '/^sections of status/,/^$/ s/^  ([A-Z]\w+) .*/\1/p' <<<"$help")
        else
            words=$(sed -nE 's/^    ([a-z-]+) .*/\1/p' <<<"$help")
        fi
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -o default -F _zorvik_discover zorvik-report record-host
