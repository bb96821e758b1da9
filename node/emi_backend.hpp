// Where the endpoints that the endpoint manager keeps are made so. Ports are named as in the manager's protocol.
#pragma once

#include "kernel_refusal.hpp"
#include "message.hpp"

#include <nlohmann/json.hpp>

#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace kap_node
{

// A MAC address on a port and VLAN: one to let in (near end), or one that is to be found there (far end).
struct placed_endpoint {
    std::string port;
    mac address;
    uint16_t vlan_id;
    bool far_end;
    auto operator<=>(const placed_endpoint &) const = default;
};

class endpoint_backend
{
public:
    endpoint_backend() = default;
    virtual ~endpoint_backend() = default;
    endpoint_backend(const endpoint_backend &) = delete;
    endpoint_backend &operator=(const endpoint_backend &) = delete;

    // Puts in endpoints that were not there. All or none: a refusal leaves everything as it was.
    virtual std::optional<kernel_refusal> add(std::span<const placed_endpoint> fresh) = 0;
    // Takes away endpoints that were put in before. All or none; that one is not there any more is no refusal.
    virtual std::optional<kernel_refusal> remove(std::span<const placed_endpoint> unwanted) = 0;
    // The part "kernel" of what the service shows; null when there is nothing to tell.
    virtual nlohmann::json show() const = 0;
};

// Does nothing: the endpoints are kept and shown.
class memory_endpoint_backend : public endpoint_backend
{
public:
    std::optional<kernel_refusal> add(std::span<const placed_endpoint> /*fresh*/) override { return {}; }
    std::optional<kernel_refusal> remove(std::span<const placed_endpoint> /*unwanted*/) override { return {}; }
    nlohmann::json show() const override { return nullptr; }

    static endpoint_backend &instance()
    {
        static memory_endpoint_backend only;
        return only;
    }
};

} // namespace kap_node
