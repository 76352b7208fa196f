# bash completion for quillsec(1), which knows its own words; file names are bash's business.
_quillsec() {
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o default -F _quillsec quillsec
