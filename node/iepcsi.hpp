// The Ethernet port control server: which ports there are, their state, and the VLANs on them.
//
// A port is operational when it is unlocked, its interface is on and has carrier. What the kernel says of interfaces is
// handed in per namespace (interfaces_changed); the server compares it with what it last reported and tells every
// subscriber each difference. Lock, unlock, and VLANs that no interface stands for come as commands.
//
// A supervision daemon sets up what a port lets in when it hears that the port is unlocked, and only with the other
// services it then has. Where that is done in earnest, the daemon hears of unlocked ports only once it has all of them:
// it has published the service that it offers. One that publishes nothing waits for a bounded time, any other client
// for nothing.
#pragma once

#include "config.hpp"
#include "interfaces.hpp"
#include "service.hpp"

#include <map>
#include <set>

namespace kap_node
{

// The supervision daemon's mailbox, and what it publishes when it has all its servers.
inline constexpr const char *DAEMON_MAILBOX = "kap-vorn";
inline constexpr const char *DAEMON_SERVICE = "KAP_IEMLI_SERVICE_NAME";
inline constexpr millis DAEMON_BOUND_MS = 20'000;

class iepcsi_service : public service
{
public:
    iepcsi_service(const node_config &config, outlet &out);

    // From here on the daemon hears of unlocked ports when it is ready. The mailbox is subscribed to DAEMON_SERVICE,
    // and what it is told of that comes to receive().
    void wait_for_daemon() { waits_ = true; }

    // Every namespace that holds an interface of a port.
    std::set<std::string> name_spaces() const;
    // The whole table of a namespace, empty when the namespace is gone.
    void interfaces_changed(const std::string &name_space, const interface_table &interfaces);

    void receive(mailbox sender, std::span<const uint8_t> data, millis now) override;
    void tick(millis now) override;
    std::optional<millis> next_deadline() const override;

protected:
    verdict perform(const request_kind &kind, client &from, const message_view &message) override;
    void confirmed_to(const request_kind &kind, client &to, const message_view &message) override;
    void connection_reset(mailbox address) override;
    json state() const override;
    std::optional<json> own_command(const arguments &words) override;
    const char *own_commands() const override { return ", lock, unlock, vlan-add, vlan-remove"; }

private:
    struct vlan {
        std::string interface;
        std::string name_space;
        bool from_kernel = true;
        bool operator==(const vlan &) const = default;
    };
    using vlan_map = std::map<uint16_t, vlan>;

    struct port {
        port_config config;
        bool present = false;
        bool unlocked = false;
        bool has_link = false;
        mac address{};
        vlan_map vlans;
        std::set<uint16_t> withheld; // VLANs of the kernel's that a command has taken away
        bool operational() const { return unlocked && has_link; }
    };

    // The ports a client hears of; an empty name stands for all.
    struct subscriptions {
        std::set<std::string> status;
        std::set<std::string> vlans;
    };

    port *find_port(const std::string &name);
    port &port_of_command(const std::string &name); // throws command_error
    void note_publication(std::span<const uint8_t> news, bool added);
    void release(mailbox address);
    verdict list_ports() const;
    verdict subscribe(const request_kind &kind, const client &from, const message_view &message);
    void set_link(port &entry, const interface_facts *facts);
    void set_unlocked(port &entry, bool unlocked);
    void set_kernel_vlans(port &entry, const vlan_map &found);
    void add_vlan(port &entry, uint16_t vlan_id, const vlan &added);
    void remove_vlan(port &entry, uint16_t vlan_id);
    json command_vlan(const arguments &words);
    void report_status(const port &entry);
    void send_status(const client &to, const port &entry);
    void report_vlan(const port &entry, uint16_t vlan_id, const vlan &about, uint32_t action);
    static bytes status_fields(const port &entry);
    static bytes vlan_fields(const port &entry, uint16_t vlan_id, const vlan &about, uint32_t action);

    std::vector<port> ports_;
    std::map<mailbox, subscriptions> subscribers_;
    bool waits_ = false;
    millis now_ = 0;                 // of the message that is handled
    std::set<mailbox> ready_;        // who has published
    std::map<mailbox, millis> held_; // who does not hear of unlocked ports, and until when at the latest
    uint32_t last_subscribe_ref_ = 0;
    uint64_t status_indications_ = 0;
    uint64_t vlan_indications_ = 0;
};

} // namespace kap_node
