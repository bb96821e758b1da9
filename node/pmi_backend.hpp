// Where the VLANs that the port management server keeps are made so. Ports are named as in the server's protocol.
#pragma once

#include "kernel_refusal.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace kap_node
{

class vlan_backend
{
public:
    vlan_backend() = default;
    virtual ~vlan_backend() = default;
    vlan_backend(const vlan_backend &) = delete;
    vlan_backend &operator=(const vlan_backend &) = delete;

    // Opens a VLAN that was closed. A refusal leaves everything as it was.
    virtual std::optional<kernel_refusal> open(const std::string &port, uint16_t vlan_id) = 0;
    // Closes a VLAN that was opened before. That it is not there any more is no refusal.
    virtual std::optional<kernel_refusal> close(const std::string &port, uint16_t vlan_id) = 0;
    // The part "kernel" of what the service shows; null when there is nothing to tell.
    virtual nlohmann::json show() const = 0;
};

// Does nothing: the VLANs are kept and shown.
class memory_vlan_backend : public vlan_backend
{
public:
    std::optional<kernel_refusal> open(const std::string & /*port*/, uint16_t /*vlan_id*/) override { return {}; }
    std::optional<kernel_refusal> close(const std::string & /*port*/, uint16_t /*vlan_id*/) override { return {}; }
    nlohmann::json show() const override { return nullptr; }

    static vlan_backend &instance()
    {
        static memory_vlan_backend only;
        return only;
    }
};

} // namespace kap_node
