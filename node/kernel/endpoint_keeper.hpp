// Endpoints of links in the kernel, as the endpoint manager was asked for them: the backend "kernel" of
// node/emi_backend.hpp.
//
//   near end   the address is let in on the port's interface: an entry of its filter, without a VLAN, since a filter
//              knows none. The multicast addresses of PTP and LLDP are near-end addresses too: the kernel puts them
//              into the interface's multicast filter (01:1B:19:00:00:00) or, where a bridge never passes them on
//              (01:80:C2:00:00:0E), into its unicast one.
//   far end    where the interface is the port of a bridge: a static entry of its forwarding table, in the link's VLAN;
//              without a VLAN where the bridge tells none apart. It waits until the VLAN is let through on the port,
//              which is another service's work. When the VLAN goes first, the kernel refuses to take the entry away: it
//              lies there without effect, and goes when the VLAN is back, or moves with its address to another port.
//              On any other interface: nothing, since nothing is forwarded.
//
// What several endpoints need is one entry. What was there before is somebody else's: it serves and stays; an address
// that the bridge has only learnt is made static, one that somebody has fixed at another port is refused. None of this
// has a name in the kernel, so each entry that was not there is written into a journal before it is made.
//
// An endpoint of a port whose interface is not there is taken and waits for it: nobody asks for the endpoints of a port
// again when its interface comes. One of a port whose namespace is there and cannot be opened is refused. What
// disappears is mended and told. What an earlier run has left, and nobody has asked for again within 10 seconds, is
// taken away, in namespaces that are not configured any more, too.
#pragma once

#include "config.hpp"
#include "emi_backend.hpp"
#include "kernel/bystanders.hpp"
#include "kernel/journal.hpp"
#include "kernel/links.hpp"
#include "kernel/places.hpp"
#include "kernel/report.hpp"
#include "kernel_keeper.hpp"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kap_node
{

class endpoint_keeper : public endpoint_backend, public kernel_keeper
{
public:
    // Throws std::system_error when the journal cannot be opened.
    explicit endpoint_keeper(const node_config &config);

    std::optional<kernel_refusal> add(std::span<const placed_endpoint> fresh) override;
    std::optional<kernel_refusal> remove(std::span<const placed_endpoint> unwanted) override;
    nlohmann::json show() const override;

    void watch(descriptor_hooks hooks) override;
    void settle(millis now) override;

private:
    enum class holder {
        us,
        other
    };
    // What is in the kernel for the endpoints of a port.
    struct kept_port {
        int index = 0; // of the interface; 0: it is away
        std::map<address_entry, holder> entries;
        std::set<address_entry> waiting; // for their VLAN
        std::set<address_entry> stuck;   // unwanted, and the kernel takes them away only once their VLAN is back
    };
    struct needs {
        std::set<address_entry> now;
        std::set<address_entry> waiting;
    };
    // Where a step is taken: the namespace, what is in it, and the port.
    struct scene {
        kernel_place &place;
        const link_table &links;
        const port_config &port;
        const kernel_link &on;
    };

    const port_config &port_of(const std::string &name) const { return ports_.at(name); }
    static void need(const placed_endpoint &endpoint, const link_table &links, const kernel_link &on, needs &all);
    needs needs_of(const std::string &port, const link_table &links, const kernel_link &on) const;
    std::optional<kernel_refusal> add_on(const std::string &port, std::span<const placed_endpoint> fresh);
    enum class when_refused {
        STOP,
        GO_ON
    };
    std::optional<kernel_refusal> put_in(const scene &where, kept_port &kept, const std::set<address_entry> &entries,
                                         when_refused next);
    static std::optional<kernel_refusal> look(const scene &where, const std::vector<address_entry> &fresh,
                                              entry_table &there);
    std::optional<kernel_refusal> put_in(const scene &where, const entry_table &before, const address_entry &entry,
                                         holder *by);
    std::optional<kernel_refusal> make_static(const scene &where, const entry_table &before, const address_entry &entry,
                                              holder *by);
    bool take_from_stuck(const scene &where, const address_entry &entry, int port);
    std::optional<kernel_refusal> take_out(const scene &where, kept_port &kept, bystanders &others,
                                           const address_entry &entry);
    std::optional<kernel_refusal> remove_unneeded(const std::string &port);
    static std::string journal_entry(const scene &where, const address_entry &entry);
    bool is_wanted(const std::string &name_space, const mac &address) const;
    void settle_place(const std::string &name_space, millis now);
    void settle_port(const scene &where, kept_port &kept);
    void tell_bystanders(const kernel_link &on, const std::optional<kernel_refusal> &refused);
    void take_out_stuck(const scene &where, kept_port &kept, const needs &wanted);
    void remove_left_entry(kernel_place &place, const kernel_link &on, const address_entry &entry,
                           const std::string &line);
    void remove_others();
    void remove_left_entries(const std::string &name_space, kernel_place &place, const link_table &links, millis now);
    void port_is_away(const std::string &port);
    bool concerns(const std::string &name_space, const nlmsghdr *message) const;

    std::map<std::string, port_config> ports_; // by the name of the protocol
    kernel_report report_;
    kernel_journal journal_;
    kernel_places places_;
    std::set<placed_endpoint> wanted_;
    std::map<std::string, kept_port> kept_;
    std::map<std::string, millis> left_since_;
    millis now_ = 0;
    std::optional<millis> began_;
    bool others_visited_ = false;
    uint64_t comparisons_ = 0;
};

} // namespace kap_node
