// kap-trace: reads and sets the trace masks of running processes.
//
//     kap-trace list                  every process that shares its mask, and the default
//     kap-trace get NAME              the mask of a process
//     kap-trace set NAME MASK         sets it; the process obeys from its next trace on
//     kap-trace set default MASK      the mask of processes that start later
//
// NAME is what traces print, or NAME.PID where several processes have the same name. MASK is a number, or +L,L,...
// or -L,L,... to switch levels on or off. `list` removes what killed processes left behind.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "mask_share.hpp"
#include "program_call.hpp"

namespace
{

struct process {
    std::string file;
    std::string name;
    tri::share *share;
};

std::string path_of(const std::string &file) { return std::string(tri::DIRECTORY) + '/' + file; }

// Maps the file of a process; null for what is no such file. Read-only where the user may not write.
tri::share *map_share(const std::string &file)
{
    int fd = open(path_of(file).c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    int protection = PROT_READ | PROT_WRITE;
    if (fd < 0) {
        fd = open(path_of(file).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        protection = PROT_READ;
    }
    struct stat st {
    };
    void *address = MAP_FAILED;
    if (fd >= 0 && fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(sizeof(tri::share))) {
        address = mmap(nullptr, sizeof(tri::share), protection, MAP_SHARED, fd, 0);
    }
    if (fd >= 0) {
        close(fd);
    }
    if (address == MAP_FAILED) {
        return nullptr;
    }
    auto *share = static_cast<tri::share *>(address);
    return memcmp(share->magic, tri::SHARE_MAGIC, sizeof share->magic) == 0 ? share : nullptr;
}

// Pids come round again; a process is the one that shares this file only if it also started at that time.
bool is_alive(const tri::share &share)
{
    return tri::process_start_time(static_cast<pid_t>(share.pid)) == share.start_time;
}

// Processes that live, in the order of their file names. What dead ones left is removed.
std::vector<process> processes()
{
    std::vector<process> found;
    DIR *directory = opendir(tri::DIRECTORY);
    if (directory == nullptr) {
        return found;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
    while (const dirent *entry = readdir(directory)) {
        const std::string file = entry->d_name;
        tri::share *share = file[0] == '.' || file == "default" ? nullptr : map_share(file);
        if (share == nullptr) {
            continue;
        }
        if (is_alive(*share)) {
            found.push_back({file, std::string(share->info.name, strnlen(share->info.name, 32)), share});
        } else {
            unlink(path_of(file).c_str());
        }
    }
    closedir(directory);
    std::sort(found.begin(), found.end(), [](const process &a, const process &b) { return a.file < b.file; });
    return found;
}

std::string levels_of(uint32_t mask)
{
    std::string text;
    for (unsigned level = 0; level < 32; level++) {
        if ((mask >> level & 1u) != 0) {
            text += (text.empty() ? "" : ",") + std::to_string(level);
        }
    }
    return text.empty() ? "none" : text;
}

uint32_t mask_of(const process &p) { return __atomic_load_n(&p.share->info.mask, __ATOMIC_RELAXED); }

std::optional<uint32_t> number(const std::string &text, unsigned long limit)
{
    char *end = nullptr;
    errno = 0;
    const unsigned long value = strtoul(text.c_str(), &end, 0);
    const bool whole = !text.empty() && text[0] >= '0' && text[0] <= '9' && *end == '\0' && errno == 0;
    return whole && value <= limit ? std::optional(static_cast<uint32_t>(value)) : std::nullopt;
}

// "1,14,17" as a mask.
std::optional<uint32_t> level_list(const std::string &text)
{
    uint32_t mask = 0;
    size_t at = 0;
    while (at <= text.size()) {
        const size_t comma = std::min(text.find(',', at), text.size());
        const auto level = number(text.substr(at, comma - at), 31);
        if (!level) {
            return std::nullopt;
        }
        mask |= 1u << *level;
        at = comma + 1;
    }
    return mask;
}

std::optional<uint32_t> changed_mask(uint32_t mask, const std::string &how)
{
    if (how.empty() || (how[0] != '+' && how[0] != '-')) {
        return number(how, UINT32_MAX);
    }
    const auto levels = level_list(how.substr(1));
    if (!levels) {
        return std::nullopt;
    }
    return how[0] == '+' ? mask | *levels : mask & ~*levels;
}

int bad_mask(const std::string &how)
{
    (void)fprintf(stderr, "kap-trace: \"%s\" is no mask: give a number, or +L,L,... or -L,L,... with levels 0 to 31\n",
                  how.c_str());
    return 2;
}

std::vector<process> find(const std::string &name)
{
    std::vector<process> all = processes();
    std::erase_if(all, [&](const process &p) { return p.name != name && p.file != name; });
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
    (void)printf("%-40s 0x%08x %s\n", "default", tri::default_mask(), levels_of(tri::default_mask()).c_str());
    return 0;
}

int get(const std::string &name)
{
    if (name == "default") {
        (void)printf("0x%08x %s\n", tri::default_mask(), levels_of(tri::default_mask()).c_str());
        return 0;
    }
    const auto found = find(name);
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

// Written beside the file and renamed over it: a process that starts meanwhile reads the old mask or the new one.
int set_default(const std::string &how)
{
    const auto mask = changed_mask(tri::default_mask(), how);
    if (!mask) {
        return bad_mask(how);
    }
    mkdir(tri::DIRECTORY, 0755);
    const std::string fresh = path_of(".default." + std::to_string(getpid()));
    FILE *file = fopen(fresh.c_str(), "w");
    if (file == nullptr) {
        return cannot(fresh);
    }
    (void)fprintf(file, "0x%08x\n", *mask);
    if (fclose(file) != 0 || chmod(fresh.c_str(), 0644) != 0 || rename(fresh.c_str(), tri::DEFAULT_FILE) != 0) {
        const int result = cannot(tri::DEFAULT_FILE);
        unlink(fresh.c_str());
        return result;
    }
    return 0;
}

int set(const std::string &name, const std::string &how)
{
    if (name == "default") {
        return set_default(how);
    }
    const auto found = find(name);
    for (const process &p : found) {
        const auto mask = changed_mask(mask_of(p), how);
        if (!mask) {
            return bad_mask(how);
        }
        if (access(path_of(p.file).c_str(), W_OK) != 0) {
            return cannot(p.file);
        }
        __atomic_store_n(&p.share->info.mask, *mask, __ATOMIC_RELAXED);
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
