// Brings the answers of PMI and EMI to the procedures that wait for them, and the port events of IEPCSI to the links
// on the port. An answer nobody waits for is traced and dropped.
#include "link_events.hpp"

#include "clients/iepcsi_client.hpp"
#include "link_procedures.hpp"
#include "link_supervision.hpp"
#include "manager/ports/port_mapping.hpp"
#include "manager/rules/port_endpoints.hpp"
#include "manager/table/link_table.hpp"
#include "vorn_trace.hpp"

namespace
{

struct answer {
    procedure_result code;
    proc_step_kind step;
    proc_step_state state;
    void (*complain)(uint32_t procedure_ref); // nobody waits for it
};

#define NOT_EXPECTED(format) [](uint32_t procedure_ref) { VORN_TRACE(TRACE_ERROR, format, procedure_ref); }

constexpr answer ANSWERS[] = {
    {PMI_ENABLE_PORT_VLAN_DONE, PROC_STEP_PMI, PROC_STEP_OK,
     NOT_EXPECTED(
         "Not waiting for this response anymore. Vlan is added and we are not expecting response for proc ref %u")},
    {PMI_ENABLE_PORT_VLAN_FAILED, PROC_STEP_PMI, PROC_STEP_FAILED,
     NOT_EXPECTED(
         "Not waiting for this response anymore. Vlan is not added and we are not expecting response for proc ref %u")},
    {PMI_DISABLE_PORT_VLAN_DONE, PROC_STEP_PMI, PROC_STEP_OK,
     NOT_EXPECTED(
         "Not waiting for this response anymore. Vlan is removed and we are not expecting response for proc ref %u")},
    {PMI_DISABLE_PORT_VLAN_FAILED, PROC_STEP_PMI, PROC_STEP_FAILED,
     NOT_EXPECTED("Not waiting for this response anymore. Vlan is not removed and we are not expecting response for "
                  "proc ref %u")},
    {EMI_ADD_ENDPOINT_DONE, PROC_STEP_EMI_ADD, PROC_STEP_OK,
     NOT_EXPECTED(
         "Not waiting for this response anymore. Endpoint is added and we are not expecting response for proc ref %u")},
    {EMI_ADD_ENDPOINT_FAILED, PROC_STEP_EMI_ADD, PROC_STEP_FAILED,
     NOT_EXPECTED("Not waiting for this response anymore. Endpoint is not added and we are not expecting response for "
                  "proc ref %u")},
    {EMI_REMOVE_ENDPOINT_DONE, PROC_STEP_EMI_DEL, PROC_STEP_OK,
     NOT_EXPECTED("Not waiting for this response anymore. Endpoint is removed and we are not expecting response for "
                  "proc ref %u")},
    {EMI_REMOVE_ENDPOINT_FAILED, PROC_STEP_EMI_DEL, PROC_STEP_FAILED,
     NOT_EXPECTED("Not waiting for this response anymore. Endpoint is not removed and we are not expecting response "
                  "for proc ref "
                  "%u")},
};

const answer *find_answer(uint32_t code)
{
    for (const answer &candidate : ANSWERS) {
        if (candidate.code == code) {
            return &candidate;
        }
    }
    return nullptr;
}

// The answers that name the procedure's link; one without parameters names none.
void trace_answer_of_link(uint32_t code, const IemliLinkData *data)
{
    switch (static_cast<procedure_result>(code)) {
    case PMI_ENABLE_PORT_VLAN_DONE:
        VORN_TRACE(TRACE_LINK, "Added vlan %u on port %s", data->vlanId, data->imlPortName);
        break;
    case PMI_ENABLE_PORT_VLAN_FAILED:
        VORN_TRACE(TRACE_ERROR, "Add vlan %u on port %s FAILED", data->vlanId, data->imlPortName);
        break;
    case EMI_ADD_ENDPOINT_DONE:
        VORN_TRACE(TRACE_LINK, "Added endpoint for iml link on port %s", data->imlPortName);
        break;
    case EMI_ADD_ENDPOINT_FAILED:
        VORN_TRACE(TRACE_ERROR, "FAILED adding endpoint for iml link on port %s", data->imlPortName);
        break;
    case PMI_DISABLE_PORT_VLAN_DONE:
    case PMI_DISABLE_PORT_VLAN_FAILED:
    case EMI_REMOVE_ENDPOINT_DONE:
    case EMI_REMOVE_ENDPOINT_FAILED:
        break;
    }
}

void trace_answer(uint32_t code, const iml_link_proc *proc)
{
    if (code == PMI_DISABLE_PORT_VLAN_FAILED) {
        VORN_TRACE(TRACE_ERROR, "Vlan not removed successfuly");
    } else if (code == EMI_REMOVE_ENDPOINT_FAILED) {
        VORN_TRACE(TRACE_ERROR, "Endpoint not removed successfuly");
    } else if (proc->link_data != nullptr) {
        trace_answer_of_link(code, proc->link_data);
    } else if (code == PMI_ENABLE_PORT_VLAN_FAILED) {
        VORN_TRACE(TRACE_ERROR, "Received VLAN_ADD_NOK for request without link.");
    }
}

// A name from an event, with its end in sight.
struct port_name_copy {
    char text[PORT_NAME_LEN + 1];
};

port_name_copy copy_port_name(const char (&field)[PORT_NAME_LEN])
{
    port_name_copy copy = {};
    memcpy(copy.text, field, sizeof field);
    return copy;
}

void expect_no_link_after_vlan_down(const eth_port &port, iml_link *link)
{
    VORN_TRACE(TRACE_ERROR, "link with id %u on port %s and vlan %u should already been deleted", link->link_ref,
               port.port_name, link->link_data->vlanId);
}

void for_links_on_port_vlan(const char *port_name, uint16_t vlan, void (*action)(const eth_port &, iml_link *))
{
    eth_port port;
    if (!iepcsi_fetch_port_data(port_name, &port)) {
        VORN_TRACE(TRACE_ERROR, "Failed to fetch port data for port name %s", port_name);
        return;
    }
    if (port.oper_state != ETH_PORT_OPERATIONAL) {
        return;
    }
    const port_names &names = port_of_iepcsi_name(port_name);
    for (iml_link *link = iml_link_first_on_port_vlan(names, vlan); link != nullptr;
         link = iml_link_next_on_port_vlan(link)) {
        if (iml_link_is_on_port_vlan(link, port_name, vlan)) {
            action(port, link);
        }
    }
}

} // namespace

