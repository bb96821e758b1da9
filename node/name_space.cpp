// Network namespaces by their names (name_space.hpp).
#include "name_space.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <linux/magic.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>

namespace kap_node
{

namespace
{

constexpr const char *NAMESPACE_DIRECTORY = "/var/run/netns/";
constexpr const char *NAMES = "/run/netns"; // the same
constexpr const char *OWN_NAMESPACE = "/proc/self/ns/net";

std::string namespace_path(const std::string &name)
{
    return name.empty() ? OWN_NAMESPACE : NAMESPACE_DIRECTORY + name;
}

// A name is that of a file in the directory, no way to one elsewhere.
bool is_file_name(const std::string &name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool is_namespace_file(int fd)
{
    struct statfs found {
    };
    return fstatfs(fd, &found) == 0 && found.f_type == NSFS_MAGIC;
}

// The one link that is followed, without going through it.
bool is_link_to_own(const std::string &name)
{
    std::array<char, 64> target;
    const ssize_t length = readlink(namespace_path(name).c_str(), target.data(), target.size());
    return length > 0 && std::string_view(target.data(), static_cast<size_t>(length)) == OWN_NAMESPACE;
}

// A descriptor, or -1 and errno. Whatever lies there: opening it does not wait (a FIFO), and leads nowhere else (a
// link).
int open_named_namespace(const std::string &name)
{
    if (!is_file_name(name)) {
        errno = EINVAL;
        return -1;
    }
    const std::string path = is_link_to_own(name) ? OWN_NAMESPACE : namespace_path(name);
    const int follow = path == OWN_NAMESPACE ? 0 : O_NOFOLLOW;
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | follow);
    if (fd >= 0 && !is_namespace_file(fd)) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

bool is_shared_already() { return mount("", NAMES, "none", MS_SHARED | MS_REC, nullptr) == 0; }

[[noreturn]] void fail(const std::string &what) { throw std::system_error(errno, std::generic_category(), what); }

// A process that cannot find its way back would work in the wrong namespace from here on.
void go_home(int home)
{
    if (setns(home, CLONE_NEWNET) != 0) {
        perror("kap-node: the way back from a network namespace");
        abort();
    }
    close(home);
}

// An empty file that an attempt has left will do.
bool is_empty_file(const std::string &path)
{
    struct stat found {
    };
    return lstat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode) && found.st_size == 0;
}

// The file that a namespace is mounted on.
void make_file(const std::string &path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
    if (file >= 0) {
        close(file);
    } else if (errno != EEXIST || !is_empty_file(path)) {
        fail(path);
    }
}

} // namespace

namespace_identity namespace_identity::of(const std::string &name_space)
{
    struct stat found {
    };
    if (!name_space.empty() && !is_file_name(name_space)) {
        return {};
    }
    // The own one is a link of the kernel's; a name must not be one.
    const bool own = name_space.empty() || is_link_to_own(name_space);
    const std::string path = own ? OWN_NAMESPACE : namespace_path(name_space);
    if (fstatat(AT_FDCWD, path.c_str(), &found, own ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
        return {};
    }
    return {found.st_dev, found.st_ino};
}

std::string namespace_mark(int socket, const namespace_identity &identity)
{
    uint64_t cookie = 0;
    socklen_t size = sizeof cookie;
    return getsockopt(socket, SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &size) == 0 ? "c" + std::to_string(cookie)
                                                                                : "i" + std::to_string(identity.inode);
}

std::vector<std::string> namespace_names()
{
    std::vector<std::string> names;
    DIR *all = opendir(NAMESPACE_DIRECTORY);
    for (const dirent *each = nullptr; all != nullptr && (each = readdir(all)) != nullptr;) {
        if (is_file_name(each->d_name)) {
            names.emplace_back(each->d_name);
        }
    }
    if (all != nullptr) {
        closedir(all);
    }
    return names;
}

// Staying at home needs no privilege.
namespace_visit::namespace_visit(const std::string &name_space)
{
    if (name_space.empty()) {
        return;
    }
    const std::string path = namespace_path(name_space);
    const int there = open_named_namespace(name_space);
    if (there < 0) {
        fail(path);
    }
    home_ = open(OWN_NAMESPACE, O_RDONLY | O_CLOEXEC);
    const bool entered = home_ >= 0 && setns(there, CLONE_NEWNET) == 0;
    const int cause = errno;
    close(there);
    if (!entered) {
        if (home_ >= 0) {
            close(home_);
        }
        errno = cause;
        fail(path);
    }
}

namespace_visit::~namespace_visit()
{
    if (home_ >= 0) {
        go_home(home_);
    }
}

bool share_namespace_names()
{
    if (mkdir(NAMES, 0755) != 0 && errno != EEXIST) {
        return false;
    }
    if (is_shared_already()) {
        return true;
    }
    return errno == EINVAL && mount(NAMES, NAMES, "none", MS_BIND | MS_REC, nullptr) == 0 && is_shared_already();
}

bool make_name_space(const std::string &name)
{
    const int known = open_named_namespace(name);
    if (known >= 0) {
        close(known);
        return false;
    }
    const std::string path = std::string(NAMES) + "/" + name;
    if (!is_file_name(name) || !share_namespace_names()) {
        fail(path);
    }
    make_file(path);
    const int home = open(OWN_NAMESPACE, O_RDONLY | O_CLOEXEC);
    if (home < 0 || unshare(CLONE_NEWNET) != 0) {
        fail("a new network namespace");
    }
    const bool mounted = mount(OWN_NAMESPACE, path.c_str(), "none", MS_BIND, nullptr) == 0;
    const int cause = errno;
    go_home(home);
    if (!mounted) {
        (void)unlink(path.c_str());
        errno = cause;
        fail(path);
    }
    return true;
}

} // namespace kap_node
