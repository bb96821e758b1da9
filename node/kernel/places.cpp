// The namespaces in which a keeper works (places.hpp).
#include "kernel/places.hpp"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace kap_node
{

kernel_places::kernel_places(std::set<std::string> name_spaces, std::vector<int> groups,
                             std::function<bool(const std::string &, const nlmsghdr *)> concerns)
    : names_(std::move(name_spaces)), groups_(std::move(groups)), concerns_(std::move(concerns))
{
}

kernel_places::~kernel_places()
{
    for (const auto &[name_space, place] : open_) {
        if (hooks_.unwatch) {
            hooks_.unwatch(place->news.fd());
        }
    }
}

void kernel_places::watch(descriptor_hooks hooks, std::function<void(const std::string &)> on_news)
{
    hooks_ = std::move(hooks);
    on_news_ = std::move(on_news);
    for (const auto &[name_space, place] : open_) {
        start_watching(name_space, *place);
    }
}

void kernel_places::start_watching(const std::string &name_space, kernel_place &place)
{
    if (!hooks_.watch) {
        return;
    }
    hooks_.watch(place.news.fd(), [this, name_space, &place] {
        bool concerned = false;
        const bool all = place.news.read_news(
            [&](const nlmsghdr *message) { concerned = concerned || concerns_(name_space, message); });
        if (concerned || !all) {
            on_news_(name_space);
        }
    });
}

void kernel_places::check(const std::function<void(const std::string &)> &closed)
{
    for (const std::string &name_space : names_) {
        const auto found = open_.find(name_space);
        if (found != open_.end() && found->second->identity != namespace_identity::of(name_space)) {
            closed(name_space);
            if (hooks_.unwatch) {
                hooks_.unwatch(found->second->news.fd());
            }
            open_.erase(found);
        }
        if (!open_.contains(name_space)) {
            open(name_space);
        }
    }
}

// Throws std::system_error.
std::unique_ptr<kernel_place> kernel_places::make(const std::string &name_space, const namespace_identity &identity,
                                                  const std::vector<int> &groups) const
{
    auto fresh = std::make_unique<kernel_place>(kernel_place{identity, "", netlink_socket(NETLINK_ROUTE, name_space),
                                                             netlink_socket(NETLINK_ROUTE, name_space, groups)});
    fresh->mark = namespace_mark(fresh->ask.fd(), identity);
    return fresh;
}

// A namespace that is being made has its file before it can be entered: that is told as a namespace that cannot be
// opened, and no more once it can.
void kernel_places::open(const std::string &name_space)
{
    refused_.erase(name_space);
    const namespace_identity identity = namespace_identity::of(name_space);
    if (identity == namespace_identity{}) {
        return;
    }
    try {
        auto fresh = make(name_space, identity, groups_);
        if (namespace_identity::of(name_space) == identity) {
            start_watching(name_space, *fresh);
            open_[name_space] = std::move(fresh);
        }
    } catch (const std::system_error &problem) {
        refused_[name_space] = {problem.code().value(), "cannot be opened: " + problem.code().message()};
    }
}

bool kernel_places::visit_others(const std::function<void(const std::string &, kernel_place &)> &visit) const
{
    std::vector<namespace_identity> seen;
    for (const std::string &name_space : names_) {
        seen.push_back(namespace_identity::of(name_space));
    }
    std::vector<std::string> names = namespace_names();
    names.emplace_back("");
    bool all = true;
    for (const std::string &name_space : names) {
        const namespace_identity identity = namespace_identity::of(name_space);
        if (identity == namespace_identity{} || std::find(seen.begin(), seen.end(), identity) != seen.end()) {
            continue;
        }
        seen.push_back(identity);
        try {
            visit(name_space, *make(name_space, identity, {}));
        } catch (const std::system_error &) {
            all = false;
        }
    }
    return all;
}

kernel_refusal kernel_places::why_closed(const std::string &name_space) const
{
    const auto found = refused_.find(name_space);
    return found == refused_.end() ? kernel_refusal{ENOENT, "there is no network namespace " + name_space}
                                   : found->second;
}

kernel_place *kernel_places::find(const std::string &name_space)
{
    const auto found = open_.find(name_space);
    return found == open_.end() ? nullptr : found->second.get();
}

void kernel_places::forget_news(const std::string &name_space)
{
    if (kernel_place *place = find(name_space)) {
        place->news.read_news([](const nlmsghdr *) {});
    }
}

} // namespace kap_node
