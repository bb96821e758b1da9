// The name of the own network namespace (own_namespace.hpp).
#include "own_namespace.hpp"

#include "config.hpp"
#include "name_space.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

namespace kap_node
{

namespace
{

namespace fs = std::filesystem;

constexpr const char *NAMES = "/run/netns";
constexpr const char *LOCKS = "/run/kap-node-netns";
constexpr const char *OWN = "/proc/self/ns/net";
constexpr const char *PREFIX = "kap-node-";

[[noreturn]] void fail(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(),
                            "a port has no \"namespace\", and its own cannot be given a name: " + what);
}

std::string name_path(const std::string &name) { return std::string(NAMES) + "/" + name; }
std::string lock_path(const std::string &name) { return std::string(LOCKS) + "/" + name; }

void make_directory(const char *path)
{
    if (mkdir(path, 0755) != 0 && errno != EEXIST) {
        fail(path);
    }
}

// One at a time makes and takes away names: the lock on the directory itself.
class one_at_a_time
{
public:
    one_at_a_time() : directory_(open(LOCKS, O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        if (directory_ < 0 || flock(directory_, LOCK_EX) != 0) {
            fail(LOCKS);
        }
    }
    ~one_at_a_time() { close(directory_); }
    one_at_a_time(const one_at_a_time &) = delete;
    one_at_a_time &operator=(const one_at_a_time &) = delete;

private:
    int directory_;
};

int open_lock(const std::string &name) { return open(lock_path(name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600); }

void take_away(const std::string &name)
{
    (void)umount2(name_path(name).c_str(), MNT_DETACH);
    (void)unlink(name_path(name).c_str());
    (void)unlink(lock_path(name).c_str());
}

// True when nobody holds it any more.
bool is_unwanted(int lock) { return flock(lock, LOCK_EX | LOCK_NB) == 0; }

void take_away_unwanted_names()
{
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(LOCKS)) {
        names.push_back(entry.path().filename());
    }
    for (const std::string &name : names) {
        const int lock = open_lock(name);
        if (lock >= 0 && is_unwanted(lock)) {
            take_away(name);
        }
        close(lock);
    }
}

bool names_own_namespace(const std::string &name) { return namespace_identity::of(name) == namespace_identity::of(""); }

void make_name(const std::string &name)
{
    const std::string path = name_path(name);
    const int file = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0);
    if (file < 0) {
        fail(path);
    }
    close(file);
    if (names_own_namespace(name)) {
        return;
    }
    (void)umount2(path.c_str(), MNT_DETACH); // something else, that nobody has a lock for
    if (mount(OWN, path.c_str(), "none", MS_BIND, nullptr) != 0) {
        const int cause = errno;
        (void)unlink(path.c_str());
        errno = cause;
        fail(path);
    }
}

std::string name_of_own_namespace()
{
    if (names_own_namespace(HOST_NAMESPACE)) {
        return HOST_NAMESPACE;
    }
    struct stat own {
    };
    if (stat(OWN, &own) != 0) {
        fail(OWN);
    }
    return PREFIX + std::to_string(own.st_ino);
}

} // namespace

own_namespace::own_namespace() : name_(name_of_own_namespace())
{
    if (name_ == HOST_NAMESPACE) {
        return;
    }
    make_directory(LOCKS);
    const one_at_a_time alone;
    take_away_unwanted_names();
    lock_ = open_lock(name_);
    if (lock_ < 0 || flock(lock_, LOCK_SH | LOCK_NB) != 0) {
        fail(lock_path(name_));
    }
    try {
        if (!share_namespace_names()) {
            fail(NAMES);
        }
        make_name(name_);
    } catch (...) {
        if (is_unwanted(lock_)) {
            take_away(name_);
        }
        close(lock_);
        throw;
    }
}

own_namespace::~own_namespace()
{
    if (lock_ < 0) {
        return;
    }
    try {
        const one_at_a_time alone;
        if (is_unwanted(lock_)) {
            take_away(name_);
        }
    } catch (const std::system_error &) {
        // It stays behind, as after a kill; whoever wants a name next takes it away.
    }
    close(lock_);
}

} // namespace kap_node
