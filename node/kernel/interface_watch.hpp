// Keeps a table of the network interfaces of a namespace as the kernel has them.
//
// It holds the namespace for as long as it is open; whoever owns it asks still_there() from time to time and closes one
// whose namespace has been deleted, or replaced under its name.
#pragma once

#include "interfaces.hpp"
#include "kernel/netlink_socket.hpp"
#include "name_space.hpp"

#include <string>

namespace kap_node
{

// Brings a table up to date from a message about an interface; true when it is another then.
bool apply_link(const nlmsghdr *message, interface_table &table);

// Everything that is in the namespace of the socket.
std::optional<kernel_refusal> read_interfaces(netlink_socket &requests, interface_table &table);

class interface_watch
{
public:
    // Reads everything. Throws std::system_error, when there is no such namespace yet for instance.
    explicit interface_watch(const std::string &name_space);

    // Readable when there are news.
    int fd() const { return news_.fd(); }
    const interface_table &interfaces() const { return table_; }

    // Reads the news that are waiting; true when the table has changed.
    bool read_news();
    // Whether the namespace of that name is still the one whose interfaces these are.
    bool still_there() const { return identity_ == namespace_identity::of(name_space_); }

private:
    bool read_anew();

    std::string name_space_;
    namespace_identity identity_;
    netlink_socket news_; // open before everything is read, so that nothing falls between
    netlink_socket requests_;
    interface_table table_;
    bool out_of_date_ = false; // news were lost, and reading anew has failed
};

} // namespace kap_node
