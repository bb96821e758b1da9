// Network namespaces by their names in /run/netns: which one a name stands for, and stepping into it and back.
//
// A name stands for the file of that name; nothing that lies there makes whoever opens it wait. A symbolic link is no
// namespace, but for one: that to the own namespace of whoever follows it ("kap-host", where the machine has it).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kap_node
{

// Which namespace a name stands for: names are given anew, identities are not, for as long as somebody has the
// namespace open. The empty name stands for the process's own namespace.
struct namespace_identity {
    dev_t device = 0;
    ino_t inode = 0;

    bool operator==(const namespace_identity &) const = default;
    // All zero when there is no namespace of that name.
    static namespace_identity of(const std::string &name_space);
};

// What a journal calls the namespace that a socket is in: a word that no other namespace is given as long as the kernel
// runs. Only where a kernel counts its namespaces not at all (before 5.14), it is a number that can come again.
std::string namespace_mark(int socket, const namespace_identity &identity);

// All names there are now, without the empty one.
std::vector<std::string> namespace_names();

// Steps into a namespace for the life of the object. Throws std::system_error.
class namespace_visit
{
public:
    explicit namespace_visit(const std::string &name_space);
    ~namespace_visit();
    namespace_visit(const namespace_visit &) = delete;
    namespace_visit &operator=(const namespace_visit &) = delete;

private:
    int home_ = -1;
};

// Makes the directory of the names and has what is mounted there seen by everybody, as "ip netns" does. False, with
// errno, when it cannot.
bool share_namespace_names();
// A new namespace under this name, as "ip netns add" makes one; false when there is one already. Throws
// std::system_error. The caller is single-threaded.
bool make_name_space(const std::string &name);

} // namespace kap_node
