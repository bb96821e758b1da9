#include "wires.hpp"

#include <cstdio>
#include <filesystem>
#include <optional>

#include "process.hpp"

namespace
{

using command = std::vector<std::string>;

void ip(const command &arguments)
{
    command whole = {"ip"};
    whole.insert(whole.end(), arguments.begin(), arguments.end());
    command_must(whole);
}

// No address of its own: an interface that announces itself would put frames on the wire that nobody asked for.
void bring_up(const std::string &space, const std::string &interface, const mac_address &mac)
{
    ip({"-n", space, "link", "set", interface, "address", mac_to_text(mac), "addrgenmode", "none", "up"});
}

void lay_wire(const wire &wire)
{
    ip({"link", "add", wire.interface, "netns", NEAR_NAMESPACE, "type", "veth", "peer", "name", wire.interface, "netns",
        FAR_NAMESPACE});
    bring_up(NEAR_NAMESPACE, wire.interface, wire.near_mac);
    bring_up(FAR_NAMESPACE, wire.interface, wire.far_mac);
    if (wire.vlan_device != 0 && wires_kernel_has_vlan_devices()) {
        std::string own = wires_vlan_interface(wire);
        ip({"-n", NEAR_NAMESPACE, "link", "add", "link", wire.interface, "name", own, "type", "vlan", "id",
            std::to_string(wire.vlan_device)});
        ip({"-n", NEAR_NAMESPACE, "link", "set", own, "addrgenmode", "none", "up"});
    }
}

// Tried for real in a namespace that is removed again: a kernel may have VLAN devices as a module not yet loaded.
bool probe_vlan_devices()
{
    ip({"netns", "add", "probe"});
    ip({"link", "add", "probe0", "netns", "probe", "type", "veth", "peer", "name", "probe1", "netns", "probe"});
    bool have =
        command_run({"ip", "-n", "probe", "link", "add", "link", "probe0", "name", "probe2", "type", "vlan", "id", "2"})
            .status == 0;
    ip({"netns", "delete", "probe"});
    return have;
}

} // namespace

bool wires_kernel_has_vlan_devices()
{
    static const bool have = probe_vlan_devices();
    return have;
}

void wires_lay(const std::vector<wire> &wires)
{
    ip({"netns", "add", NEAR_NAMESPACE});
    ip({"netns", "add", FAR_NAMESPACE});
    for (const wire &wire : wires) {
        lay_wire(wire);
    }
}

bool wires_remove()
{
    bool removed = true;
    for (const char *space : {NEAR_NAMESPACE, FAR_NAMESPACE}) {
        if (std::filesystem::exists(std::string("/run/netns/") + space)) {
            removed = command_run({"ip", "netns", "delete", space}).status == 0 && removed;
        }
    }
    return removed && command_run({"ip", "netns", "list"}).output.empty();
}

std::string wires_vlan_interface(const wire &wire)
{
    return wire.vlan_device != 0 && wires_kernel_has_vlan_devices()
               ? wire.interface + "." + std::to_string(wire.vlan_device)
               : wire.interface;
}

void wires_set_near(const std::string &interface, bool up)
{
    ip({"-n", NEAR_NAMESPACE, "link", "set", interface, up ? "up" : "down"});
}

std::string mac_to_text(const mac_address &mac)
{
    char text[18];
    (void)snprintf(text, sizeof text, MAC_FMT, MAC_ARGS(mac));
    return text;
}
