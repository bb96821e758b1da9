// A demo is found without a file that would have to be written and could be left behind: its processes are listed by
// the kernel, and each keeps its log directory open, with a lock on it.
#include "log_dir.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

constexpr const char *PROGRAM = "kap-demo";
constexpr int LOOKS = 50; // a demo that was just killed keeps its directory until its last process is gone
constexpr int LOOK_EVERY_MS = 20;

int kept = -1;

std::runtime_error system_failure(const std::string &what) { return std::runtime_error(what + ": " + strerror(errno)); }

bool lock_soon(int fd)
{
    for (int i = 0; i < LOOKS; i++) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return true;
        }
        if (errno != EWOULDBLOCK) {
            return false;
        }
        poll(nullptr, 0, LOOK_EVERY_MS);
    }
    errno = EWOULDBLOCK;
    return false;
}

bool is_same_file(const struct stat &one, const struct stat &other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

std::vector<std::string> words_of(const std::string &line)
{
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

// The first process of a demo's sandbox has two ids here: one of this namespace, and 1.
bool is_first_of_a_demo(const fs::path &process)
{
    bool named = false;
    bool first = false;
    std::ifstream file(process / "status");
    for (std::string line; std::getline(file, line);) {
        const auto words = words_of(line);
        named = named || (words.size() == 2 && words[0] == "Name:" && words[1] == PROGRAM);
        first = first || (words.size() == 3 && words[0] == "NSpid:" && words[2] == "1");
    }
    return named && first;
}

bool is_locked(const fs::path &descriptor_info)
{
    std::ifstream file(descriptor_info);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("lock:") && line.find("FLOCK") != std::string::npos) {
            return true;
        }
    }
    return false;
}

// The directory that a demo keeps open and locked, as a link of /proc.
fs::path kept_directory(const fs::path &process)
{
    std::error_code denied;
    for (const auto &entry : fs::directory_iterator(process / "fd", denied)) {
        std::error_code closed;
        if (fs::is_directory(entry.path(), closed) && is_locked(process / "fdinfo" / entry.path().filename())) {
            return entry.path();
        }
    }
    return {};
}

fs::path target(const fs::path &link)
{
    std::error_code denied;
    return fs::read_symlink(link, denied);
}

} // namespace

void log_dir_keep(const std::string &path)
{
    std::error_code failed;
    fs::create_directories(path, failed);
    kept = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (kept < 0 || access(path.c_str(), W_OK | X_OK) != 0) {
        throw system_failure("no logs can be written to " + path);
    }
    if (lock_soon(kept)) {
        return;
    }
    if (errno == EWOULDBLOCK) {
        throw std::runtime_error("another demo writes its logs to " + path +
                                 ": end it, or give this one a directory of its own with --logs DIR");
    }
    throw system_failure("cannot keep " + path + " for this demo");
}

void log_dir_check_visible(const std::string &path)
{
    struct stat there {
    };
    struct stat held {
    };
    if (stat(path.c_str(), &there) != 0 || fstat(kept, &held) != 0 || !is_same_file(there, held)) {
        throw std::runtime_error("no logs can be written to " + path + ": the demo has a /run of its own");
    }
}

std::vector<running_demo> log_dir_find_demos(const std::string &log_dir)
{
    struct stat wanted {
    };
    std::vector<running_demo> found;
    if (!log_dir.empty() && stat(log_dir.c_str(), &wanted) != 0) {
        return found;
    }
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string pid = entry.path().filename();
        if (pid.find_first_not_of("0123456789") != std::string::npos || !is_first_of_a_demo(entry.path())) {
            continue;
        }
        struct stat directory {
        };
        const fs::path kept_by_it = kept_directory(entry.path());
        if (kept_by_it.empty() || stat(kept_by_it.c_str(), &directory) != 0) {
            continue;
        }
        if (log_dir.empty() || is_same_file(directory, wanted)) {
            found.push_back({std::stoi(pid), target(kept_by_it), target(entry.path() / "exe").parent_path()});
        }
    }
    return found;
}
