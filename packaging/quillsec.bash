# bash completion for quillsec(1): the program lists nouns, verbs and options; bash completes file names.
_quillsec() {
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o default -F _quillsec quillsec