void handle_link_event(const client_event &event)
{
    const uint32_t procedure_ref = event.result.procedure_ref;
    const answer *answer = find_answer(event.result.code);
    if (answer == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Unknown link event %u or NO_LINK_EVENT received", event.result.code);
        return;
    }
    if (handle_port_endpoint_result(answer->code, procedure_ref)) {
        return;
    }
    iml_link_proc *proc = link_proc_find(answer->step, procedure_ref);
    if (proc == nullptr) {
        answer->complain(procedure_ref);
        return;
    }
    proc->steps[answer->step].state = answer->state;
    trace_answer(answer->code, proc);
    link_proc_evaluate(proc);
}

void handle_port_event(const client_event &event)
{
    switch (static_cast<port_event>(event.port.id)) {
    case PORT_OPER_UP:
        return start_supervision_on_port(copy_port_name(event.port.port_name).text);
    case PORT_OPER_DOWN:
        return stop_supervision_on_port(copy_port_name(event.port.port_name).text);
    case PORT_ADM_UNLOCKED:
    case PORT_ADM_LOCKED:
        return handle_port_adm_event(copy_port_name(event.port.port_name).text, event.port.id);
    case PORT_VLAN_ADDED:
        return for_links_on_port_vlan(copy_port_name(event.vlan.port_name).text, event.vlan.vlan_id,
                                      start_link_sessions);
    case PORT_VLAN_REMOVED:
        return for_links_on_port_vlan(copy_port_name(event.vlan.port_name).text, event.vlan.vlan_id,
                                      expect_no_link_after_vlan_down);
    }
    VORN_TRACE(TRACE_ERROR, "Unknown link event %u or NO__PORT_EVENT received", event.port.id);
}
