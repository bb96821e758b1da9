# Completion of vornctl in fish. What may come next, vornctl itself knows.
function __vornctl_candidates
    set -l words (commandline -opc) (commandline -ct)
    vornctl complete $words[2..-1] 2>/dev/null
end
complete -c vornctl -f -a '(__vornctl_candidates)'
