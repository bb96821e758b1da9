// VLANs of ports in the kernel, as port management was asked for them: the backend "kernel" of node/pmi_backend.hpp.
//
// What a VLAN is depends on its port's configuration:
//
//   device   the VLAN device "<interface>.<id>" in the port's namespace, up, with the alias "kap-node". Where that is
//            more than the 15 characters that a name may have, its name is that of the port: "IDL_A1.100".
//   bridge   the interface is the port of a bridge, which lets the VLAN through there, tagged. That has no name in the
//            kernel, so it is written into a journal.
//   none     nothing: whoever sends in the VLAN tags for itself.
//
// What was there before is somebody else's: it serves, is left as it is, and stays. What disappears, goes down or loses
// its name is mended, and told. A VLAN whose interface is away is put back when the interface comes back; one whose
// interface is not there when it is asked for is refused. What an earlier run has left, and nobody has asked for again
// within 10 seconds (12 at a bridge, see kernel_keeper.hpp), is taken away, in namespaces that are not configured any
// more, too.
#pragma once

#include "config.hpp"
#include "kernel/journal.hpp"
#include "kernel/links.hpp"
#include "kernel/places.hpp"
#include "kernel/report.hpp"
#include "kernel_keeper.hpp"
#include "pmi_backend.hpp"

#include <map>
#include <optional>
#include <string>

namespace kap_node
{

class vlan_keeper : public vlan_backend, public kernel_keeper
{
public:
    // Throws std::system_error when the journal cannot be opened.
    explicit vlan_keeper(const node_config &config);

    std::optional<kernel_refusal> open(const std::string &port, uint16_t vlan_id) override;
    std::optional<kernel_refusal> close(const std::string &port, uint16_t vlan_id) override;
    nlohmann::json show() const override;

    void watch(descriptor_hooks hooks) override;
    void settle(millis now) override;

private:
    enum class holder {
        nobody,
        us,
        other
    };
    using port_vlan = std::pair<std::string, uint16_t>;

    // What there is in the kernel for a VLAN that is wanted.
    struct kept_vlan {
        holder by = holder::nobody;
        int index = 0; // of the device, or of the bridge port
        std::string device;
    };

    // Where a step is taken: the namespace, what is in it, and the port.
    struct scene {
        kernel_place &place;
        link_table &links;
        const port_config &port;
    };

    const port_config &port_of(const std::string &name) const { return ports_.at(name); }
    std::optional<kernel_refusal> look(kernel_place &place, link_table &links) const;
    std::optional<kernel_refusal> make(const scene &where, uint16_t vlan_id, kept_vlan &kept);
    std::optional<kernel_refusal> make_device(const scene &where, uint16_t vlan_id, kept_vlan &kept);
    std::optional<kernel_refusal> create_device(const scene &where, const kernel_link &on, uint16_t vlan_id,
                                                kept_vlan &kept);
    std::optional<kernel_refusal> finish_device(const scene &where, const kernel_link &on, const kernel_link &device,
                                                const std::string &name);
    std::optional<kernel_refusal> let_through(const scene &where, uint16_t vlan_id, kept_vlan &kept);
    std::optional<kernel_refusal> take_away(const scene &where, uint16_t vlan_id, const kept_vlan &kept);
    void settle_place(const std::string &name_space, millis now);
    void settle_vlan(const scene &where, uint16_t vlan_id, kept_vlan &kept);
    void remove_left_devices(const std::string &name_space, kernel_place &place, const link_table &links, millis now);
    void remove_left_vlans(const std::string &name_space, kernel_place &place, const link_table &links, millis now);
    bool remove_left_device(kernel_place &place, const kernel_link &link);
    bool remove_left_vlan(kernel_place &place, const kernel_link &port, uint16_t vlan_id);
    void remove_others();
    bool has_been_left(const std::string &what, millis now, millis kept);
    void place_is_gone(const std::string &name_space);

    std::map<std::string, port_config> ports_; // by the name of the protocol
    kernel_report report_;
    kernel_journal journal_;
    kernel_places places_;
    std::map<port_vlan, kept_vlan> wanted_;
    std::map<std::string, millis> left_since_;
    millis now_ = 0;
    std::optional<millis> began_;
    bool others_visited_ = false;
};

// The name of a VLAN device on this port; empty when no name is short enough.
std::string vlan_device_name(const port_config &port, uint16_t vlan_id);

} // namespace kap_node
