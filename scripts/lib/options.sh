# What every script of this project answers in the same way; sourced by it, from the top of the tree, once its function
# `usage` is there. Nothing is installed, built or run before the options have been read.

# answer_options ARGUMENT...: --help and --version, wherever they stand, on standard output; the script ends with 0, or
# with 1 when that could not be written.
answer_options()
{
    local argument
    for argument in "$@"; do
        case $argument in
        -h | --help) print_and_end "$(usage)" ;;
        --version) print_and_end "kap-vorn $(sed -n 's/^project(kap-vorn VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)" ;;
        esac
    done
}

print_and_end()
{
    printf '%s\n' "$1" || exit 1
    exit 0
}

# refuse TEXT: says what is wrong with the call, and how it goes.
refuse()
{
    { echo "$0: $1"; usage; } >&2
    exit 2
}

# at_most COUNT ARGUMENT...: refuses options, and more arguments than that. For scripts that know no other option.
at_most()
{
    local count=$1 argument
    shift
    for argument in "$@"; do
        [[ $argument != -* ]] || refuse "unknown option $argument"
    done
    [[ $# -le $count ]] || refuse "too many arguments"
}

# whole_number TEXT: refuses what is none, or 0.
whole_number()
{
    [[ $1 =~ ^[1-9][0-9]*$ ]] || refuse "not a whole number above 0: $1"
}
