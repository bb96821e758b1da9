// Requests of ports for their PTP and LLDP endpoints, from the unlock or lock of a port to the endpoint manager's
// answer; the port's access-control set-up runs once the last of its adds is answered. A request whose answer never
// comes stays. Which VLANs the port carries does not matter here.
#include "port_endpoints.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/daemon_state.hpp"
#include "base/step_state.hpp"
#include "clients/emi_client.hpp"
#include "clients/fmi_client.hpp"
#include "manager/ports/port_mapping.hpp"
#include "port_rules.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr uint16_t PORT_ENDPOINT_VLAN = 10;
constexpr uint32_t PTP_ENDPOINTS = 2;
constexpr uint32_t LLDP_ENDPOINTS = 1;

enum port_endpoint_type : uint32_t {
    PORT_ENDPOINT_PTP = 0,
    PORT_ENDPOINT_LLDP = 1,
};

struct port_endpoint_request {
    uint32_t type;
    uint32_t add_proc_ref;
    uint32_t add_state; // PROC_STEP_ONGOING while the answer is awaited
    uint32_t del_proc_ref;
    uint32_t del_state;
    char port_name[PORT_NAME_LEN]; // as IEPCSI names it
    port_endpoint_request *next;
};

// In order of arrival.
port_endpoint_request *first_request;

// What an unlock or a lock needs memory for, had all at once or not at all.
struct port_endpoint_set {
    port_endpoint_request *ptp;
    port_endpoint_request *lldp;
    EmiEndpoint *ptp_records;
    EmiEndpoint *lldp_record;
};

void append_request(port_endpoint_request *request)
{
    port_endpoint_request **tail = &first_request;
    while (*tail != nullptr) {
        tail = &(*tail)->next;
    }
    *tail = request;
}

void unlink_request(port_endpoint_request *request)
{
    port_endpoint_request **link = &first_request;
    while (*link != request) {
        link = &(*link)->next;
    }
    *link = request->next;
}

port_endpoint_request *find_add(uint32_t procedure_ref)
{
    port_endpoint_request *request = first_request;
    while (request != nullptr && (request->add_proc_ref != procedure_ref || request->add_state != PROC_STEP_ONGOING)) {
        request = request->next;
    }
    return request;
}

port_endpoint_request *find_removal(uint32_t procedure_ref)
{
    port_endpoint_request *request = first_request;
    while (request != nullptr && (request->del_proc_ref != procedure_ref || request->del_state != PROC_STEP_ONGOING)) {
        request = request->next;
    }
    return request;
}

bool awaits_another_add(const char *port_name)
{
    for (const port_endpoint_request *request = first_request; request != nullptr; request = request->next) {
        if (strcmp(request->port_name, port_name) == 0 && request->add_state == PROC_STEP_ONGOING) {
            return true;
        }
    }
    return false;
}

void free_set(const port_endpoint_set &set)
{
    free(set.ptp);
    free(set.lldp);
    free(set.ptp_records);
    free(set.lldp_record);
}

port_endpoint_request *alloc_request(uint32_t type, const char *port_name)
{
    auto *request = static_cast<port_endpoint_request *>(calloc(1, sizeof(port_endpoint_request)));
    if (request != nullptr) {
        request->type = type;
        (void)snprintf(request->port_name, sizeof request->port_name, "%s", port_name);
    }
    return request;
}

bool alloc_set(const char *port_name, port_endpoint_set *set)
{
    *set = {};
    set->ptp = alloc_request(PORT_ENDPOINT_PTP, port_name);
    set->lldp = alloc_request(PORT_ENDPOINT_LLDP, port_name);
    if (set->ptp == nullptr || set->lldp == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Out of memory");
        free_set(*set);
        return false;
    }
    set->ptp_records = static_cast<EmiEndpoint *>(calloc(PTP_ENDPOINTS, sizeof(EmiEndpoint)));
    set->lldp_record = static_cast<EmiEndpoint *>(calloc(LLDP_ENDPOINTS, sizeof(EmiEndpoint)));
    if (set->ptp_records == nullptr || set->lldp_record == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Memory error");
        free_set(*set);
        return false;
    }
    return true;
}

void ask_to_add(port_endpoint_request *request, const EmiEndpoint *records, uint32_t count)
{
    request->add_proc_ref = emi_add_endpoint(records, count);
    request->add_state = PROC_STEP_ONGOING;
}

void ask_to_remove(port_endpoint_request *request, const EmiEndpoint *records, uint32_t count)
{
    request->del_proc_ref = emi_remove_endpoint(records, count);
    request->del_state = PROC_STEP_ONGOING;
}

// False for an event that is neither.
bool send_requests(const port_endpoint_set &set, uint32_t event)
{
    if (event == PORT_ADM_UNLOCKED) {
        ask_to_add(set.ptp, set.ptp_records, PTP_ENDPOINTS);
        ask_to_add(set.lldp, set.lldp_record, LLDP_ENDPOINTS);
        return true;
    }
    if (event == PORT_ADM_LOCKED) {
        ask_to_remove(set.ptp, set.ptp_records, PTP_ENDPOINTS);
        ask_to_remove(set.lldp, set.lldp_record, LLDP_ENDPOINTS);
        return true;
    }
    VORN_TRACE(TRACE_WARNING, "WARNING: Unknown port_event(%d) received!", static_cast<int>(event));
    return false;
}

