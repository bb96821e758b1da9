// The endpoint manager: MAC endpoints on a port and VLAN.
//
// Links share endpoints (every link of a port and VLAN asks for the same PTP and LLDP addresses), so each add of an
// endpoint counts one user and each remove takes one away. Removing an endpoint that is not there is confirmed, since
// nothing is left to remove, and counted. A request is carried out whole or not at all.
//
// A near-end MAC comes without the name of a port: it belongs to the ports that the other records of its request name,
// or to every port when they name none. An endpoint that several records ask for on a port is given to the backend
// once, and taken from it with the last of them. Users are counted by connection, too: those of a connection that ends
// go after it. All connections together have room for twice as many endpoints as there may be, so that each can be
// asked for again after its client has died; what an ended one had asked for makes room for what a living one asks for.
#pragma once

#include "config.hpp"
#include "counts.hpp"
#include "emi_backend.hpp"
#include "service.hpp"

#include <set>

namespace kap_node
{

class emi_service : public service
{
public:
    emi_service(const node_config &config, outlet &out,
                endpoint_backend &backend = memory_endpoint_backend::instance());

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

    // An endpoint without a port, and a port that it belongs to.
    struct shared_endpoint {
        endpoint record;
        std::string port;
        auto operator<=>(const shared_endpoint &) const = default;
    };

    static std::optional<endpoint> endpoint_at(const message_view &message, uint32_t index);
    std::optional<uint32_t> refusal(const std::optional<endpoint> &record) const;
    std::set<std::string> ports_of(const std::vector<endpoint> &records) const;
    // An endpoint, and the ports of the request that asked for it.
    struct asked_endpoint {
        endpoint record;
        std::set<std::string> ports;
        auto operator<=>(const asked_endpoint &) const = default;
    };
    using asked_endpoints = std::map<asked_endpoint, uint64_t>;

    bool forget(uint32_t connection_ref) override;
    bool asked_for_nothing(uint32_t connection_ref) const override;
    bool has_room_for(const std::vector<endpoint> &records, const std::set<std::string> &ports,
                      const asked_endpoints &asked);
    verdict add(const std::vector<endpoint> &records, asked_endpoints &asked);
    verdict remove(const std::vector<endpoint> &records, uint32_t connection_ref);
    void no_more_asked(const asked_endpoint &gone, uint32_t connection_ref);
    void count_removal(const endpoint &record, const std::set<std::string> &ports);
    static placed_endpoint place(const endpoint &record, const std::string &port);
    verdict ended(const std::optional<kernel_refusal> &refused);
    void take_back();

    endpoint_backend &backend_;
    std::set<std::string> ports_;
    size_t max_endpoints_;
    user_counts<endpoint> users_;
    user_counts<shared_endpoint> shared_;
    user_counts<placed_endpoint> placed_;
    std::map<uint32_t, asked_endpoints> by_connection_;
    size_t asked_ = 0; // by all of them
    uint64_t unknown_removals_ = 0;
};

} // namespace kap_node
