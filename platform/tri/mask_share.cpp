// The memory behind the trace mask of this process, and its record. See mask_share.hpp.
//
// A record appears under its name only once it is filled: it is made under a hidden name and renamed, so that no reader
// meets half a record.
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

char own_file[96]; // the record's name; empty: none
pid_t own_pid;

// The directory itself, not what a link of its name leads to; -1 when there is none.
int open_directory() { return open(DIRECTORY, O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_PATH); }

// Readable by everybody whatever the umask of the process is.
int make_directory()
{
    const bool made = mkdir(DIRECTORY, 0755) == 0;
    const int directory = open_directory();
    if (made && directory >= 0 && fchmodat(directory, ".", 0755, 0) != 0) {
        close(directory);
        return -1;
    }
    return directory;
}

// Reads from the beginning; false when there is nothing.
bool read_text(int fd, char *buffer, size_t size)
{
    const ssize_t got = fd < 0 ? -1 : read(fd, buffer, size - 1);
    buffer[got > 0 ? got : 0] = '\0';
    return got > 0;
}

bool fill(int fd, const share &s)
{
    return fchmod(fd, 0644) == 0 && pwrite(fd, &s, sizeof s, 0) == static_cast<ssize_t>(sizeof s);
}

// Puts the record into the directory, in place of one that a killed process left which had our pid.
bool write_record(const share &s)
{
    const int directory = make_directory();
    const std::string file = share_file_name(s.info.name, own_pid);
    const std::string hidden = '.' + file;
    unlinkat(directory, hidden.c_str(), 0);
    const int fd = openat(directory, hidden.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    const bool written = fd >= 0 && fill(fd, s) && renameat(directory, hidden.c_str(), directory, file.c_str()) == 0;
    if (fd >= 0) {
        close(fd);
    }
    if (!written) {
        unlinkat(directory, hidden.c_str(), 0);
    } else {
        if (own_file[0] != '\0' && own_file != file) {
            unlinkat(directory, own_file, 0);
        }
        (void)snprintf(own_file, sizeof own_file, "%s", file.c_str());
    }
    if (directory >= 0) {
        close(directory);
    }
    return written;
}

// Memory with the contents of `s`, which nobody can make smaller; -1 when it cannot be had.
int make_memory(const share_pages &pages)
{
    const int fd = memfd_create("kap-tri", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) {
        return -1;
    }
    if (ftruncate(fd, sizeof pages) == 0 && pwrite(fd, &pages.s, sizeof pages.s, 0) == sizeof pages.s &&
        fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
        return fd;
    }
    close(fd);
    return -1;
}

// The number of the descriptor has to stand in the memory too.
bool map_memory(int fd, share_pages *pages)
{
    if (mmap(pages, sizeof *pages, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED) {
        return false;
    }
    pages->s.memory = fd;
    return true;
}

} // namespace

int share_open_file(const char *file_name, int flags)
{
    const int directory = open_directory();
    if (directory < 0) {
        return -1;
    }
    const int fd = openat(directory, file_name, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    close(directory);
    struct stat st {
    };
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(fd);
        return -1;
    }
    return fd;
}

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
    struct stat st {
    };
    const int fd = share_open_file(DEFAULT_NAME, O_RDONLY);
    const bool is_trusted = fd >= 0 && fstat(fd, &st) == 0 && (st.st_uid == 0 || st.st_uid == geteuid());
    const bool has_text = is_trusted && read_text(fd, text, sizeof text);
    if (fd >= 0) {
        close(fd);
    }
    if (!has_text) {
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
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const bool has_text = read_text(fd, text, sizeof text);
    if (fd >= 0) {
        close(fd);
    }
    if (!has_text) {
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

    const int fd = make_memory(*pages);
    if (fd < 0) {
        return false;
    }
    if (!map_memory(fd, pages)) {
        close(fd);
        return false;
    }
    if (!write_record(pages->s)) {
        pages->s.memory = -1;
        close(fd);
        return false;
    }
    return true;
}

void share_rename(const share_pages *pages)
{
    if (own_file[0] != '\0' && own_pid == getpid()) {
        write_record(pages->s);
    }
}

void share_close()
{
    if (own_file[0] == '\0' || own_pid != getpid()) {
        return;
    }
    const int directory = open_directory();
    if (directory >= 0) {
        unlinkat(directory, own_file, 0);
        close(directory);
    }
    own_file[0] = '\0';
}

} // namespace tri
