// Whoever keeps something in the kernel as a service was asked for it: compares what is there with what has to be, and
// mends the difference. The program's loop drives it, and gives it the descriptors on which the kernel tells news.
#pragma once

#include "program.hpp"

#include <functional>

namespace kap_node
{

// How descriptors get into the loop and out of it. A callback may take descriptors out, its own too.
struct descriptor_hooks {
    std::function<void(int fd, std::function<void()> callback)> watch;
    std::function<void(int fd)> unwatch;
};

// So often a keeper is asked to settle though there were no news: the kernel does not tell everything.
inline constexpr millis SETTLE_PERIOD_MS = 500;
// What an earlier run has left is taken away this long after the start, unless it is asked for again.
inline constexpr millis LEFTOVERS_KEPT_MS = 10000;
// A VLAN of a bridge port a little longer: entries of the forwarding table stand on it, another service takes them
// away, and the kernel lets go of none whose VLAN went before.
inline constexpr millis LEFT_VLANS_KEPT_MS = LEFTOVERS_KEPT_MS + 2000;

class kernel_keeper
{
public:
    kernel_keeper() = default;
    virtual ~kernel_keeper() = default;
    kernel_keeper(const kernel_keeper &) = delete;
    kernel_keeper &operator=(const kernel_keeper &) = delete;

    // Watches the descriptors that it has now and will have. Called once.
    virtual void watch(descriptor_hooks hooks) = 0;
    // Compares and mends. Called once before the first request, then at least every SETTLE_PERIOD_MS; what news ask for
    // a keeper does by itself.
    virtual void settle(millis now) = 0;
};

} // namespace kap_node
