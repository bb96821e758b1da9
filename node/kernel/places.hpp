// The namespaces in which a keeper works: a socket to ask and one to hear news by in each, for as long as the namespace
// is there. One that is not there yet is looked for again, one that was deleted, or replaced under its name, is let go
// of.
#pragma once

#include "kernel/netlink_socket.hpp"
#include "kernel_keeper.hpp"
#include "name_space.hpp"

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kap_node
{

// An open namespace.
struct kernel_place {
    namespace_identity identity;
    std::string mark; // for the journal
    netlink_socket ask;
    netlink_socket news;
};

class kernel_places
{
public:
    // `concerns` says whether a message of the kernel's concerns the keeper.
    kernel_places(std::set<std::string> name_spaces, std::vector<int> groups,
                  std::function<bool(const std::string &name_space, const nlmsghdr *message)> concerns);
    ~kernel_places();
    kernel_places(const kernel_places &) = delete;
    kernel_places &operator=(const kernel_places &) = delete;

    // `on_news` is called for a namespace when something that concerns the keeper has changed, or may have.
    void watch(descriptor_hooks hooks, std::function<void(const std::string &name_space)> on_news);

    // Opens and closes; what is closed is handed over first.
    void check(const std::function<void(const std::string &name_space)> &closed);
    // Those of the machine that are not of names(), under one name each: opened, handed over and closed again. False
    // when one could not be opened.
    bool visit_others(const std::function<void(const std::string &name_space, kernel_place &)> &visit) const;
    // Nothing when the namespace is not open.
    kernel_place *find(const std::string &name_space);
    // Why it is not: ENOENT when there is none of that name.
    kernel_refusal why_closed(const std::string &name_space) const;
    const std::set<std::string> &names() const { return names_; }
    // What the keeper has changed itself is no news. Whoever else changed something meanwhile is found out by
    // comparing.
    void forget_news(const std::string &name_space);

private:
    std::unique_ptr<kernel_place> make(const std::string &name_space, const namespace_identity &identity,
                                       const std::vector<int> &groups) const;
    void open(const std::string &name_space);
    void start_watching(const std::string &name_space, kernel_place &place);

    std::set<std::string> names_;
    std::vector<int> groups_;
    std::function<bool(const std::string &, const nlmsghdr *)> concerns_;
    descriptor_hooks hooks_;
    std::function<void(const std::string &)> on_news_;
    std::map<std::string, std::unique_ptr<kernel_place>> open_;
    std::map<std::string, kernel_refusal> refused_; // to open it
};

} // namespace kap_node
