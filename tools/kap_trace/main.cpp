// kap-trace: reads and sets the trace masks of running processes.
//
//     kap-trace list                  every process that shares its mask, and the default
//     kap-trace get NAME              the mask of a process
//     kap-trace set NAME MASK         sets it; the process obeys from its next trace on
//     kap-trace set default MASK      the mask of processes that start later
//
// NAME is what traces print, or NAME.PID where several processes have the same name. MASK is a number, or +L,L,...
// or -L,L,... to switch levels on or off. `list` removes what killed processes left behind.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "masks.hpp"
#include "program_call.hpp"

namespace
{

using namespace trace_masks;

int bad_mask(const std::string &how)
{
    (void)fprintf(stderr, "kap-trace: \"%s\" %s\n", how.c_str(), NO_MASK);
    return 2;
}

std::vector<process> find_or_say(const std::string &name)
{
    std::vector<process> all = find(name);
    if (all.empty()) {
        (void)fprintf(stderr, "kap-trace: no process \"%s\" shares its trace mask\n", name.c_str());
    }
    return all;
}

int list()
{
    (void)printf("%-40s %-10s %s\n", "NAME.PID", "MASK", "LEVELS");
    for (const process &p : processes()) {
        (void)printf("%-40s 0x%08x %s\n", p.file.c_str(), mask_of(p), levels_of(mask_of(p)).c_str());
    }
    (void)printf("%-40s 0x%08x %s\n", "default", default_mask(), levels_of(default_mask()).c_str());
    return 0;
}

int get(const std::string &name)
{
    if (name == "default") {
        (void)printf("0x%08x %s\n", default_mask(), levels_of(default_mask()).c_str());
        return 0;
    }
    const auto found = find_or_say(name);
    for (const process &p : found) {
        (void)printf("%s 0x%08x %s\n", p.file.c_str(), mask_of(p), levels_of(mask_of(p)).c_str());
    }
    return found.empty() ? 1 : 0;
}

int cannot(const std::string &what)
{
    (void)fprintf(stderr, "kap-trace: %s: %s\n", what.c_str(), strerror(errno));
    return 1;
}

int set_default(const std::string &how)
{
    const auto mask = changed_mask(default_mask(), how);
    if (!mask) {
        return bad_mask(how);
    }
    std::string file;
    return trace_masks::set_default(*mask, &file) ? 0 : cannot(file);
}

int set(const std::string &name, const std::string &how)
{
    if (name == "default") {
        return set_default(how);
    }
    const auto found = find_or_say(name);
    for (const process &p : found) {
        const auto mask = changed_mask(mask_of(p), how);
        if (!mask) {
            return bad_mask(how);
        }
        if (!set_mask(p, *mask)) {
            return cannot(p.file);
        }
    }
    return found.empty() ? 1 : 0;
}

constexpr program_call PROGRAM = {
    "kap-trace", "usage: kap-trace list | get NAME | set NAME MASK | set default MASK | --help | --version\n"
                 "NAME: a process's name in its traces, or NAME.PID\n"
                 "MASK: a number, or +L,L,... or -L,L,... to switch levels on or off\n"};

int run(const std::vector<std::string> &words)
{
    if (words == std::vector<std::string>{"list"}) {
        return list();
    }
    if (words.size() == 2 && words[0] == "get") {
        return get(words[1]);
    }
    if (words.size() == 3 && words[0] == "set") {
        return set(words[1], words[2]);
    }
    return program_refuse(PROGRAM, words.empty() ? "what to do?" : "unknown words or options");
}

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    return program_end(PROGRAM, run({argv + 1, argv + argc}));
}
