// Feeds the port control server with what the kernel says of the interfaces of its namespaces, as long as the namespace
// exists: one that is not there yet is looked for again, one that was deleted is let go of.
#pragma once

#include "event_loop.hpp"
#include "iepcsi.hpp"
#include "kernel/interface_watch.hpp"

#include <memory>

namespace kap_node
{

class link_monitor
{
public:
    link_monitor(event_loop &loop, iepcsi_service &ports);
    ~link_monitor();
    link_monitor(const link_monitor &) = delete;
    link_monitor &operator=(const link_monitor &) = delete;

    // Opens, checks and closes watches; called at the start and from time to time.
    void check_name_spaces();

private:
    void open(const std::string &name_space);
    void read_news(const std::string &name_space, interface_watch &watch);
    void tell(const std::string &name_space, const interface_table &now);

    event_loop &loop_;
    iepcsi_service &ports_;
    std::map<std::string, std::unique_ptr<interface_watch>> watches_;
    std::map<std::string, interface_table> told_;
};

} // namespace kap_node
