// The rules of the ports of one network namespace (rule_namespace.hpp).
#include "kernel/rule_namespace.hpp"

#include "kernel/attributes.hpp"
#include "kernel/links.hpp"

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/rtnetlink.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace kap_node
{

namespace
{

constexpr int FILTER_NEWS[] = {NFNLGRP_NFTABLES};
constexpr int LINK_NEWS[] = {RTNLGRP_LINK};
// What is mended is looked at again; somebody may be quicker so often.
constexpr int PASSES = 4;

// A question to the packet filter.
struct filter_message {
    explicit filter_message(uint8_t type, uint8_t family)
    {
        mnl_nlmsg_put_header(room.data())->nlmsg_type = static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | type);
        auto *head_of = static_cast<nfgenmsg *>(mnl_nlmsg_put_extra_header(head(), sizeof(nfgenmsg)));
        head_of->nfgen_family = family;
        head_of->version = NFNETLINK_V0;
    }
    nlmsghdr *head() { return reinterpret_cast<nlmsghdr *>(room.data()); }
    alignas(8) std::array<uint8_t, 256> room{};
};

template <class Visit> void each_filter_attribute(const nlmsghdr *message, Visit visit)
{
    each_attribute(message, sizeof(nfgenmsg), visit);
}

bool is_filter_message(const nlmsghdr *message, uint8_t type)
{
    return message->nlmsg_type == (NFNL_SUBSYS_NFTABLES << 8 | type);
}

std::string own_name()
{
    std::array<char, 17> name{};
    prctl(PR_GET_NAME, name.data());
    return name.data();
}

// The device of a base chain's hook; several devices are given as "A,B".
std::string device_of(const nlattr *hook)
{
    std::string device;
    each_attribute_in(hook, [&](const nlattr *attribute) {
        if (mnl_attr_get_type(attribute) == NFTA_HOOK_DEV) {
            device = text_in(attribute);
        } else if (mnl_attr_get_type(attribute) == NFTA_HOOK_DEVS) {
            device.clear();
            each_attribute_in(attribute,
                              [&](const nlattr *one) { device += (device.empty() ? "" : ",") + text_in(one); });
        }
    });
    return device;
}

// Whether a refusal is one that trying again does not get past.
bool is_for_good(int error)
{
    return error == EPERM || error == EACCES || error == EOPNOTSUPP || error == EPROTONOSUPPORT ||
           error == EAFNOSUPPORT;
}

kernel_refusal unreadable(const json::exception &problem)
{
    return {EBADMSG, std::string("a listing that cannot be read: ") + problem.what()};
}

void say(const std::string &line) { (void)fprintf(stderr, "kap-node fmi: %s\n", line.c_str()); }

} // namespace

rule_namespace::kernel_side::kernel_side(const std::string &name_space)
    : filter(name_space), questions(NETLINK_NETFILTER, name_space),
      filter_news(NETLINK_NETFILTER, name_space, FILTER_NEWS), link_news(NETLINK_ROUTE, name_space, LINK_NEWS)
{
}

rule_namespace::rule_namespace(std::string name, rule_report &report) : name_(std::move(name)), report_(report) {}

rule_namespace::~rule_namespace() = default;

void rule_namespace::add_port(const std::string &port, const std::string &interface)
{
    ports_[port].layout.chain = port;
    ports_[port].layout.interface = interface;
}

// ---- The namespace comes and goes ----------------------------------------------------------------------------------

void rule_namespace::watch(const descriptor_hooks &hooks)
{
    hooks_ = hooks;
    if (kernel_) {
        watch_kernel();
    }
}

void rule_namespace::watch_kernel()
{
    for (const int fd : {kernel_->filter_news.fd(), kernel_->link_news.fd()}) {
        hooks_.watch(fd, [this] {
            read_news();
            mend();
        });
    }
}

