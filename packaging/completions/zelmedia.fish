# Completion for fish: zelmedia itself tells what can follow.
function __zelmedia_words
    set -l words (commandline -opc) (commandline -ct)
    set -l lines ($words[1] complete-words -- $words[2..-1] 2> /dev/null)
    if test "$lines" = :files
        __fish_complete_path (commandline -ct)
    else
        printf '%s\n' $lines
    end
end
complete -c zelmedia -f -a '(__zelmedia_words)'
