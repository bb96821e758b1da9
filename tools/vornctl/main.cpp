// vornctl: the operator's tool. It asks the running daemon and prints; it keeps nothing and changes nothing.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "link_list/link_list.hpp"
#include "program_call.hpp"

namespace
{

constexpr uint32_t TIMEOUT_MS = 3000;

constexpr int STATUS_FAILED = 1; // no registry, no daemon, no answer

constexpr program_call PROGRAM = {
    "vornctl", "usage: vornctl links [--json]\n"
               "\n"
               "  links      the links that kap-vorn supervises, in ascending order of their reference\n"
               "  --json     the same as JSON; fields are added over time, never renamed or dropped\n"
               "  --help     prints this\n"
               "  --version  prints the version\n"
               "\n"
               "Exit status: 0; 1 when kap-vorn or the registry cannot be reached, or the output not written; 2 for "
               "wrong usage.\n"};

bool connect_to_registry()
{
    const int result = itc_init(1, 0, nullptr, nullptr, 0);
    if (result != 0) {
        (void)fprintf(stderr, "vornctl: the registry itcd cannot be reached: %s\n", strerror(result));
        return false;
    }
    const std::string name = "vornctl." + std::to_string(getpid());
    if (itc_create_mailbox(name.c_str(), 0) == ITC_NO_MBOX) {
        (void)fprintf(stderr, "vornctl: the registry itcd gives no mailbox\n");
        itc_exit();
        return false;
    }
    return true;
}

int print_links(bool as_json)
{
    if (!connect_to_registry()) {
        return STATUS_FAILED;
    }
    std::string error;
    const auto links = link_list::fetch(TIMEOUT_MS, &error);
    itc_exit();
    if (!links) {
        (void)fprintf(stderr, "vornctl: %s\n", error.c_str());
        return STATUS_FAILED;
    }
    (void)fputs((as_json ? link_list::to_json(*links) : link_list::to_table(*links)).c_str(), stdout);
    return program_end(PROGRAM, 0);
}

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    const bool as_json = argc == 3 && strcmp(argv[2], "--json") == 0;
    if (argc < 2 || strcmp(argv[1], "links") != 0 || (argc > 2 && !as_json)) {
        return program_refuse(PROGRAM, argc < 2 ? "what to print?" : "unknown words or options");
    }
    return print_links(as_json);
}