void rule_namespace::close_kernel()
{
    if (hooks_.unwatch) {
        hooks_.unwatch(kernel_->filter_news.fd());
        hooks_.unwatch(kernel_->link_news.fd());
    }
    kernel_.reset();
    for (auto &[name, port] : ports_) {
        port.index = 0;
        port.expected = false;
    }
}

// Nothing when the namespace is open, or not there.
std::optional<kernel_refusal> rule_namespace::open_kernel()
{
    const auto identity = namespace_identity::of(name_);
    if (kernel_ && identity == identity_) {
        return std::nullopt;
    }
    if (kernel_) {
        say("the namespace \"" + name_ + "\" is gone");
        close_kernel();
    }
    if (identity == namespace_identity()) {
        return std::nullopt;
    }
    try {
        kernel_ = std::make_unique<kernel_side>(name_);
    } catch (const std::system_error &problem) {
        return kernel_refusal{problem.code().value(), problem.what()};
    }
    identity_ = identity;
    compare_ = true;
    (void)kernel_->filter.run(rehearsal()); // what is wrong is told when it matters
    if (hooks_.watch) {
        watch_kernel();
    }
    return std::nullopt;
}

// Before anything is changed in the namespace it has to be known what an earlier run has left there.
std::optional<kernel_refusal> rule_namespace::open_and_inherit()
{
    auto refused = open_kernel();
    if (!refused && kernel_ && !inherited_at_) {
        refused = inherit();
    }
    if (refused) {
        note_refusal(*refused);
    }
    return refused;
}

void rule_namespace::settle(millis now)
{
    now_ = now;
    if (const auto refused = open_and_inherit()) {
        if (is_for_good(refused->error)) {
            throw std::runtime_error("the packet filter cannot be had: " + refused->words);
        }
        return;
    }
    if (!kernel_) {
        return;
    }
    if (inheriting_ && now >= *inherited_at_ + LEFTOVERS_KEPT_MS) {
        end_inheritance();
    }
    open_late_ports();
    read_news();
    mend();
    kernel_->filter.rest();
}

// ---- What an earlier run has left ----------------------------------------------------------------------------------

std::optional<kernel_refusal> rule_namespace::inherit()
{
    table_picture picture;
    auto refused = wake();
    refused = refused ? refused : read_table(picture);
    if (refused) {
        return refused;
    }
    std::map<std::string, inherited_rules> left;
    try {
        for (const auto &[name, port] : ports_) {
            const auto device = picture.devices.find(name);
            if (device != picture.devices.end() && device->second == port.layout.interface) {
                left[name] = inherited_from(picture, name);
            }
        }
    } catch (const json::exception &problem) {
        return unreadable(problem);
    }
    inherited_at_ = now_;
    inheriting_ = picture.exists;
    last_number_ = std::max(last_number_, highest_number(picture));
    for (auto &[name, port] : ports_) {
        port.layout.inherited = std::move(left[name]);
        port.layout.stays_closed = closes(port.layout.inherited) && !port.layout.rules.default_action;
        port.opens_at = port.wanted_once ? std::optional(now_ + LEFTOVERS_KEPT_MS) : std::nullopt;
        port.asked = port.wanted_once || !port.layout.inherited.empty();
    }
    return std::nullopt;
}

void rule_namespace::end_inheritance()
{
    inheriting_ = false;
    for (auto &[name, port] : ports_) {
        port.expected = port.expected && port.layout.inherited.empty();
        port.layout.inherited = {};
        port.asked = port.wanted_once || port.layout.stays_closed;
    }
    tidying_ = true;
    compare_ = true;
}

// What was asked for of a port is all that is wanted of it when its asker had time to say it.
void rule_namespace::open_late_ports()
{
    for (auto &[name, port] : ports_) {
        if (port.layout.stays_closed && port.opens_at && now_ >= *port.opens_at) {
            port.layout.stays_closed = false;
            port.expected = false;
            compare_ = true;
        }
    }
}

// ---- What the kernel tells -----------------------------------------------------------------------------------------

