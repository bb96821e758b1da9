#include "target.hpp"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace capture
{

namespace
{

constexpr mode_t FOR_THE_OWNER = 0600;

// An open file that is given back if it is not kept.
class opened
{
public:
    explicit opened(int fd) : fd_(fd) {}
    ~opened()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    opened(const opened &) = delete;
    opened &operator=(const opened &) = delete;
    int get() const { return fd_; }
    int keep()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

std::runtime_error trouble(const std::string &file, const std::string &what)
{
    return std::runtime_error(file + ": " + what);
}

// Emptied only now: what is not taken stays as it was.
void make_own(int fd, const struct stat &facts, const std::string &file)
{
    if (facts.st_uid != geteuid() || facts.st_nlink > 1) {
        throw trouble(file, facts.st_nlink > 1 ? "has another name as well; remove it first"
                                               : "belongs to another user; remove it first");
    }
    if (fchmod(fd, FOR_THE_OWNER) != 0 || ftruncate(fd, 0) != 0) {
        throw trouble(file, strerror(errno));
    }
}

} // namespace

int open_target(const std::string &file)
{
    if (file == "-") {
        const int fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
        return fd >= 0 ? fd : throw trouble("standard output", strerror(errno));
    }
    opened target(open(file.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, FOR_THE_OWNER));
    struct stat facts {
    };
    if (target.get() < 0 || fstat(target.get(), &facts) != 0) {
        throw trouble(file, errno == ELOOP ? "is a symbolic link; say where it leads" : strerror(errno));
    }
    if (S_ISREG(facts.st_mode)) {
        make_own(target.get(), facts, file);
    } else if (!S_ISFIFO(facts.st_mode) && !S_ISCHR(facts.st_mode)) {
        throw trouble(file, "is neither a file nor a pipe");
    }
    return target.keep();
}

} // namespace capture
