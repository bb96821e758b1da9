// kap-linkd: keeps the links that are declared. Here: options and what begins and ends the program.
#include "program_call.hpp"

namespace
{

constexpr program_call PROGRAM = {"kap-linkd",
                                  "usage: kap-linkd --help | --version\n"
                                  "Keeps the links that are declared in /etc/kap-vorn/links.toml and links.d.\n"
                                  "  --help         print this\n"
                                  "  --version      print the version\n"};

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    return program_refuse(PROGRAM, "what to do?");
}