void rule_namespace::read_news()
{
    static const std::string own = own_name();
    const bool all_filter_news = kernel_->filter_news.read_news([&](const nlmsghdr *message) {
        if (!is_filter_message(message, NFT_MSG_NEWGEN)) {
            return;
        }
        std::string name;
        uint32_t generation = 0;
        each_filter_attribute(message, [&](const nlattr *attribute) {
            if (mnl_attr_get_type(attribute) == NFTA_GEN_PROC_NAME) {
                name = text_in(attribute);
            } else if (mnl_attr_get_type(attribute) == NFTA_GEN_ID) {
                generation = ntohl(number_in<uint32_t>(attribute).value_or(0));
            }
        });
        if (name.empty() || name == own) {
            return;
        }
        if (generation == unnamed_generation_) {
            unnamed_generation_.reset();
            ++report_.disturbed_by[name];
        } else {
            disturbers_.insert(name);
        }
    });
    // News of interfaces only wake: what has become of those of the ports is asked for.
    (void)kernel_->link_news.read_news([](const nlmsghdr * /*message*/) {});
    compare_ = compare_ || !all_filter_news;
}

// Whether an interface of a port has come or gone, or its rules are still to be made.
bool rule_namespace::interfaces_differ()
{
    return std::any_of(ports_.begin(), ports_.end(), [&](const auto &entry) {
        const kept_port &port = entry.second;
        const int index = index_of(kernel_->questions, port.layout.interface);
        return port.asked && (index != port.index || (index != 0 && !port.expected));
    });
}

std::optional<uint32_t> rule_namespace::generation()
{
    std::optional<uint32_t> now;
    filter_message ask(NFT_MSG_GETGEN, AF_UNSPEC);
    ask.head()->nlmsg_flags = NLM_F_ACK; // the answer is one message, and no dump that would say its end
    (void)kernel_->questions.dump(ask.head(), [&](const nlmsghdr *message) {
        each_filter_attribute(message, [&](const nlattr *attribute) {
            if (mnl_attr_get_type(attribute) == NFTA_GEN_ID) {
                now = number_in<uint32_t>(attribute);
            }
        });
    });
    return now ? std::optional(ntohl(*now)) : std::nullopt;
}

std::optional<kernel_refusal> rule_namespace::read_table(table_picture &picture)
{
    json found = json::array();
    if (auto refused = kernel_->filter.list({{"list", whole_table()}}, found)) {
        if (refused->error != ENOENT) {
            return refused;
        }
    }
    try {
        picture = picture_of(found);
    } catch (const json::exception &problem) {
        return unreadable(problem);
    }
    for (const std::string &name : own_counters()) {
        if (const auto count = picture.counters.find(name); count != picture.counters.end()) {
            counted_[name] = count->second;
        }
    }
    return read_devices(picture);
}

std::vector<std::string> rule_namespace::own_counters() const
{
    std::vector<std::string> names;
    const auto add = [&](const std::vector<std::string> &more) { names.insert(names.end(), more.begin(), more.end()); };
    for (const auto &[port_name, port] : ports_) {
        add(counters_of_port(port.layout.number));
        for (const auto &[id, number] : port.layout.numbers) {
            add(counters_of_rule(number));
        }
    }
    return names;
}

// A listing does not say at which interface a chain is.
std::optional<kernel_refusal> rule_namespace::read_devices(table_picture &picture)
{
    filter_message ask(NFT_MSG_GETCHAIN, NFPROTO_NETDEV);
    return kernel_->questions.dump(ask.head(), [&](const nlmsghdr *message) {
        std::string table;
        std::string chain;
        std::string device;
        each_filter_attribute(message, [&](const nlattr *attribute) {
            switch (mnl_attr_get_type(attribute)) {
            case NFTA_CHAIN_TABLE:
                table = text_in(attribute);
                break;
            case NFTA_CHAIN_NAME:
                chain = text_in(attribute);
                break;
            case NFTA_CHAIN_HOOK:
                device = device_of(attribute);
                break;
            default:
                break;
            }
        });
        if (table == RULE_TABLE && !device.empty()) {
            picture.devices[chain] = device;
        }
    });
}

