// The manager's state, the set of lower-layer services that are up, and what follows from a service that comes or goes.
// Links and what was set up for them in the lower layers are left alone here.
#include "manager_state.hpp"

#include "clients/aasi_client.hpp"
#include "clients/emi_client.hpp"
#include "clients/fmi_client.hpp"
#include "clients/iepcsi_client.hpp"
#include "clients/pmi_client.hpp"
#include "iemli/iemli_server.hpp"
#include "link_procedures.hpp"
#include "link_table.hpp"
#include "port_mapping.hpp"
#include "port_rules.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr uint32_t POLICER_TYPES = 3;

uint32_t state = KAP_VORN_INIT;
uint32_t services = KAP_VORN_NO_SERVICE;
uint32_t aasi_up;

void enter_state(uint32_t new_state)
{
    state = new_state;
    VORN_TRACE(TRACE_STATE, "New state is: %s", manager_state_to_string(state));
}

bool has(uint32_t bit) { return (services & bit) != 0; }

void set_default_actions()
{
    for (const eth_port *port = iepcsi_get_port_list(); port != nullptr; port = port->next) {
        if (port->adm_state != ETH_PORT_UNLOCKED) {
            continue;
        }
        char fmi_name[64];
        port_name_to_fmi_name(port->port_name, fmi_name, sizeof fmi_name);
        if (!fmi_set_default_action(fmi_name, is_tn_port(port->port_name) ? 1 : 0)) {
            fmi_set_default_action(fmi_name, FMI_FALLBACK_ACTION);
        }
    }
}

void create_policers()
{
    for (const eth_port *port = iepcsi_get_port_list(); port != nullptr; port = port->next) {
        char fmi_name[16]; // a longer name is cut to 15 characters
        port_name_to_fmi_name(port->port_name, fmi_name, sizeof fmi_name);
        for (uint32_t type = 0; type < POLICER_TYPES; ++type) {
            fmi_create_policer(type, fmi_name);
        }
    }
}

void all_services_up()
{
    enter_state(KAP_VORN_SERVICES_UP);
    create_policers();
    if (iemli_publish()) {
        enter_state(KAP_VORN_INITIATED);
    } else {
        VORN_TRACE(TRACE_ERROR, "Iemli service init failed");
        enter_state(KAP_VORN_FAULTY_STATE);
    }
}

void aasi_service_failed()
{
    aasi_up = 0;
    VORN_TRACE(TRACE_ERROR, "KAP_VORN_AASI_SERVICE can't be initialized");
}

} // namespace

void manager_state_reset()
{
    state = KAP_VORN_INIT;
    services = KAP_VORN_NO_SERVICE;
    aasi_up = 0;
}

uint32_t manager_state() { return state; }

uint32_t manager_service_mask() { return services; }

bool is_aasi_service_up() { return aasi_up == 1; }

void enter_initiating_state()
{
    iml_link_table_clear();
    enter_state(KAP_VORN_INITIATING);
    fmi_client_init(client_event_cb);
    iepcsi_client_init(client_event_cb);
    pmi_client_init(client_event_cb);
    emi_client_init(client_event_cb);
    aasi_client_init(client_event_cb);
}

void client_event_cb(const client_event *event)
{
    switch (event->type) {
    case SERVICE_EVENT:
        handle_service_event(event->service.id);
        break;
    case PROCEDURE_RESULT_EVENT:
        handle_link_event(*event);
        break;
    case IEPCSI_EVENT:
        handle_port_event(*event);
        break;
    default:
        VORN_TRACE(TRACE_ERROR, "Unknown event type %u", event->type);
        break;
    }
}

void handle_service_event(uint32_t code)
{
    switch (code) {
    case PMI_SERVICE_UP:
        service_added(KAP_VORN_PMI_SERVICE);
        break;
    case FMI_SERVICE_UP:
        service_added(KAP_VORN_FMI_SERVICE);
        break;
    case EMI_SERVICE_UP:
        service_added(KAP_VORN_EMI_SERVICE);
        break;
    case IEPCSI_SERVICE_UP:
        service_added(KAP_VORN_IEPCSI_SERVICE);
        break;
    case PMI_SERVICE_DOWN:
        service_lost(KAP_VORN_PMI_SERVICE);
        break;
    case FMI_SERVICE_DOWN:
        service_lost(KAP_VORN_FMI_SERVICE);
        break;
    case EMI_SERVICE_DOWN:
        service_lost(KAP_VORN_EMI_SERVICE);
        break;
    case IEPCSI_SERVICE_DOWN:
        service_lost(KAP_VORN_IEPCSI_SERVICE);
        break;
    case PMI_SERVICE_FAULTY:
    case FMI_SERVICE_FAULTY:
    case EMI_SERVICE_FAULTY:
    case IEPCSI_SERVICE_FAULTY:
        state = KAP_VORN_FAULTY_STATE; // and nothing else: what is published stays published
        break;
    case AASI_SERVICE_UP:
        aasi_service_added();
        break;
    case AASI_SERVICE_DOWN:
        aasi_service_removed();
        break;
    case AASI_SERVICE_FAULTY:
        aasi_service_failed();
        break;
    default:
        VORN_TRACE(TRACE_ERROR, "This shouldn't happen. Unexpected service_id %u", code);
        break;
    }
}

