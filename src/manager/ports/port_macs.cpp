// Looks up MACs in IEPCSI's list of ports: see port_macs.hpp.
#include "port_macs.hpp"

#include "base/daemon_state.hpp"
#include "clients/iepcsi_client.hpp"
#include "iemli/iemli_messages.hpp"
#include "port_mapping.hpp"
#include "vorn_trace.hpp"

bool fetch_local_supervision_mac(const char *iemli_port_name, mac_address *mac, uint32_t *reason)
{
    if (manager_state() != KAP_VORN_INITIATED) {
        *reason = IEMLI_REJ_OTHER_REASON;
        VORN_TRACE(TRACE_PORT, "Could not fetch MAC. VORN manager is not initiated");
        return false;
    }
    eth_port port;
    if (!iepcsi_fetch_port_data(iemli_to_iepcsi_port_name(iemli_port_name), &port)) {
        *reason = IEMLI_REJ_UNKNOWN_PORT_NAME;
        return false;
    }
    *mac = port.mac;
    return true;
}

bool check_mac(const mac_address &mac, uint32_t *reason)
{
    if (manager_state() != KAP_VORN_INITIATED) {
        *reason = IEMLI_REJ_OTHER_REASON;
        VORN_TRACE(TRACE_PORT, "Could not check MAC. VORN manager is not initiated");
        return false;
    }
    for (const eth_port *port = iepcsi_get_port_list(); port != nullptr; port = port->next) {
        if (mac_equal(port->mac, mac)) {
            return true;
        }
    }
    return false;
}