// ---- Changing ------------------------------------------------------------------------------------------------------

// Each batch that is run changes something, and so makes one new generation.
std::optional<kernel_refusal> rule_namespace::run(const json &commands)
{
    if (commands.empty()) {
        return std::nullopt;
    }
    auto refused = kernel_->filter.run(commands);
    if (!refused && known_generation_ && ++*known_generation_ == 0) {
        known_generation_ = 1; // the kernel leaves it out
    }
    return refused;
}

void rule_namespace::number_missing(port_layout &layout)
{
    const auto give = [&](const auto &entries) {
        for (const auto &[id, entry] : entries) {
            if (!layout.numbers.contains(id)) {
                layout.numbers[id] = ++last_number_;
            }
        }
    };
    if (layout.number == 0) {
        layout.number = ++last_number_;
    }
    give(layout.rules.policers);
    give(layout.rules.dynamic_rules);
    give(layout.rules.static_rules);
}

// New names for everything, so that what is there under the old ones can go in the same transaction.
void rule_namespace::number_anew(port_layout &layout)
{
    const auto before = std::exchange(layout.numbers, {});
    const uint32_t own_before = std::exchange(layout.number, 0);
    number_missing(layout);
    // Where the last attempt was refused, nothing has been counted under its names.
    const auto begun = std::exchange(layout.counted, {});
    counted_.insert(begun.begin(), begun.end());
    const auto go_on = [&](const std::vector<std::string> &from, const std::vector<std::string> &to) {
        for (size_t i = 0; i < from.size(); ++i) {
            if (const auto found = counted_.find(from[i]); found != counted_.end()) {
                layout.counted[to[i]] = found->second;
                counted_.erase(found);
            }
        }
    };
    go_on(counters_of_port(own_before), counters_of_port(layout.number));
    for (const auto &[id, number] : before) {
        if (layout.numbers.contains(id)) {
            go_on(counters_of_rule(number), counters_of_rule(layout.numbers.at(id)));
        } else {
            forget_counts(counters_of_rule(number));
        }
    }
}

void rule_namespace::forget_counts(const std::vector<std::string> &names)
{
    for (const std::string &name : names) {
        counted_.erase(name);
    }
}

// Of rules that were removed nothing is remembered.
void rule_namespace::forget_gone(port_layout &layout)
{
    const auto is_there = [&](uint32_t id) {
        return layout.rules.dynamic_rules.contains(id) || layout.rules.static_rules.contains(id) ||
               layout.rules.policers.contains(id);
    };
    for (auto numbered = layout.numbers.begin(); numbered != layout.numbers.end();) {
        if (is_there(numbered->first)) {
            ++numbered;
            continue;
        }
        const std::vector<std::string> names = counters_of_rule(numbered->second);
        forget_counts(names);
        for (const std::string &name : names) {
            layout.counted.erase(name);
        }
        numbered = layout.numbers.erase(numbered);
    }
}

size_t rule_namespace::remembered() const
{
    size_t all = counted_.size();
    for (const auto &[name, port] : ports_) {
        all += port.layout.numbers.size() + port.layout.counted.size();
    }
    return all;
}

