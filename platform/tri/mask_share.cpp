// The file behind the trace mask of this process. See mask_share.hpp.
//
// The file appears under its name only once it is filled: it is made under a hidden name and renamed, so that no
// reader meets half a file.
#include "mask_share.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tri
{

namespace
{

char own_path[96];
pid_t own_pid;

bool read_small_file(const char *path, char *buffer, size_t size)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const ssize_t got = read(fd, buffer, size - 1);
    close(fd);
    buffer[got > 0 ? got : 0] = '\0';
    return got > 0;
}

// Readable by everybody whatever the umask of the process is.
bool make_directory()
{
    if (mkdir(DIRECTORY, 0755) == 0) {
        return chmod(DIRECTORY, 0755) == 0;
    }
    return errno == EEXIST;
}

int make_file(const char *path)
{
    // Left by a process that had our pid and was killed: it is ours to replace.
    unlink(path);
    return open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
}

bool fill_and_map(int fd, share_pages *pages)
{
    if (fchmod(fd, 0644) != 0 || ftruncate(fd, sizeof *pages) != 0 ||
        pwrite(fd, &pages->s, sizeof pages->s, 0) != static_cast<ssize_t>(sizeof pages->s)) {
        return false;
    }
    return mmap(pages, sizeof *pages, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0) != MAP_FAILED;
}

void path_of(char (&path)[96], const char *prefix, const tri_proc_info &info)
{
    (void)snprintf(path, sizeof path, "%s/%s%s", DIRECTORY, prefix, share_file_name(info.name, own_pid).c_str());
}

} // namespace

std::string share_file_name(const char *process_name, pid_t pid)
{
    std::string name(process_name, strnlen(process_name, sizeof(tri_proc_info::name)));
    for (char &c : name) {
        if (c == '/' || static_cast<unsigned char>(c) < 0x20) {
            c = '_';
        }
    }
    // A leading dot would hide the file from whoever lists the directory.
    if (name.empty() || name[0] == '.') {
        name.insert(0, 1, '_');
    }
    return name + '.' + std::to_string(pid);
}

uint32_t default_mask()
{
    char text[32];
    if (!read_small_file(DEFAULT_FILE, text, sizeof text)) {
        return BUILT_IN_MASK;
    }
    char *end = nullptr;
    const unsigned long long mask = strtoull(text, &end, 0);
    const bool whole = end != text && (*end == '\0' || *end == '\n');
    return whole && mask <= UINT32_MAX ? static_cast<uint32_t>(mask) : BUILT_IN_MASK;
}

uint64_t process_start_time(pid_t pid)
{
    char path[48];
    char text[1024];
    (void)snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    if (!read_small_file(path, text, sizeof text)) {
        return 0;
    }
    // The second field is the program's name in parentheses and may hold anything; counting starts behind it.
    const char *field = strrchr(text, ')');
    for (int number = 2; field != nullptr && number < 22; number++) {
        field = strchr(field + 1, ' ');
    }
    return field == nullptr ? 0 : strtoull(field, nullptr, 10);
}

bool share_open(share_pages *pages)
{
    own_pid = getpid();
    memcpy(pages->s.magic, SHARE_MAGIC, sizeof pages->s.magic);
    pages->s.pid = static_cast<uint32_t>(own_pid);
    pages->s.start_time = process_start_time(own_pid);

    char hidden[96];
    path_of(hidden, ".", pages->s.info);
    const int fd = make_directory() ? make_file(hidden) : -1;
    if (fd < 0) {
        return false;
    }
    const bool mapped = fill_and_map(fd, pages);
    close(fd);
    path_of(own_path, "", pages->s.info);
    if (!mapped || rename(hidden, own_path) != 0) {
        unlink(hidden);
        own_path[0] = '\0';
        return false;
    }
    return true;
}

void share_rename(const share_pages *pages)
{
    if (own_path[0] == '\0' || own_pid != getpid()) {
        return;
    }
    char path[96];
    path_of(path, "", pages->s.info);
    if (rename(own_path, path) == 0) {
        memcpy(own_path, path, sizeof own_path);
    }
}

void share_close()
{
    if (own_path[0] != '\0' && own_pid == getpid()) {
        unlink(own_path);
        own_path[0] = '\0';
    }
}

} // namespace tri