// A port that takes no endpoints: only its access control is set up or removed, and only on a TN port.
void set_port_acl_only(const char *iepcsi_port_name, uint32_t event)
{
    if (!is_tn_port(iepcsi_port_name) || !is_service_up(KAP_VORN_FMI_SERVICE)) {
        return;
    }
    if (event == PORT_ADM_UNLOCKED) {
        setup_port_acl(iepcsi_port_name);
        return;
    }
    port_acl_fall_back(port_name_to_fmi_name(iepcsi_port_name));
}

void trace_added(const port_endpoint_request *request)
{
    if (request->type == PORT_ENDPOINT_PTP) {
        VORN_TRACE(TRACE_LINK, "Added ptp endpoints for port %s", request->port_name);
    } else {
        VORN_TRACE(TRACE_LINK, "Added lldp endpoints for port %s", request->port_name);
    }
}

void trace_not_added(const port_endpoint_request *request)
{
    if (request->type == PORT_ENDPOINT_PTP) {
        VORN_TRACE(TRACE_LINK, "FAILED adding ptp endpoints for port %s", request->port_name);
    } else {
        VORN_TRACE(TRACE_LINK, "FAILED adding lldp endpoints for port %s", request->port_name);
    }
}

// The port's access control does not wait for the endpoints to exist, only for the answers.
void finish_add(port_endpoint_request *request)
{
    unlink_request(request);
    if (!awaits_another_add(request->port_name) && is_service_up(KAP_VORN_FMI_SERVICE)) {
        setup_port_acl(request->port_name);
    }
    free(request);
}

void remove_port_acl(const char *iepcsi_port_name)
{
    uint32_t count = 0;
    mac_address *macs = collect_local_port_macs(&count);
    set_supervision_acl_rule_on_ports(macs, count);
    free(macs);
    fmi_remove_acl_from_port(port_name_to_fmi_name(iepcsi_port_name));
}

void finish_removal(port_endpoint_request *request, bool removed)
{
    if (!removed) {
        VORN_TRACE(TRACE_ERROR, "Ptp endpoints not removed successfuly");
    } else {
        VORN_TRACE(TRACE_LINK, "Ptp endpoints removed for port %s", request->port_name);
        if (is_service_up(KAP_VORN_FMI_SERVICE)) {
            remove_port_acl(request->port_name);
        }
    }
    unlink_request(request);
    free(request);
}

bool handle_add_result(uint32_t code, uint32_t procedure_ref)
{
    port_endpoint_request *request = find_add(procedure_ref);
    if (request == nullptr) {
        return false;
    }
    if (code == EMI_ADD_ENDPOINT_DONE) {
        trace_added(request);
    } else {
        trace_not_added(request);
    }
    finish_add(request);
    return true;
}

bool handle_removal_result(uint32_t code, uint32_t procedure_ref)
{
    port_endpoint_request *request = find_removal(procedure_ref);
    if (request == nullptr) {
        return false;
    }
    finish_removal(request, code == EMI_REMOVE_ENDPOINT_DONE);
    return true;
}

} // namespace

void handle_port_adm_event(const char *iepcsi_port_name, uint32_t event)
{
    if (is_tn_port(iepcsi_port_name) || !is_service_up(KAP_VORN_EMI_SERVICE)) {
        set_port_acl_only(iepcsi_port_name, event);
        return;
    }
    port_endpoint_set set;
    if (!alloc_set(iepcsi_port_name, &set)) {
        return;
    }
    fill_ptp_lldp_mac_rules(iepcsi_port_name, PORT_ENDPOINT_VLAN, set.ptp_records);
    fill_lldp_mac_rule(iepcsi_port_name, PORT_ENDPOINT_VLAN, set.lldp_record);
    if (send_requests(set, event)) {
        append_request(set.ptp);
        append_request(set.lldp);
        set.ptp = nullptr;
        set.lldp = nullptr;
    }
    free_set(set);
}

bool handle_port_endpoint_result(uint32_t code, uint32_t procedure_ref)
{
    switch (static_cast<procedure_result>(code)) {
    case EMI_ADD_ENDPOINT_DONE:
    case EMI_ADD_ENDPOINT_FAILED:
        return handle_add_result(code, procedure_ref);
    case EMI_REMOVE_ENDPOINT_DONE:
    case EMI_REMOVE_ENDPOINT_FAILED:
        return handle_removal_result(code, procedure_ref);
    case PMI_ENABLE_PORT_VLAN_DONE:
    case PMI_ENABLE_PORT_VLAN_FAILED:
    case PMI_DISABLE_PORT_VLAN_DONE:
    case PMI_DISABLE_PORT_VLAN_FAILED:
        break;
    }
    return false;
}

void port_endpoints_forget_all()
{
    while (first_request != nullptr) {
        port_endpoint_request *request = first_request;
        unlink_request(request);
        free(request);
    }
}
