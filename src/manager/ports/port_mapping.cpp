// Finds ports by their names, and where a link on one lives. What a name means to the services is their business.
#include "port_mapping.hpp"

#include <cstring>

#include "vorn_trace.hpp"
#include "vorn_types.hpp"

namespace
{

constexpr port_names UNKNOWN_PORT = {"INVALID_PORT", "INVALID_PORT", "INVALID_PORT", nullptr};

const port_names &find_port(const char *port_names::*kind, const char *name)
{
    for (const port_names &port : PORT_NAMES) {
        if (port_name_equal(name, port.*kind)) {
            return port;
        }
    }
    return UNKNOWN_PORT;
}

} // namespace

const port_names &port_of_iemli_name(const char *iemli_name) { return find_port(&port_names::iemli, iemli_name); }

const port_names &port_of_iepcsi_name(const char *iepcsi_name) { return find_port(&port_names::iepcsi, iepcsi_name); }

bool is_known_port(const port_names &port) { return &port != &UNKNOWN_PORT; }

uint32_t port_number(const port_names &port)
{
    return is_known_port(port) ? static_cast<uint32_t>(&port - PORT_NAMES) : PORT_NUMBERS - 1;
}

const char *iemli_to_iepcsi_port_name(const char *iemli_name) { return port_of_iemli_name(iemli_name).iepcsi; }

const char *iepcsi_to_iemli_port_name(const char *iepcsi_name) { return port_of_iepcsi_name(iepcsi_name).iemli; }

const char *port_name_to_fmi_name(const char *name)
{
    for (const port_names &port : PORT_NAMES) {
        if (strcmp(name, port.iemli) == 0 || strcmp(name, port.iepcsi) == 0) {
            return port.fmi;
        }
    }
    return name;
}

bool is_tn_port(const char *name) { return name != nullptr && strstr(name, "TN") != nullptr; }

void get_port_if_name_and_namespace(const eth_port &port, uint16_t vlan, const char **if_name, const char **name_space)
{
    if (!is_tn_port(port.port_name)) {
        *if_name = port.if_name;
        *name_space = port.name_space;
    } else {
        const port_vlan *entry = nullptr;
        if (iepcsi_find_port_vlan(&port, vlan, &entry)) {
            *if_name = entry->if_name;
            *name_space = entry->name_space;
        }
    }
    VORN_TRACE(TRACE_PARAMS, "Values: if_name %s and name_space %s for port %s",
               *if_name != nullptr ? *if_name : "(null)", *name_space != nullptr ? *name_space : "(null)",
               port.port_name);
}
