#include "place.hpp"

#include "say.hpp"

#include <linux/capability.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace responder
{

namespace
{

std::string path_of(const std::string &name) { return "/run/netns/" + name; }

} // namespace

bool enter_name_space(const std::string &name)
{
    const int fd = open(path_of(name).c_str(), O_RDONLY | O_CLOEXEC);
    const bool entered = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
    if (!entered) {
        say("the network namespace \"%s\": %s", name.c_str(), strerror(errno));
    }
    if (fd >= 0) {
        close(fd);
    }
    return entered;
}

bool is_in_name_space(const std::string &name)
{
    struct stat mine {
    };
    struct stat there {
    };
    return stat("/proc/self/ns/net", &mine) == 0 && stat(path_of(name).c_str(), &there) == 0 &&
           mine.st_dev == there.st_dev && mine.st_ino == there.st_ino;
}

int drop_all_rights()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        syscall(SYS_capset, &header, none) != 0) {
        return errno;
    }
    return 0;
}

} // namespace responder
