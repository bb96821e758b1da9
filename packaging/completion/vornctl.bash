# Completion of vornctl in bash. What may come next, vornctl itself knows.
_vornctl()
{
    local IFS=$'\n' words
    words=("${COMP_WORDS[@]:1:COMP_CWORD}")
    # bash takes a colon for the end of a word; no word of vornctl needs that.
    COMPREPLY=($(vornctl complete "${words[@]}" 2>/dev/null | cut -f 1))
}
complete -F _vornctl vornctl
