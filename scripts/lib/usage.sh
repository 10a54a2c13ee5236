# What every script does with its words before it does anything else. Sourced before the script leaves the folder
# that it was called from.
# shellcheck shell=sh

script=$(realpath "$0")

# usage: the comment at the head of the script.
usage() { sed -n '1d; /^#/!q; s/^# \{0,1\}//p' "$script"; }

# refuse TEXT: ends the script with status 2 and what is wrong with its words.
refuse() {
    printf '%s: %s (see --help)\n' "$(basename "$script")" "$1" >&2
    exit 2
}

refuse_word() { refuse "unknown word: $1"; }

# answer_help WORD: ends the script with its usage if that is what the word asks for.
answer_help() {
    case ${1-} in -h | --help) usage; exit 0 ;; esac
}

# take_no_words "$@": for scripts that know none but --help.
take_no_words() {
    answer_help "${1-}"
    [ $# = 0 ] || refuse_word "$1"
}

# take_program COUNT "$@": for scripts whose words are a program or a file, so many further ones at least, and
# options for it.
take_program() {
    answer_help "${2-}"
    case ${2-} in -*) refuse_word "$2" ;; esac
    [ $# -gt "$(($1 + 1))" ] || refuse "too few words"
}
