// A record says which descriptor of which process the mask lies behind. The record is its process's to write, so
// nothing it says is believed before it is seen: that the process is of the record's user, and that behind the
// descriptor is the sealed memory of this very process. Else whoever writes a record could have root write elsewhere.
#include "masks.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace trace_masks
{

namespace
{

std::string path_of(const std::string &file) { return std::string(tri::DIRECTORY) + '/' + file; }

// The record of that name; nothing for what is none.
std::optional<process> read_record(const std::string &file)
{
    const int fd = tri::share_open_file(file.c_str(), O_RDONLY);
    if (fd < 0) {
        return std::nullopt;
    }
    process p{file, "", 0, {}};
    struct stat st {
    };
    const bool whole = fstat(fd, &st) == 0 && read(fd, &p.record, sizeof p.record) == sizeof p.record &&
                       memcmp(p.record.magic, tri::SHARE_MAGIC, sizeof p.record.magic) == 0;
    close(fd);
    p.owner = st.st_uid;
    p.name.assign(p.record.info.name, strnlen(p.record.info.name, sizeof p.record.info.name));
    return whole ? std::optional(p) : std::nullopt;
}

// Pids come round again; a process is the one that made this record only if it also started at that time.
bool is_alive(const tri::share &share)
{
    return tri::process_start_time(static_cast<pid_t>(share.pid)) == share.start_time;
}

// The user that a process runs as, as /proc tells it.
std::optional<uid_t> user_of(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        unsigned real = 0;
        unsigned effective = 0;
        // NOLINTNEXTLINE(cert-err34-c): the kernel writes numbers
        if (sscanf(line.c_str(), "Uid:\t%u\t%u", &real, &effective) == 2) {
            return effective;
        }
    }
    return std::nullopt;
}

// All memory of this kind is of one file system that is mounted nowhere: what is of another is something else.
std::optional<dev_t> device_of_memory()
{
    const int fd = memfd_create("kap-trace", MFD_CLOEXEC);
    struct stat st {
    };
    const bool known = fd >= 0 && fstat(fd, &st) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return known ? std::optional(st.st_dev) : std::nullopt;
}

// Opens what a descriptor of another process leads to, once it is known to be memory: to open anything else could do
// something, or wait. -1, and errno says why.
int open_memory(const tri::share &record, int access)
{
    const std::string link = "/proc/" + std::to_string(record.pid) + "/fd/" + std::to_string(record.memory);
    const int seen = open(link.c_str(), O_PATH | O_CLOEXEC);
    if (seen < 0) {
        return -1;
    }
    struct stat st {
    };
    int fd = -1;
    if (fstat(seen, &st) != 0 || !S_ISREG(st.st_mode) || device_of_memory() != st.st_dev) {
        errno = EBADF;
    } else {
        fd = open(("/proc/self/fd/" + std::to_string(seen)).c_str(), access | O_CLOEXEC);
    }
    const int saved_errno = errno;
    close(seen);
    errno = saved_errno;
    return fd;
}

bool is_memory_of(int fd, const tri::share &record, tri::share *out)
{
    constexpr int SEALS = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    return (fcntl(fd, F_GET_SEALS) & SEALS) == SEALS && pread(fd, out, sizeof *out, 0) == sizeof *out &&
           memcmp(out->magic, record.magic, sizeof record.magic) == 0 && out->pid == record.pid &&
           out->start_time == record.start_time;
}

// The memory of a process, for reading or also for writing, and what stands in it. -1, and errno says why.
int reach(const process &p, int access, tri::share *out)
{
    const auto user = user_of(static_cast<pid_t>(p.record.pid));
    if (!user || (p.owner != 0 && p.owner != *user)) {
        errno = EPERM;
        return -1;
    }
    const int fd = open_memory(p.record, access);
    if (fd >= 0 && !is_memory_of(fd, p.record, out)) {
        close(fd);
        errno = EBADF;
        return -1;
    }
    return fd;
}

} // namespace

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
        const auto p = file[0] == '.' || file == tri::DEFAULT_NAME ? std::nullopt : read_record(file);
        if (!p) {
            continue;
        }
        if (is_alive(p->record)) {
            found.push_back(*p);
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

uint32_t mask_of(const process &p)
{
    tri::share now{};
    const int fd = reach(p, O_RDONLY, &now);
    if (fd < 0) {
        return p.record.info.mask;
    }
    close(fd);
    return now.info.mask;
}

namespace
{

bool write_mask(int fd, uint32_t mask)
{
    constexpr off_t AT = offsetof(tri::share, info) + offsetof(tri_proc_info, mask);
    return pwrite(fd, &mask, sizeof mask, AT) == sizeof mask;
}

} // namespace

bool set_mask(const process &p, uint32_t mask)
{
    tri::share now{};
    const int fd = reach(p, O_RDWR, &now);
    if (fd < 0) {
        return false;
    }
    const bool written = write_mask(fd, mask);
    close(fd);
    // For whoever may only read the record. It is looked at again: what stands under that name now may be another's.
    const int record = tri::share_open_file(p.file.c_str(), O_RDWR);
    struct stat st {
    };
    tri::share seen{};
    if (record >= 0 && fstat(record, &st) == 0 && st.st_uid == p.owner && st.st_nlink == 1 &&
        pread(record, &seen, sizeof seen, 0) == sizeof seen &&
        memcmp(seen.magic, p.record.magic, sizeof seen.magic) == 0 && seen.pid == p.record.pid) {
        (void)write_mask(record, mask);
    }
    if (record >= 0) {
        close(record);
    }
    return written;
}

namespace
{

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

} // namespace

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

uint32_t default_mask() { return tri::default_mask(); }

// Written beside the file and renamed over it: a process that starts meanwhile reads the old mask or the new one.
bool set_default(uint32_t mask, std::string *file)
{
    mkdir(tri::DIRECTORY, 0755);
    *file = path_of(".default." + std::to_string(getpid()));
    const std::string fresh = *file;
    unlink(fresh.c_str());
    const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    *file = path_of(tri::DEFAULT_NAME);
    char text[16];
    const int length = snprintf(text, sizeof text, "0x%08x\n", mask);
    const bool written = write(fd, text, static_cast<size_t>(length)) == length && fchmod(fd, 0644) == 0;
    if (close(fd) != 0 || !written || rename(fresh.c_str(), file->c_str()) != 0) {
        const int saved_errno = errno;
        unlink(fresh.c_str());
        errno = saved_errno;
        return false;
    }
    return true;
}

std::vector<process> find(const std::string &name)
{
    std::vector<process> all = processes();
    std::erase_if(all, [&](const process &p) { return p.name != name && p.file != name; });
    return all;
}

} // namespace trace_masks
