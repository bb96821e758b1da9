// Watches the network interfaces of a namespace through the kernel's route socket.
//
// The socket is opened inside the namespace by stepping into it and back, so the caller must be single-threaded then.
// It pins the namespace; whoever owns the watch asks still_there() from time to time and closes a watch whose namespace
// has been deleted or replaced under its name.
#pragma once

#include "interfaces.hpp"
#include "name_space.hpp"

#include <set>
#include <span>
#include <string>

namespace kap_node
{

// What one datagram of the kernel's meant for a table.
struct netlink_news {
    bool changed = false;     // the table is another
    bool dump_ended = false;  // the answer to a dump request is complete
    bool dump_broken = false; // it is not consistent: ask again
};

// Brings a table up to date from a datagram; `seen` collects the indexes that were reported as present.
netlink_news netlink_apply(std::span<const uint8_t> datagram, interface_table &table, std::set<int> &seen);

class interface_watch
{
public:
    // Throws std::system_error when there is no such namespace yet.
    explicit interface_watch(const std::string &name_space);
    ~interface_watch();
    interface_watch(const interface_watch &) = delete;
    interface_watch &operator=(const interface_watch &) = delete;

    int fd() const { return fd_; }
    const interface_table &interfaces() const { return table_; }

    // Reads what is waiting; true when the table has changed and is complete.
    bool read_news();
    // Waits until the first dump is complete, at most so long.
    bool wait_complete(int timeout_ms);
    // Whether the namespace of that name is still the one the socket is in.
    bool still_there() const { return identity_ == namespace_identity::of(name_space_); }

private:
    void ask_for_all();
    void start_anew_after_loss();
    bool take(std::span<const uint8_t> datagram);

    std::string name_space_;
    namespace_identity identity_;
    int fd_ = -1;
    bool dumping_ = false;
    bool complete_ = false;
    bool dirty_ = false;
    std::set<int> seen_;
    interface_table table_;
};

} // namespace kap_node
