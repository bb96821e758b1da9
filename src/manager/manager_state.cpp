// What follows from a service that comes or goes: states, default actions and policers, the published service.
// Links and what was set up for them in the lower layers are left alone here.
#include "manager_state.hpp"

#include "clients/aasi_client.hpp"
#include "clients/emi_client.hpp"
#include "clients/fmi_client.hpp"
#include "clients/iepcsi_client.hpp"
#include "clients/pmi_client.hpp"
#include "iemli/iemli_server.hpp"
#include "manager/links/link_events.hpp"
#include "manager/links/link_paths.hpp"
#include "manager/links/link_reports.hpp"
#include "manager/ports/port_mapping.hpp"
#include "manager/rules/port_rules.hpp"
#include "manager/table/link_table.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr uint32_t POLICER_TYPES = 3;

void enter_state(kap_vorn_state state)
{
    set_manager_state(state);
    VORN_TRACE(TRACE_STATE, "New state is: %s", manager_state_to_string(state));
}

void set_default_actions()
{
    for (const eth_port *port = iepcsi_get_port_list(); port != nullptr; port = port->next) {
        if (port->adm_state != ETH_PORT_UNLOCKED) {
            continue;
        }
        const char *fmi_name = port_name_to_fmi_name(port->port_name);
        if (!fmi_set_default_action(fmi_name, is_tn_port(port->port_name) ? 1 : 0)) {
            fmi_set_default_action(fmi_name, FMI_FALLBACK_ACTION);
        }
    }
}

void create_policers()
{
    for (const eth_port *port = iepcsi_get_port_list(); port != nullptr; port = port->next) {
        const char *fmi_name = port_name_to_fmi_name(port->port_name);
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
    set_aasi_service_up(false);
    VORN_TRACE(TRACE_ERROR, "KAP_VORN_AASI_SERVICE can't be initialized");
}

} // namespace

void enter_initiating_state()
{
    iml_link_table_clear();
    links_report_to(&IEMLI_LINK_REPORTS);
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
        return handle_service_event(event->service.id);
    case PROCEDURE_RESULT_EVENT:
        return handle_link_event(*event);
    case IEPCSI_EVENT:
        return handle_port_event(*event);
    case PATHS_WANTED_EVENT:
        return iml_link_create_all_paths();
    }
    VORN_TRACE(TRACE_ERROR, "Unknown event type %u", event->type);
}

void handle_service_event(uint32_t code)
{
    switch (static_cast<service_event>(code)) {
    case PMI_SERVICE_UP:
        return service_added(KAP_VORN_PMI_SERVICE);
    case FMI_SERVICE_UP:
        return service_added(KAP_VORN_FMI_SERVICE);
    case EMI_SERVICE_UP:
        return service_added(KAP_VORN_EMI_SERVICE);
    case IEPCSI_SERVICE_UP:
        return service_added(KAP_VORN_IEPCSI_SERVICE);
    case PMI_SERVICE_DOWN:
        return service_lost(KAP_VORN_PMI_SERVICE);
    case FMI_SERVICE_DOWN:
        return service_lost(KAP_VORN_FMI_SERVICE);
    case EMI_SERVICE_DOWN:
        return service_lost(KAP_VORN_EMI_SERVICE);
    case IEPCSI_SERVICE_DOWN:
        return service_lost(KAP_VORN_IEPCSI_SERVICE);
    case PMI_SERVICE_FAULTY:
    case FMI_SERVICE_FAULTY:
    case EMI_SERVICE_FAULTY:
    case IEPCSI_SERVICE_FAULTY:
        return set_manager_state(KAP_VORN_FAULTY_STATE); // and nothing else: what is published stays published
    case AASI_SERVICE_UP:
        return aasi_service_added();
    case AASI_SERVICE_DOWN:
        return aasi_service_removed();
    case AASI_SERVICE_FAULTY:
        return aasi_service_failed();
    }
    VORN_TRACE(TRACE_ERROR, "This shouldn't happen. Unexpected service_id %u", code);
}

void service_added(kap_vorn_service service)
{
    if (!is_service_up(service)) {
        set_service_up(service, true);
        VORN_TRACE(TRACE_SERVICE, "%s is added", service_to_string(service));
    } else {
        VORN_TRACE(TRACE_ERROR, "%s is added twice", service_to_string(service));
    }
    if ((service == KAP_VORN_FMI_SERVICE && is_service_up(KAP_VORN_IEPCSI_SERVICE)) ||
        (service == KAP_VORN_IEPCSI_SERVICE && is_service_up(KAP_VORN_FMI_SERVICE))) {
        set_default_actions();
    }
    if (manager_service_mask() == KAP_VORN_ALL_SERVICES_UP) {
        all_services_up();
    }
}

void service_lost(kap_vorn_service service)
{
    if (!is_service_up(service)) {
        VORN_TRACE(TRACE_ERROR, "%s is lost, but we already don't have it in services", service_to_string(service));
    }
    set_service_up(service, false);
    if (manager_state() == KAP_VORN_FAULTY_STATE) {
        return;
    }
    set_manager_state(KAP_VORN_FAULTY_STATE);
    VORN_TRACE(TRACE_STATE, "New state is: %s due to lost service %s", manager_state_to_string(manager_state()),
               service_to_string(service));
    iemli_unpublish();
}

void aasi_service_added()
{
    if (is_aasi_service_up()) {
        VORN_TRACE(TRACE_ERROR, "KAP_VORN_AASI_SERVICE is added twice");
        return;
    }
    set_aasi_service_up(true);
    VORN_TRACE(TRACE_SERVICE, "KAP_VORN_AASI_SERVICE is added");
}

void aasi_service_removed()
{
    if (!is_aasi_service_up()) {
        VORN_TRACE(TRACE_ERROR, "KAP_VORN_AASI_SERVICE is lost, but we already don't have it in services");
        return;
    }
    set_aasi_service_up(false);
    VORN_TRACE(TRACE_SERVICE, "KAP_VORN_AASI_SERVICE is removed");
}
