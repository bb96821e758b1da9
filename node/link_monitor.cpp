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
            tell(name_space, {});
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
    tell(name_space, watch->interfaces());
    loop_.watch_fd(watch->fd(), [this, name_space, watch] { read_news(name_space, *watch); });
}

void link_monitor::read_news(const std::string &name_space, interface_watch &watch)
{
    if (watch.read_news()) {
        tell(name_space, watch.interfaces());
    }
}

// An interface that has another one's name since the last time has come in its place, however quickly: first that one
// is gone.
void link_monitor::tell(const std::string &name_space, const interface_table &now)
{
    std::map<std::string, int> before;
    for (const auto &[index, facts] : told_[name_space]) {
        before[facts.name] = index;
    }
    interface_table meanwhile = now;
    std::erase_if(meanwhile, [&](const auto &indexed) {
        const auto had_its_name = before.find(indexed.second.name);
        return had_its_name != before.end() && had_its_name->second != indexed.first;
    });
    if (meanwhile.size() != now.size()) {
        ports_.interfaces_changed(name_space, meanwhile);
    }
    ports_.interfaces_changed(name_space, now);
    told_[name_space] = now;
}

} // namespace kap_node
