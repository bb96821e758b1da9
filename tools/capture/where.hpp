// Where a port's frames are: its interface and namespace, as the node's port control says, or, where that does not run,
// the node's configuration.
#pragma once

#include <stdexcept>
#include <string>

namespace capture
{

struct port_place {
    std::string port; // as people write it
    std::string interface;
    std::string name_space; // "": that of the machine
};

// `port` as people write it ("IDL_A1") or as port control does ("IDLA1"). The caller has a mailbox, or has lost the
// registry. Throws std::runtime_error.
port_place find_port(const std::string &port, const std::string &node_config);

} // namespace capture
