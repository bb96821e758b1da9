// Who is at the other end of a TCP connection within this machine: the kernel knows whose socket that is.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <sys/types.h>

namespace linkd
{

// Asks the kernel for one socket at a time, whatever number of them there is.
class peer_lookup
{
public:
    peer_lookup();
    ~peer_lookup();
    peer_lookup(const peer_lookup &) = delete;
    peer_lookup &operator=(const peer_lookup &) = delete;

    // False: no answer came yet; a kernel may not be made for such questions.
    bool works() const { return works_; }
    // Whose socket the other end of `fd` is; nothing where nobody has it open any more.
    std::optional<uid_t> user_of(int fd);

private:
    int fd_ = -1;
    uint32_t asked_ = 0;
    bool works_ = false;
};

// Which users are in a group: by the lists of users and groups, for a socket does not tell its owner's groups. What was
// found holds for some seconds.
class membership
{
public:
    // Throws std::runtime_error: there is no such group.
    explicit membership(const std::string &group);

    // Root and this program's own user are always.
    bool has(uid_t user);

private:
    struct found {
        bool is_in = false;
        int64_t until_ms = 0;
    };

    gid_t group_ = 0;
    std::map<uid_t, found> users_;
};

} // namespace linkd
