// The names of a physical port with its three services, and where a link on it lives. Knows no port but the eight of
// its tables; what a name means to the services is their business.
#include "port_mapping.hpp"

#include <cstdio>
#include <cstring>

#include "vorn_trace.hpp"
#include "vorn_types.hpp"

namespace
{

struct port_names {
    const char *iemli;
    const char *iepcsi;
    const char *fmi;
};

constexpr port_names PORTS[] = {
    {"IDL_A1", "IDLA1", "DiPort_A1"}, {"IDL_A2", "IDLA2", "DiPort_A2"}, {"IDL_B1", "IDLB1", "DiPort_B1"},
    {"IDL_B2", "IDLB2", "DiPort_B2"}, {"TN_A", "TNA", "TNA"},           {"TN_B", "TNB", "TNB"},
    {"TN_C", "TNC", "TNC"},           {"TN_D", "TND", "TND"},
};

constexpr const char *INVALID_PORT = "INVALID_PORT";

using name_buffer = char[PORT_NAME_LEN + 1];

const char *store(name_buffer &buffer, const char *name)
{
    (void)snprintf(buffer, sizeof buffer, "%s", name);
    return buffer;
}

} // namespace

const char *iemli_to_iepcsi_port_name(const char *iemli_name)
{
    static name_buffer result;
    for (const port_names &port : PORTS) {
        if (port_name_equal(iemli_name, port.iemli)) {
            return store(result, port.iepcsi);
        }
    }
    return store(result, INVALID_PORT);
}

const char *iepcsi_to_iemli_port_name(const char *iepcsi_name)
{
    static name_buffer result;
    for (const port_names &port : PORTS) {
        if (port_name_equal(iepcsi_name, port.iepcsi)) {
            return store(result, port.iemli);
        }
    }
    return store(result, INVALID_PORT);
}

void port_name_to_fmi_name(const char *name, char *buffer, uint8_t size)
{
    for (const port_names &port : PORTS) {
        if (strcmp(name, port.iemli) == 0 || strcmp(name, port.iepcsi) == 0) {
            name = port.fmi;
            break;
        }
    }
    (void)snprintf(buffer, size, "%s", name);
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