namespace
{

// What is in the way of a port's chains.
json clear_chains(const table_picture &picture, const port_layout &port)
{
    json commands = json::array();
    for (const std::string &chain : chains_of(port.chain)) {
        if (picture.chains.contains(chain)) {
            commands.push_back(flush_chain(chain));
        }
    }
    const auto base = picture.chains.find(port.chain);
    if (base == picture.chains.end()) {
        return commands;
    }
    const auto device = picture.devices.find(port.chain);
    const bool fits = base->second.value("hook", "") == "ingress" && base->second.value("type", "") == "filter" &&
                      base->second.value("prio", json()) == json(0) && device != picture.devices.end() &&
                      device->second == port.interface;
    if (!fits) {
        commands.push_back(remove_object("chain", port.chain));
    }
    return commands;
}

void append(json &commands, const json &more) { commands.insert(commands.end(), more.begin(), more.end()); }

// Takes away what nobody expects.
json remove_strangers(const table_picture &picture, const std::set<std::string> &expected)
{
    json commands = json::array();
    json removals = json::array();
    for (const auto &[name, chain] : picture.chains) {
        if (!expected.contains(name)) {
            commands.push_back(flush_chain(name));
            removals.push_back(remove_object("chain", name));
        }
    }
    const auto remove_all = [&](const char *kind, const auto &entries) {
        for (const auto &[name, entry] : entries) {
            if (!expected.contains(name)) {
                removals.push_back(remove_object(kind, name));
            }
        }
    };
    remove_all("set", picture.sets);
    remove_all("limit", picture.limits);
    remove_all("counter", picture.counters);
    append(commands, removals);
    return commands;
}

} // namespace

std::set<std::string> rule_namespace::expected_names() const
{
    std::set<std::string> names;
    for (const auto &[name, port] : ports_) {
        if (port.asked && port.expected) {
            names.merge(names_of(port.layout));
        }
    }
    return names;
}

bool rule_namespace::has_strangers(const table_picture &picture) const
{
    return !inheriting_ &&
           (!remove_strangers(picture, expected_names()).empty() || (picture.exists && expected_names().empty()));
}

// Whether the table filters nothing. Asked of the kernel: the library's listing of such a table cannot be read.
bool rule_namespace::is_asleep()
{
    bool asleep = false;
    filter_message ask(NFT_MSG_GETTABLE, NFPROTO_NETDEV);
    (void)kernel_->questions.dump(ask.head(), [&](const nlmsghdr *message) {
        std::string table;
        uint32_t flags = 0;
        each_filter_attribute(message, [&](const nlattr *attribute) {
            if (mnl_attr_get_type(attribute) == NFTA_TABLE_NAME) {
                table = text_in(attribute);
            } else if (mnl_attr_get_type(attribute) == NFTA_TABLE_FLAGS) {
                flags = ntohl(number_in<uint32_t>(attribute).value_or(0));
            }
        });
        asleep = asleep || (table == RULE_TABLE && (flags & NFT_TABLE_F_DORMANT) != 0);
    });
    return asleep;
}

// The kernel shows a change before it tells whose it was: the name of the newest may still be on its way.
void rule_namespace::count_disturbance(uint32_t generation)
{
    ++report_.mended;
    unnamed_generation_ = disturbers_.empty() ? std::optional(generation) : std::nullopt;
    for (const std::string &name : std::exchange(disturbers_, {})) {
        ++report_.disturbed_by[name];
    }
}

// By itself: a kernel may refuse to change chains in the same transaction.
std::optional<kernel_refusal> rule_namespace::wake()
{
    if (!is_asleep()) {
        return std::nullopt;
    }
    const uint32_t found = generation().value_or(0);
    auto refused = run(json::array({{{"add", whole_table()}}}));
    if (!refused) {
        say("all rules were put to sleep by somebody else; they are in force again");
        count_disturbance(found);
    }
    return refused;
}

// Makes these ports anew in one transaction, which takes away what is not to be there as well.
std::optional<kernel_refusal> rule_namespace::make_anew(const table_picture &picture,
                                                        const std::vector<kept_port *> &anew)
{
    json commands = json::array({{{"add", whole_table()}}});
    for (kept_port *port : anew) {
        number_anew(port->layout);
        append(commands, clear_chains(picture, port->layout));
        append(commands, make_port(port->layout));
        port->expected = true;
    }
    const auto expected = expected_names();
    if (!inheriting_) {
        append(commands, remove_strangers(picture, expected));
    }
    if (expected.empty() && !inheriting_) {
        commands = json::array({{{"delete", whole_table()}}});
    }
    auto refused = run(commands);
    if (refused && !inheriting_) {
        refused = replace_table();
    }
    if (refused && !anew.empty()) {
        return make_each(picture, anew);
    }
    for (kept_port *port : anew) {
        note_made(*port, refused);
    }
    return refused;
}

