#include "program_call.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

constexpr int STATUS_NOT_WRITTEN = 1;
constexpr int STATUS_USAGE = 2;

} // namespace

std::optional<int> program_answer(const program_call &program, int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            (void)fputs(program.usage, stdout);
            return program_end(program, 0);
        }
        if (strcmp(argv[i], "--version") == 0) {
            (void)printf("%s %s\n", program.name, KAP_VERSION);
            return program_end(program, 0);
        }
    }
    return std::nullopt;
}

int program_refuse(const program_call &program, const char *what)
{
    (void)fprintf(stderr, "%s: %s\n%s", program.name, what, program.usage);
    return STATUS_USAGE;
}

int program_end(const program_call &program, int status)
{
    errno = 0; // an earlier write may have failed, and its reason is gone by now
    if (fflush(stdout) == 0 && ferror(stdout) == 0) {
        return status;
    }
    (void)fprintf(stderr, "%s: the output could not be written%s%s\n", program.name, errno == 0 ? "" : ": ",
                  errno == 0 ? "" : strerror(errno));
    return status == 0 ? STATUS_NOT_WRITTEN : status;
}
