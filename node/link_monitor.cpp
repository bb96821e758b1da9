// Keeps the port control server's view of the kernel (link_monitor.hpp).
#include "link_monitor.hpp"

#include <system_error>

namespace kap_node
{

link_monitor::link_monitor(event_loop &loop, iepcsi_service &ports) : loop_(loop), ports_(ports)
{
    for (const std::string &name_space : ports_.name_spaces()) {
        watches_[name_space] = nullptr;
    }
}

link_monitor::~link_monitor()
{
    for (const auto &[name_space, watch] : watches_) {
        if (watch) {
            loop_.unwatch_fd(watch->fd());
        }
    }
}

void link_monitor::check_name_spaces()
{
    for (auto &[name_space, watch] : watches_) {
        if (watch && !watch->still_there()) {
            loop_.unwatch_fd(watch->fd());
            watch.reset();
            ports_.interfaces_changed(name_space, {});
        }
        if (watch) {
            read_news(name_space, *watch);
        } else {
            open(name_space);
        }
    }
}

// A namespace that is being made has its file before it can be entered: that is not there yet either.
void link_monitor::open(const std::string &name_space)
{
    std::unique_ptr<interface_watch> fresh;
    try {
        fresh = std::make_unique<interface_watch>(name_space);
    } catch (const std::system_error &) {
        return;
    }
    interface_watch *watch = fresh.get();
    watches_[name_space] = std::move(fresh);
    ports_.interfaces_changed(name_space, watch->interfaces());
    loop_.watch_fd(watch->fd(), [this, name_space, watch] { read_news(name_space, *watch); });
}

void link_monitor::read_news(const std::string &name_space, interface_watch &watch)
{
    if (watch.read_news()) {
        ports_.interfaces_changed(name_space, watch.interfaces());
    }
}

} // namespace kap_node
