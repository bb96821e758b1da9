// The ports that can carry inter-ME links, and the VLANs on them. The list is built once, from the server's answer, and
// lives until the server is gone; this file owns every record. It sends nothing and raises nothing.
//
// Names are stored as the format of a print without arguments would read them (client_copy_as_format): a name that is
// to hold a "%" comes as "%%".
#include "iepcsi_ports.hpp"

#include <cstdlib>

#include "client_framework.hpp"
#include "vorn_trace.hpp"

namespace
{

eth_port *ports = nullptr;

// The namespace of a VLAN interface is kept with the bound of an interface name, though its field has room for more.
constexpr size_t VLAN_NAMESPACE_BOUND = 16;

// The place that points to the port's entry of that VLAN, or the end of its list.
port_vlan **vlan_slot(eth_port *port, uint16_t vlan_id)
{
    port_vlan **slot = &port->vlans;
    while (*slot != nullptr && (*slot)->vlan_id != vlan_id) {
        slot = &(*slot)->next;
    }
    return slot;
}

void free_vlans(eth_port *port)
{
    while (port->vlans != nullptr) {
        port_vlan *vlan = port->vlans;
        port->vlans = vlan->next;
        free(vlan);
    }
}

bool is_given(const char *argument, const char *complaint)
{
    if (argument == nullptr) {
        VORN_TRACE(TRACE_ERROR, "%s", complaint);
    }
    return argument != nullptr;
}

eth_port *find_or_complain(const char *port_name)
{
    eth_port *port = iepcsi_ports_find(port_name);
    if (port == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Warning: No port found for port_name=%s", port_name);
    }
    return port;
}

} // namespace

eth_port *iepcsi_ports_find(const char *port_name)
{
    eth_port *port = ports;
    while (port != nullptr && !port_name_equal(port->port_name, port_name)) {
        port = port->next;
    }
    return port;
}

void iepcsi_ports_insert(const char *port_name, const char *if_name, const mac_address &mac)
{
    auto *port = static_cast<eth_port *>(calloc(1, sizeof(eth_port)));
    if (port == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Memory error. Calloc failed.");
        return;
    }
    client_copy_as_format(port->port_name, sizeof port->port_name, port_name);
    client_copy_as_format(port->if_name, sizeof port->if_name, if_name);
    port->mac = mac;
    VORN_TRACE(TRACE_PORT, "Inserting port %s to list", port->port_name);
    port->next = ports;
    ports = port;
}

void iepcsi_ports_free()
{
    while (ports != nullptr) {
        eth_port *port = ports;
        ports = port->next;
        free_vlans(port);
        free(port);
    }
}

const eth_port *iepcsi_get_port_list() { return ports; }

bool iepcsi_fetch_port_data(const char *port_name, eth_port *out)
{
    const eth_port *port = iepcsi_ports_find(port_name);
    if (port == nullptr) {
        VORN_TRACE(TRACE_PORT, "Could not fetch port data for port %s", port_name);
        return false;
    }
    *out = *port;
    return true;
}

bool iepcsi_find_port_vlan(const eth_port *port, uint16_t vlan_id, const port_vlan **out)
{
    const port_vlan *vlan = port->vlans;
    while (vlan != nullptr && vlan->vlan_id != vlan_id) {
        vlan = vlan->next;
    }
    *out = vlan;
    return vlan != nullptr;
}

bool iepcsi_add_port_vlan(const char *port_name, const char *if_name, const char *name_space, uint16_t vlan_id)
{
    if (!is_given(port_name, "Invalid argument, port_name is null") ||
        !is_given(if_name, "Invalid argument, if_name is null") ||
        !is_given(name_space, "Invalid argument, namespace is null")) {
        return false;
    }
    eth_port *port = find_or_complain(port_name);
    if (port == nullptr) {
        return false;
    }
    if (*vlan_slot(port, vlan_id) != nullptr) {
        VORN_TRACE(TRACE_WARNING, "Warning:Vlan %u already added on port name %s.", vlan_id, port_name);
        return true;
    }
    auto *vlan = static_cast<port_vlan *>(calloc(1, sizeof(port_vlan)));
    if (vlan == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Memory error");
        return false;
    }
    vlan->vlan_id = vlan_id;
    client_copy_as_format(vlan->if_name, sizeof vlan->if_name, if_name);
    client_copy_as_format(vlan->name_space, VLAN_NAMESPACE_BOUND, name_space);
    vlan->next = port->vlans;
    port->vlans = vlan;
    return true;
}

bool iepcsi_remove_port_vlan(const char *port_name, uint16_t vlan_id)
{
    if (!is_given(port_name, "Invalid argument, port_name is null")) {
        return false;
    }
    eth_port *port = find_or_complain(port_name);
    if (port == nullptr) {
        return false;
    }
    port_vlan **slot = vlan_slot(port, vlan_id);
    port_vlan *vlan = *slot;
    if (vlan == nullptr) {
        VORN_TRACE(TRACE_WARNING, "Warning:Vlan %u for port name %s not found.", vlan_id, port_name);
        return true;
    }
    *slot = vlan->next;
    free(vlan);
    return true;
}
