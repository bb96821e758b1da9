// Has the machine as the configuration says before the services run: the namespaces that it names are there, the
// interfaces of its ports are in them, and those of unlocked ports are switched on.
//
// What is so already is left as it is, so that it can be done again at any time. No address is given or taken away, no
// interface is switched off or moved out of a namespace, and nothing is removed.
#pragma once

#include "config.hpp"

namespace kap_node
{

// Says on standard output what it does, on standard error what cannot be done. Interfaces that are not there are waited
// for, `wait_ms` for all of them; one that does not come is told, and is a failure: whoever called calls again. Gives
// the exit status.
int prepare(const node_config &config, int wait_ms);

} // namespace kap_node
