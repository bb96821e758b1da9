// The endpoint manager: MAC endpoints on a port and VLAN.
//
// Links share endpoints (every link of a port and VLAN asks for the same PTP and LLDP addresses), so each add of an
// endpoint counts one user and each remove takes one away. Removing an endpoint that is not there is confirmed, since
// nothing is left to remove, and counted. A request is carried out whole or not at all.
#pragma once

#include "config.hpp"
#include "service.hpp"

#include <set>

namespace kap_node
{

class emi_service : public service
{
public:
    emi_service(const node_config &config, outlet &out);

protected:
    verdict perform(const request_kind &kind, client &from, const message_view &message) override;
    json state() const override;
    std::optional<json> own_command(const arguments & /*words*/) override { return std::nullopt; }
    const char *own_commands() const override { return ""; }

private:
    struct endpoint {
        std::string port; // empty: of the node as a whole
        mac address;
        uint32_t type;
        uint32_t vlan_id;
        uint32_t far_end;
        auto operator<=>(const endpoint &) const = default;
    };

    static std::optional<endpoint> endpoint_at(const message_view &message, uint32_t index);
    std::optional<uint32_t> refusal(const std::optional<endpoint> &record) const;
    verdict add(const std::vector<endpoint> &records);
    verdict remove(const std::vector<endpoint> &records);

    std::set<std::string> ports_;
    size_t max_endpoints_;
    std::map<endpoint, uint64_t> users_;
    uint64_t unknown_removals_ = 0;
};

} // namespace kap_node
