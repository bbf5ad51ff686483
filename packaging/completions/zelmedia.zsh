#compdef zelmedia
# Completion for zsh: zelmedia itself tells what can follow.
_zelmedia() {
    local line
    local -a candidates
    for line in "${(@f)$("${words[1]}" complete-words -- "${(@)words[2,CURRENT]}" 2> /dev/null)}"; do
        if [[ $line == :files ]]; then
            _files
            return
        fi
        [[ -n $line ]] && candidates+=("${${line//:/\\:}/$'\t'/:}")
    done
    _describe zelmedia candidates
}
# Found in the fpath this file is the function; otherwise it is sourced.
if [[ ${funcstack[1]} == _zelmedia ]]; then
    _zelmedia
else
    compdef _zelmedia zelmedia
fi