void service_added(uint32_t bit)
{
    if (!has(bit)) {
        services |= bit;
        VORN_TRACE(TRACE_SERVICE, "%s is added", service_to_string(bit));
    } else {
        VORN_TRACE(TRACE_ERROR, "%s is added twice", service_to_string(bit));
    }
    if ((bit == KAP_VORN_FMI_SERVICE && has(KAP_VORN_IEPCSI_SERVICE)) ||
        (has(KAP_VORN_FMI_SERVICE) && bit == KAP_VORN_IEPCSI_SERVICE)) {
        set_default_actions();
    }
    if (services == KAP_VORN_ALL_SERVICES_UP) {
        all_services_up();
    }
}

void service_lost(uint32_t bit)
{
    if (!has(bit)) {
        VORN_TRACE(TRACE_ERROR, "%s is lost, but we already don't have it in services", service_to_string(bit));
    } else {
        services ^= bit;
    }
    if (state == KAP_VORN_FAULTY_STATE) {
        return;
    }
    state = KAP_VORN_FAULTY_STATE;
    VORN_TRACE(TRACE_STATE, "New state is: %s due to lost service %s", manager_state_to_string(state),
               service_to_string(bit));
    iemli_unpublish();
}

void aasi_service_added()
{
    if (aasi_up == 0) {
        aasi_up = 1;
        VORN_TRACE(TRACE_SERVICE, "KAP_VORN_AASI_SERVICE is added");
    } else {
        VORN_TRACE(TRACE_ERROR, "KAP_VORN_AASI_SERVICE is added twice");
    }
}

void aasi_service_removed()
{
    if (aasi_up == 1) {
        aasi_up = 0;
        VORN_TRACE(TRACE_SERVICE, "KAP_VORN_AASI_SERVICE is removed");
    } else {
        VORN_TRACE(TRACE_ERROR, "KAP_VORN_AASI_SERVICE is lost, but we already don't have it in services");
    }
}

const char *manager_state_to_string(uint32_t value)
{
    switch (value) {
    case KAP_VORN_INIT:
        return "KAP_VORN_INIT";
    case KAP_VORN_INITIATING:
        return "KAP_VORN_INITIATING";
    case KAP_VORN_SERVICES_UP:
        return "KAP_VORN_SERVICES_UP";
    case KAP_VORN_INITIATED:
        return "KAP_VORN_INITIATED";
    case KAP_VORN_FAULTY_STATE:
        return "KAP_VORN_FAULTY_STATE";
    default:
        return "UNKNOWN_STATE";
    }
}

const char *service_to_string(uint32_t service)
{
    switch (service) {
    case KAP_VORN_NO_SERVICE:
        return "KAP_VORN_NO_SERVICE";
    case KAP_VORN_PMI_SERVICE:
        return "KAP_VORN_PMI_SERVICE";
    case KAP_VORN_EMI_SERVICE:
        return "KAP_VORN_EMI_SERVICE";
    case KAP_VORN_FMI_SERVICE:
        return "KAP_VORN_FMI_SERVICE";
    case KAP_VORN_IEPCSI_SERVICE:
        return "KAP_VORN_IEPCSI_SERVICE";
    case KAP_VORN_ALL_SERVICES_UP:
        return "KAP_VORN_ALL_SERVICES_UP";
    default:
        return "UNKNOWN_SERVICE";
    }
}

const char *iml_link_status_text(uint32_t status, uint32_t disabled_reason)
{
    if (status == IML_LINK_ENABLED) {
        return "enabled";
    }
    if (status != IML_LINK_DISABLED) {
        return "unknown";
    }
    switch (disabled_reason) {
    case IML_LINK_REASON_DOWN:
        return "disabled with reason down";
    case IML_LINK_REASON_LOCKED:
        return "disabled with reason locked";
    case IML_LINK_REASON_NO_CONNECTIVITY:
        return "disabled with reason no connectivity";
    default:
        return "disabled with invalid reason";
    }
}
