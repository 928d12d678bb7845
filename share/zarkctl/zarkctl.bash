# Completion of zarkctl for bash: commands, options, files, and paths from the device.
_zarkctl() {
    local -a words
    local line=${COMP_LINE:0:COMP_POINT} current candidate
    read -ra words <<<"$line"
    [[ $line != *' ' ]] || words+=("")
    current=${words[-1]}
    COMPREPLY=()
    while IFS= read -r candidate; do
        if [[ $candidate == '<files>' ]]; then
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            compopt -o filenames
            return
        fi
        # bash takes what stands before a colon for another word.
        [[ $COMP_WORDBREAKS != *:* || $current != *:* ]] || candidate=${candidate#"${current%"${current##*:}"}"}
        [[ $candidate != */ ]] || compopt -o nospace
        COMPREPLY+=("$candidate")
    done < <("${words[0]}" __complete "${words[@]:1}" 2>/dev/null)
}
complete -F _zarkctl zarkctl
