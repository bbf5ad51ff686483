# Completion for bash: zelmedia itself tells what can follow.
_zelmedia() {
    COMPREPLY=()
    local line
    while IFS= read -r line; do
        if [ "$line" = :files ]; then
            compopt -o default # readline knows best how to complete the names of files
        else
            COMPREPLY+=("${line%%$'\t'*}")
        fi
    done < <("${COMP_WORDS[0]}" complete-words -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2> /dev/null)
}
complete -F _zelmedia zelmedia
