// The port management server: opens and closes a VLAN on a port.
//
// Each link that uses a VLAN of a port enables it once and disables it once, and two links may share one. So every
// confirmed enable adds a user and every disable takes one away; the VLAN is closed with its last user. Disabling a
// VLAN that nobody has enabled is refused. What the backend refuses is rejected and changes no count. Users are counted
// by connection, too: those of a connection that ends go after it.
#pragma once

#include "config.hpp"
#include "pmi_backend.hpp"
#include "service.hpp"

#include <set>

namespace kap_node
{

class pmi_service : public service
{
public:
    pmi_service(const node_config &config, outlet &out, vlan_backend &backend = memory_vlan_backend::instance());

protected:
    verdict perform(const request_kind &kind, client &from, const message_view &message) override;
    json state() const override;
    std::optional<json> own_command(const arguments & /*words*/) override { return std::nullopt; }
    const char *own_commands() const override { return ""; }

private:
    struct port_vlan {
        std::string port;
        uint16_t vlan_id;
        auto operator<=>(const port_vlan &) const = default;
    };

    bool forget(uint32_t connection_ref) override;
    bool asked_for_nothing(uint32_t connection_ref) const override;
    verdict enable(const port_vlan &wanted, uint32_t connection_ref);
    verdict disable(const port_vlan &unwanted, uint32_t connection_ref);
    std::optional<kernel_refusal> take_users(const port_vlan &unwanted, uint64_t users);

    vlan_backend &backend_;
    std::set<std::string> ports_;
    std::map<port_vlan, uint64_t> users_;
    std::map<uint32_t, std::map<port_vlan, uint64_t>> by_connection_;
};

} // namespace kap_node
