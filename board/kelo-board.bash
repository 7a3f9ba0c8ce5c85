# Completion of kelo-board in bash: source it, or put it where bash-completion looks.

_kelo_board()
{
    local word words
    words=$("$1" complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2> /dev/null)
    word=${COMP_WORDS[COMP_CWORD]}
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}

complete -o default -F _kelo_board kelo-board
