// A name for the network namespace that this process is in, so that others can enter it.
//
// Where the machine has the name HOST_NAMESPACE for it, that is it: a link which stands for the namespace of whoever
// follows it, and needs no privilege. Otherwise it is a file in /run/netns with the namespace mounted on it, as "ip
// netns attach" makes one. Such a name follows from the namespace, and all processes that want it share it; the last
// that ends takes it away. A process that is killed leaves its name behind, and whoever wants a name next takes such
// names away. Who wants a name holds a lock on a file of that name, so that it is known whether anybody still does.
#pragma once

#include <string>

namespace kap_node
{

class own_namespace
{
public:
    // Throws std::system_error when the name cannot be made.
    own_namespace();
    ~own_namespace();
    own_namespace(const own_namespace &) = delete;
    own_namespace &operator=(const own_namespace &) = delete;

    const std::string &name() const { return name_; }

private:
    std::string name_;
    int lock_ = -1;
};

} // namespace kap_node
