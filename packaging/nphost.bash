# bash completion for nphost. Commands, options and arguments are taken from the help of the program that is there.

# _nphost_help NPHOST COMMAND...: a line for each command ("command NAME"), option ("option -x --xxx VALUE") and
# argument ("argument VALUE") that its help shows.
_nphost_help() {
    "$@" --help 2>/dev/null | awk '
        /^$/ { part = "" }
        /^[A-Z][a-z]+:$/ { part = $1; next }
        part == "Subcommands:" { print "command", $1 }
        part == "Positionals:" { print "argument", $1 }
        part == "Options:" {
            line = "option"
            for (i = 1; $i ~ /^-/; ++i) { gsub(/,|\{[a-z]*\}/, " ", $i); line = line " " $i }
            print line, $i ~ /^[A-Z]+$/ ? $i : "-"
        }'
}

# _nphost_values VALUE: what may stand for it.
_nphost_values() {
    case $1 in
        METHOD) compgen -W "best exact shortest" -- "$current" ;;
        STYLE) compgen -W "text json" -- "$current" ;;
        FORMAT) compgen -W "csv tsv ndjson" -- "$current" ;;
        TIME) compgen -W "digits iso seconds milliseconds" -- "$current" ;;
        WHAT) compgen -W "gained lost moved lengthened rewritten" -- "$current" ;;
        LIST) # the last of those that commas separate
            local before=
            [[ $current != *,* ]] || before=${current%,*},
            compgen -P "$before" -W "valid-from prefix next-change method ported network-name mcc mnc rn rn-context" -- "${current##*,}"
            ;;
        KEY=VALUE) compgen -W "Reload= ReuseOnFailure= AdditionalNumPortData= PrintData=" -- "$current" ;;
        FILE | PATH | OLD | NEW | INPUT) compgen -f -- "$current" ;;
    esac
}

_nphost() {
    local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local command=("${COMP_WORDS[0]}") help word words value=
    help=$(_nphost_help "${command[@]}")
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if grep -qxF -- "command $word" <<<"$help"; then
            command+=("$word")
            help=$(_nphost_help "${command[@]}")
        fi
    done
    if [[ $before == -* ]]; then
        value=$(awk -v option="$before" \
            '{ for (i = 2; i < NF; ++i) if ($i == option && $NF != "-") print $NF }' <<<"$help")
    fi
    [[ -n $value || $current == -* ]] || value=$(awk '$1 == "argument" { print $2; exit }' <<<"$help")
    COMPREPLY=()
    if [[ -n $value ]]; then
        mapfile -t COMPREPLY < <(_nphost_values "$value")
    elif [[ $current == -* ]]; then
        words=$(awk '$1 == "option" { $1 = $NF = ""; print }' <<<"$help")
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    else
        words=$(awk '$1 == "command" { print $2 }' <<<"$help")
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    fi
    case $value in
        KEY=VALUE | LIST) compopt -o nospace ;;
        FILE | PATH | OLD | NEW | INPUT) compopt -o filenames ;;
    esac
}
complete -F _nphost nphost
