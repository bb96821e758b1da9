// The automation agent: keeps a path with its latencies for every link it is told of. It is found through the name
// service, which it can leave and enter again on command; publishing goes through hooks, so that the core stays free
// of it.
#pragma once

#include "config.hpp"
#include "service.hpp"

#include <functional>

namespace kap_node
{

// What the agent asks of the name service: true enters, false leaves. Returns 0 or an errno value.
using publish_hook = std::function<int(bool present)>;

class aasi_service : public service
{
public:
    aasi_service(const node_config &config, outlet &out, publish_hook publish);

protected:
    verdict perform(const request_kind &kind, client &from, const message_view &message) override;
    json state() const override;
    std::optional<json> own_command(const arguments &words) override;
    const char *own_commands() const override { return ", appear, disappear, announce-foreign, config-update"; }

private:
    struct latencies {
        uint32_t min = 0;
        uint32_t max = 0;
        uint32_t avg = 0;
        uint32_t link_status = 0;
        uint64_t reports = 0;
    };
    struct app_link {
        mac near_end;
        mac far_end;
    };
    struct path {
        uint32_t latency_req = 0;
        std::string port;
        mac near_end{};
        mac far_end{};
        uint16_t vlan_id = 0;
        std::vector<app_link> app_links;
        latencies info;
    };
    struct path_key {
        mailbox owner;
        uint32_t link_ref;
        auto operator<=>(const path_key &) const = default;
    };

    verdict keep_path(const path_key &key, const message_view &message);
    verdict keep_info(const path_key &key, const message_view &message);
    void set_presence(bool present);
    void announce_foreign(const arguments &words);
    void update_config(const arguments &words);
    json show_path(const path_key &key, const path &kept) const;

    publish_hook publish_;
    bool present_ = false;
    std::map<path_key, path> paths_;
    uint64_t unknown_paths_ = 0;
    uint64_t malformed_paths_ = 0;
};

} // namespace kap_node
