# bash completion for ostrel                                 -*- shell-script -*-
#
# Completes the switches (a value switch with its ":" and no space behind it),
# encoding names after -encin:, -encout: and -encarg:, and file names after
# -argfile: and for the file patterns. The encoding names are asked of the
# very ostrel being completed, with -listenc, each time, so that they always
# match the program. Switch names and encoding names ignore case, as the
# program does; "=" works in place of ":".

# The names in the first column of `ostrel -listenc`, below its separator
# line; a name too long for its column stands on a line of its own.
_ostrel_encodings()
{
    local program=$1
    [[ $program == "~/"* ]] && program=$HOME/${program#"~/"}
    "$program" -listenc 2>/dev/null | awk '/^====/ { listed = 1; next } listed && /^[^ ]/ { print $1 }'
}

_ostrel()
{
    local cur prev words cword
    # ":" and "=" stay inside the word, so that "-encin:GB" is one word.
    _init_completion -n := || return

    local switches=(-f -fic -r -ric -rnnl -rnnlic -argfile: -dlm: -encin: -encout: -encarg:
        -unisign -listenc -listcmp -force -s -exp -noexp -stdio -stdout -frc -trc -errstop -h '-?')

    # The switch as typed with its ":" or "=", when the word has one.
    local lower=${cur,,} switch=${cur%%[:=]*} candidate
    local name=${cur:0:${#switch}+1}
    case $lower in
        -encin[:=]* | -encout[:=]* | -encarg[:=]*)
            local value=${lower#*[:=]}
            while IFS= read -r candidate; do
                [[ ${candidate,,} == "$value"* ]] && COMPREPLY+=("$name$candidate")
            done < <(_ostrel_encodings "${words[0]}")
            ;;
        -argfile[:=]*)
            compopt -o filenames
            while IFS= read -r candidate; do
                COMPREPLY+=("$name$candidate")
            done < <(compgen -f -- "${cur#"$name"}")
            ;;
        -dlm[:=]*)
            return
            ;;
        -*)
            for candidate in "${switches[@]}"; do
                [[ $candidate == "$lower"* ]] && COMPREPLY+=("$candidate")
            done
            # A lone value switch waits for its value.
            [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *: ]] && compopt -o nospace
            ;;
        *)
            _filedir
            return
            ;;
    esac

    # Readline replaces only the text behind the last word break in the word,
    # ":" or "=" (encoding names may hold a ":" themselves).
    local breaks=
    [[ $COMP_WORDBREAKS == *:* ]] && breaks+=:
    [[ $COMP_WORDBREAKS == *=* ]] && breaks+==
    if [[ $breaks && $cur == *[$breaks]* ]]; then
        local head=${cur%"${cur##*[$breaks]}"} i
        for i in "${!COMPREPLY[@]}"; do
            COMPREPLY[i]=${COMPREPLY[i]#"$head"}
        done
    fi
} &&
    complete -F _ostrel ostrel

# ex: filetype=sh
