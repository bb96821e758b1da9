// kap-demo: shows the daemon at work, in a sandbox of its own, as a live table or as a tour that checks itself.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "live.hpp"
#include "sandbox.hpp"
#include "story.hpp"
#include "terminal.hpp"

namespace
{

struct options {
    bool tour = false;
    bool help = false;
    std::string log_dir;
    std::string wrong;
};

options read_options(int argc, char **argv)
{
    options o;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--tour") == 0) {
            o.tour = true;
        } else if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            o.help = true;
        } else if (strcmp(argv[i], "--logs") == 0 && i + 1 < argc) {
            o.log_dir = argv[++i];
        } else {
            o.wrong = argv[i];
        }
    }
    return o;
}

void print_usage(FILE *out)
{
    (void)fputs("usage: kap-demo [--tour] [--logs DIR]\n"
                "  without --tour, on a terminal: a live table until q or Ctrl-C\n"
                "  --tour       the tour: every step checked, exit status 0 only if every step held\n"
                "  --logs DIR   where the logs of the processes go (default: logs beside the programs)\n",
                out);
}

std::string default_log_dir()
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "logs";
}

} // namespace

int main(int argc, char **argv)
{
    options o = read_options(argc, argv);
    if (o.help || !o.wrong.empty()) {
        print_usage(o.help ? stdout : stderr);
        return o.help ? 0 : 2;
    }
    bool table = !o.tour && terminal_there() && terminal_remember();
    std::string error;
    if (!sandbox_enter(error, table ? terminal_restore : nullptr)) {
        (void)fprintf(stderr, "kap-demo: %s\n", error.c_str());
        return 3;
    }
    demo d;
    d.stage = stage_make(std::filesystem::absolute(o.log_dir.empty() ? default_log_dir() : o.log_dir));
    return table ? live_run(d) : story_run(d);
}