// Each port in a transaction of its own, and nothing is taken away: it may be what a port has that is refused.
std::optional<kernel_refusal> rule_namespace::make_each(const table_picture &picture,
                                                        const std::vector<kept_port *> &anew)
{
    std::optional<kernel_refusal> first;
    for (kept_port *port : anew) {
        json commands = json::array({{{"add", whole_table()}}});
        append(commands, clear_chains(picture, port->layout));
        append(commands, make_port(port->layout));
        const auto refused = run(commands);
        note_made(*port, refused);
        first = first ? first : refused;
    }
    return first;
}

void rule_namespace::note_made(kept_port &port, const std::optional<kernel_refusal> &refused)
{
    if (refused) {
        count_refusal(*refused);
        if (!port.refused || port.refused->words != refused->words) {
            say(port.layout.chain + ": its rules cannot be made: " + refused->words);
        }
    }
    port.refused = refused;
    port.expected = !refused;
    if (!refused) {
        port.index = index_of(kernel_->questions, port.layout.interface);
    }
}

// The last resort: whatever is in the table, it goes in the same moment in which a new one comes.
std::optional<kernel_refusal> rule_namespace::replace_table()
{
    json commands = json::array({{{"add", whole_table()}}, {{"delete", whole_table()}}, {{"add", whole_table()}}});
    for (auto &[name, port] : ports_) {
        if (port.asked && index_of(kernel_->questions, port.layout.interface) != 0) {
            append(commands, make_port(port.layout));
        }
    }
    return run(commands);
}

// ---- Mending -------------------------------------------------------------------------------------------------------

void rule_namespace::mend()
{
    if (!inherited_at_) {
        return; // what is there may be an earlier run's
    }
    for (int pass = 0; pass < PASSES && mend_once(); ++pass) {
    }
}

std::vector<rule_namespace::kept_port *> rule_namespace::wrong_ports(const table_picture &picture)
{
    std::vector<kept_port *> wrong;
    for (auto &[name, port] : ports_) {
        if (port.asked && index_of(kernel_->questions, port.layout.interface) != 0 &&
            (!port.expected || !shows_port(picture, port.layout))) {
            wrong.push_back(&port);
        }
    }
    return wrong;
}

// Whether it has to be looked at once more.
bool rule_namespace::mend_once()
{
    compare_ = compare_ || interfaces_differ();
    const auto now = generation();
    if (!compare_ && now == known_generation_) {
        disturbers_.clear();
        return false;
    }
    table_picture picture;
    auto refused = wake();
    refused = refused ? refused : read_table(picture);
    if (refused) {
        note_refusal(*refused);
        return false;
    }
    if (generation() != now) {
        return true;
    }
    give_up_lost(picture);
    const auto wrong = wrong_ports(picture);
    compare_ = !wrong.empty() || has_strangers(picture);
    if (!compare_) {
        known_generation_ = now;
        note_interfaces();
        refusal_told_.clear();
        return false;
    }
    read_news(); // who it was may have been told meanwhile
    tell_mended(wrong, now.value_or(0));
    if (refused = make_anew(picture, wrong); refused) {
        if (wrong.empty()) {
            note_refusal(*refused);
        }
        return false;
    }
    return true;
}

// A port whose interface has come by another name than ours is not at its chain any more.
void rule_namespace::give_up_lost(const table_picture &picture)
{
    for (auto &[name, port] : ports_) {
        const auto device = picture.devices.find(name);
        if (device != picture.devices.end() && device->second != port.layout.interface &&
            index_of(kernel_->questions, port.layout.interface) == 0) {
            port.expected = false;
            tidying_ = true;
        }
    }
}

void rule_namespace::note_interfaces()
{
    for (auto &[name, port] : ports_) {
        const int index = index_of(kernel_->questions, port.layout.interface);
        if (port.asked && index == 0) {
            port.index = 0;
        } else if (port.asked && port.index != index) {
            note_interface(port, index);
        }
    }
}

