// Network namespaces of the calling thread. The daemon has one thread of its own, so that a switch covers all that is
// done between enter and leave.
#include "namespace.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <linux/magic.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vorn_trace.hpp"

namespace
{

constexpr const char *NETNS_DIRECTORY = "/var/run/netns";
constexpr const char *OWN_NETNS = "/proc/self/ns/net";

int kept = -1; // of the last visit that could not be begun

// The handle of a visit that could not be begun stays open; the one that was kept before it is closed, or whoever makes
// visits fail could use up the daemon's descriptors.
void keep_handle(int fd)
{
    if (fd < 0) {
        return;
    }
    if (kept >= 0) {
        close(kept);
    }
    kept = fd;
}

// The name comes from another process: it names a file in the directory, it is no way to one elsewhere.
bool is_file_name(const char *name)
{
    return name[0] != '\0' && strcmp(name, ".") != 0 && strcmp(name, "..") != 0 && strchr(name, '/') == nullptr;
}

// setns() would refuse most of the rest, but not every file that is no namespace should be open in this process.
bool is_namespace_file(int fd)
{
    struct statfs found = {};
    return fstatfs(fd, &found) == 0 && found.f_type == NSFS_MAGIC;
}

// The one link that stands for a namespace: the own one, which is where whoever follows it is already.
bool is_link_to_own(const char *path)
{
    char target[64];
    const ssize_t length = readlink(path, target, sizeof target);
    return length == static_cast<ssize_t>(strlen(OWN_NETNS)) && memcmp(target, OWN_NETNS, strlen(OWN_NETNS)) == 0;
}

// A descriptor, or -1 and errno. Whatever lies there: opening it does not wait (a FIFO), and leads nowhere else (any
// other link).
int open_netns(const char *name, const char *path, size_t path_room)
{
    if (!is_file_name(name) || strlen(path) + 1 >= path_room) {
        errno = EINVAL;
        return -1;
    }
    if (is_link_to_own(path)) {
        return open_current_netns();
    }
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW, 0);
    if (fd >= 0 && !is_namespace_file(fd)) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

} // namespace

int netns_path(const char *name, char *buffer, size_t size)
{
    return snprintf(buffer, size, "%s/%s", NETNS_DIRECTORY, name);
}

int open_current_netns() { return open(OWN_NETNS, O_RDONLY | O_CLOEXEC, 0); }

int enter_netns(const char *name)
{
    char path[4096];
    netns_path(name, path, sizeof path);
    const int fd = open_netns(name, path, sizeof path);
    if (fd < 0) {
        VORN_TRACE(TRACE_ERROR, "Unable to open '%s' file: %s", path, strerror(errno));
        return 1;
    }
    const int result = setns(fd, CLONE_NEWNET);
    if (result < 0) {
        VORN_TRACE(TRACE_ERROR, "Unable to enter '%s': %s", name, strerror(errno));
    }
    close(fd);
    return result < 0 ? 1 : 0;
}

int return_to_netns(int fd)
{
    const int result = setns(fd, CLONE_NEWNET);
    if (result < 0) {
        VORN_TRACE(TRACE_ERROR, "Failed to return to previous namespace: %s", strerror(errno));
    }
    close(fd);
    return result < 0 ? 1 : 0;
}

bool netns_visit_begin(const char *name, int *previous)
{
    *previous = open_current_netns();
    if (*previous < 0) {
        VORN_TRACE(TRACE_WARNING, "WARNING:Unable to open '%s': %s.", OWN_NETNS, strerror(errno));
    }
    if (enter_netns(name) != 0) {
        VORN_TRACE(TRACE_ERROR, "Failed to enter %s namespace", name);
        keep_handle(*previous);
        return false;
    }
    return true;
}

void netns_visit_end(const char *name, int previous)
{
    if (previous < 0 || return_to_netns(previous) != 0) {
        // The thread stays in the link's namespace until the next visit.
        VORN_TRACE(TRACE_WARNING, "WARNING:Failed to exit %s namespace (name space fd %d).", name, previous);
    }
}