void rule_namespace::note_interface(kept_port &port, int index)
{
    if (port.had_interface) {
        ++report_.interfaces_back;
        say(port.layout.chain + ": the interface " + port.layout.interface + " is back, and so are its rules");
    }
    port.index = index;
    port.had_interface = true;
}

void rule_namespace::tell_mended(const std::vector<kept_port *> &wrong, uint32_t generation)
{
    bool disturbed = wrong.empty() && !std::exchange(tidying_, false);
    for (kept_port *port : wrong) {
        const int index = index_of(kernel_->questions, port->layout.interface);
        if (index != port->index) {
            note_interface(*port, index);
        } else if (port->expected) {
            disturbed = true;
            say(port->layout.chain + ": its rules were changed by somebody else; mended");
        }
    }
    if (disturbed) {
        count_disturbance(generation);
    }
}

void rule_namespace::count_refusal(const kernel_refusal &refusal)
{
    ++report_.refusals;
    report_.last_refusal = refusal.words;
}

void rule_namespace::note_refusal(const kernel_refusal &refusal)
{
    count_refusal(refusal);
    if (std::exchange(refusal_told_, refusal.words) != refusal.words) {
        say("the packet filter refuses: " + refusal.words);
    }
}

// ---- What is asked -------------------------------------------------------------------------------------------------

std::optional<kernel_refusal> rule_namespace::apply(const std::string &name, const port_rules &wanted)
{
    if (!kernel_ || !inherited_at_) {
        if (auto refused = open_and_inherit()) {
            return refused;
        }
    }
    kept_port &port = ports_.at(name);
    const kept_port before = port;
    port.layout.rules = wanted;
    port.layout.stays_closed = port.layout.stays_closed && !wanted.default_action;
    if (port.layout.stays_closed && !port.opens_at) {
        port.opens_at = now_ + LEFTOVERS_KEPT_MS;
    }
    port.asked = port.wanted_once = true;
    const int index = kernel_ ? index_of(kernel_->questions, port.layout.interface) : 0;
    if (index == 0) {
        number_missing(port.layout);
        forget_gone(port.layout);
        port.expected = false;
        return std::nullopt;
    }
    if (port.expected && index == port.index) {
        number_missing(port.layout);
        if (!run(change_port(port.layout, before.layout.rules))) {
            forget_gone(port.layout);
            return std::nullopt;
        }
    }
    auto refused = make_port_anew(port);
    if (refused) {
        port = before;
        port.expected = false; // its names may have been used up
        compare_ = true;
    }
    return refused;
}

std::optional<kernel_refusal> rule_namespace::make_port_anew(kept_port &port)
{
    table_picture picture;
    auto refused = wake();
    refused = refused ? refused : read_table(picture);
    if (refused) {
        note_refusal(*refused);
        return refused;
    }
    // With it every other port that is not as expected: what nobody names would be taken away.
    std::vector<kept_port *> anew;
    for (auto &[name, other] : ports_) {
        const bool waits = other.asked && !other.expected && index_of(kernel_->questions, other.layout.interface) != 0;
        if (&other == &port || waits) {
            anew.push_back(&other);
        }
    }
    port.expected = false;
    refused = make_anew(picture, anew);
    port.had_interface = port.had_interface || port.expected;
    compare_ = true; // others' ports may be wrong, too
    if (port.expected) {
        return std::nullopt; // whatever was refused of another
    }
    return port.refused ? port.refused : refused;
}

json rule_namespace::show()
{
    if (kernel_) {
        table_picture picture;
        (void)read_table(picture);
    }
    json shown = json::object();
    for (const auto &[name, port] : ports_) {
        if (port.asked) {
            shown[name] = shown_counts(port.layout, counted_);
            shown[name]["interface_present"] = kernel_ && index_of(kernel_->questions, port.layout.interface) != 0;
            if (port.refused) {
                shown[name]["refused"] = port.refused->words;
            }
        }
    }
    return shown;
}

} // namespace kap_node
