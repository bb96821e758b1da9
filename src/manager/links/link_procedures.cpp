// Opens link procedures and decides what comes next for each. A procedure remembers one request until every lower-layer
// step has answered; there is no time-out, so one that is never answered stays open for ever. The checks on a request
// were made before it came here.
#include "link_procedures.hpp"

#include <cstdlib>

#include "clients/emi_client.hpp"
#include "clients/fmi_client.hpp"
#include "clients/iepcsi_client.hpp"
#include "clients/pmi_client.hpp"
#include "link_paths.hpp"
#include "link_procedure_finish.hpp"
#include "link_supervision.hpp"
#include "manager/ports/port_mapping.hpp"
#include "manager/rules/port_rules.hpp"
#include "manager/table/link_table.hpp"
#include "vorn_trace.hpp"

namespace
{

void take_request(iml_link_proc *proc, IemliPendingRequest **request)
{
    if (request != nullptr) {
        proc->request = *request;
        *request = nullptr;
    }
}

void send_enable_vlan(iml_link_proc *proc)
{
    const IemliLinkData *data = proc->link_data;
    link_proc_step_sent(proc, PROC_STEP_PMI, pmi_enable_port_vlan(data->imlPortName, data->vlanId));
}

// Asks for what the new link data has more, and takes back what it has less, than the link's.
void send_difference(iml_link_proc *proc, const IemliLinkData *old_data)
{
    EmiEndpoint *removed = nullptr;
    EmiEndpoint *added = nullptr;
    uint32_t removed_count = 0;
    uint32_t added_count = 0;
    build_new_app_link_acl_rules(old_data, proc->link_data, &removed, &removed_count);
    build_new_app_link_acl_rules(proc->link_data, old_data, &added, &added_count);
    if (removed_count > 0) {
        link_proc_step_sent(proc, PROC_STEP_EMI_DEL, emi_remove_endpoint(removed, removed_count));
    }
    if (added_count > 0) {
        link_proc_step_sent(proc, PROC_STEP_EMI_ADD, emi_add_endpoint(added, added_count));
    }
    free(removed);
    free(added);
}

// The ports are unknown only when port control is lost. Then the sessions stay, as all that was set up below does.
void stop_sessions_of_deleted(const eth_port *port, iml_link *link)
{
    if (port == nullptr) {
        return;
    }
    if (port->oper_state == ETH_PORT_OPERATIONAL) {
        stop_link_sessions(*port, link);
    }
    end_sessions_of_deleted_link(link);
}

// The EMCA MACs that remain in use on the port, under the port's interface name. They are collected only where they go
// somewhere: a session may end with thousands of links on ports that are unknown or locked.
void reprogram_emca_of_deleted(const eth_port *port, const iml_link *link)
{
    if (port == nullptr || port->adm_state != ETH_PORT_UNLOCKED) {
        return;
    }
    uint32_t count = 0;
    mac_address *macs = collect_emca_macs_for_port(&count, link->link_data->imlPortName);
    if (!fmi_set_emca_acl_rule(port->if_name, macs, count)) {
        VORN_TRACE(TRACE_WARNING, "WARNING: Set emca acl rule on port (%s) for %u new emcas failed.", port->if_name,
                   count);
    }
    free(macs);
}

// Takes the link out of the table and out of its port.
void take_link_out(iml_link *link)
{
    eth_port record;
    const bool known = iepcsi_fetch_port_data(link->port->iepcsi, &record);
    const eth_port *port = known ? &record : nullptr;
    stop_sessions_of_deleted(port, link);
    iml_link_remove(link);
    reprogram_emca_of_deleted(port, link);
    const mac_address &far = link->link_data->farEndCpmMac;
    VORN_TRACE(TRACE_LINK, "Removed iml link with ref %u on port %s with remote cpm mac: %02X:%02X:%02X:%02X:%02X:%02X",
               link->link_ref, link->link_data->imlPortName, MAC_ARGS(far));
}

// The procedure that takes the link's VLAN and endpoints back; null when memory is out.
iml_link_proc *start_delete(IemliLinkData **data)
{
    iml_link_proc *proc = link_proc_alloc();
    EmiEndpoint *endpoints = nullptr;
    const uint32_t count = proc != nullptr ? build_link_acl_rules(*data, &endpoints) : 0;
    if (count == 0) {
        VORN_TRACE(TRACE_ERROR, "Memory error");
        link_proc_free(proc);
        return nullptr;
    }
    proc->link_data = *data;
    *data = nullptr;
    if (!is_tn_port(iemli_to_iepcsi_port_name(proc->link_data->imlPortName))) {
        link_proc_disable_vlan(proc);
    }
    link_proc_step_sent(proc, PROC_STEP_EMI_DEL, emi_remove_endpoint(endpoints, count));
    free(endpoints);
    return proc;
}

link_answer perform(iml_link_proc *proc, proc_action action)
{
    switch (action) {
    case PROC_WAIT:
    case PROC_CLOSE:
        break;
    case PROC_FINISH_CREATE:
        return link_proc_finish_create(proc);
    case PROC_UNWIND_CREATE:
        return link_proc_unwind_create(proc);
    case PROC_FINISH_UPDATE:
        return link_proc_finish_update(proc);
    case PROC_UNWIND_UPDATE:
        return link_proc_unwind_update(proc);
    case PROC_CONFIRM_DELETE:
        return link_confirmed(proc->request->link_ref);
    case PROC_UNKNOWN_REQUEST:
        VORN_TRACE(TRACE_ERROR, "Unknown req %u. Can't handle that.", proc->request->action);
        break;
    }
    return LINK_NO_ANSWER_YET;
}

// Does what comes next. An answer takes the request out of the procedure.
link_answer evaluate(iml_link_proc *proc, IemliPendingRequest **request)
{
    const link_answer answer = perform(proc, proc_next_action(proc->request, link_proc_overall_state(proc)));
    if (answer.kind != LINK_WAITS) {
        *request = proc->request;
        proc->request = nullptr;
    }
    return answer;
}

void close_when_done(iml_link_proc *proc)
{
    if (link_proc_overall_state(proc) != PROC_STEP_ONGOING) {
        link_proc_close(proc);
    }
}

// The link may be gone when its owner has heard of it: only what was copied before is told.
void tell_create(const iml_link *link, IemliPendingRequest **request)
{
    const uint32_t owner = link->connection_ref;
    const uint32_t link_ref = link->link_ref;
    const iml_link_status status = link->status;
    const iml_link_disabled_reason disabled_reason = link->disabled_reason;
    links_report()->confirmed(link_ref, request);
    link_tell_status(owner, link_ref, status, disabled_reason);
}

void tell_delete(uint32_t link_ref, const IemliLinkData *data, IemliPendingRequest **request)
{
    links_report()->confirmed(link_ref, request);
    if (data == nullptr) {
        VORN_TRACE(TRACE_WARNING, "WARNING: Vorn path cannot be deleted for non existing iml");
    } else {
        iml_link_delete_path(link_ref, data);
    }
}

void tell(const iml_link_proc *proc, const link_answer &answer, IemliPendingRequest **request)
{
    if (answer.kind == LINK_REJECTED) {
        links_report()->rejected(answer.reason, request);
    } else if ((*request)->action == IEMLI_PENDING_CREATE) {
        tell_create(iml_link_look_up(answer.link_ref), request);
    } else if ((*request)->action == IEMLI_PENDING_DELETE) {
        tell_delete(answer.link_ref, proc->link_data, request);
    } else {
        links_report()->confirmed(answer.link_ref, request);
    }
}

} // namespace

void link_proc_evaluate(iml_link_proc *proc)
{
    IemliPendingRequest *request = nullptr;
    const link_answer answer = evaluate(proc, &request);
    if (answer.kind != LINK_WAITS) {
        tell(proc, answer, &request);
    }
    close_when_done(proc);
}

link_answer iml_link_create(const IemliLinkData *data, IemliPendingRequest **request)
{
    iml_link_proc *proc = link_proc_alloc();
    EmiEndpoint *endpoints = nullptr;
    uint32_t count = 0;
    if (proc != nullptr) {
        proc->link_data = iml_link_data_copy(data, data->numberOfAppLinks);
        count = proc->link_data != nullptr ? build_link_acl_rules(data, &endpoints) : 0;
    }
    if (count == 0) {
        link_proc_free(proc);
        return link_proc_out_of_memory();
    }
    if (!is_tn_port(data->imlPortName)) {
        send_enable_vlan(proc);
    }
    link_proc_step_sent(proc, PROC_STEP_EMI_ADD, emi_add_endpoint(endpoints, count));
    free(endpoints);
    take_request(proc, request);
    link_proc_open(proc);
    return LINK_NO_ANSWER_YET;
}

link_answer iml_link_update(IemliPendingRequest **request, uint32_t number_of_app_links, const IemliAppLink *app_links)
{
    iml_link_proc *proc = link_proc_alloc();
    if (proc == nullptr) {
        return link_proc_out_of_memory();
    }
    const uint32_t link_ref = (*request)->link_ref;
    const iml_link *link = iml_link_find_owned(link_ref, (*request)->server_conn_ref);
    if (link == nullptr) {
        VORN_TRACE(TRACE_WARNING, "WARNING:update received for non-existing IML link, link_ref=%u", link_ref);
        link_proc_free(proc);
        return link_rejected(IEMLI_REJ_UNKNOWN_LINK_REF);
    }
    proc->link_data = iml_link_data_copy(link->link_data, number_of_app_links);
    if (proc->link_data == nullptr) {
        link_proc_free(proc);
        return link_proc_out_of_memory();
    }
    memcpy(iemli_app_links(proc->link_data), app_links, number_of_app_links * sizeof(IemliAppLink));
    send_difference(proc, link->link_data);
    take_request(proc, request);
    link_proc_open(proc);
    link_proc_trace_update(link);
    const link_answer answer = evaluate(proc, request); // waits, but for an update that had nothing to ask for
    close_when_done(proc);
    return answer;
}

bool iml_link_delete(uint32_t link_ref, uint32_t connection_ref, IemliPendingRequest **request)
{
    iml_link *link = iml_link_look_up(link_ref);
    if (link == nullptr) {
        VORN_TRACE(TRACE_LINK, "Conn_ref %u tried to delete link with ref %u that doesn't exist anymore.",
                   connection_ref, link_ref);
        return false;
    }
    if (link->connection_ref != connection_ref) {
        VORN_TRACE(TRACE_LINK, "Conn_ref %u tried to delete link with ref %u that belongs to conn ref %u",
                   connection_ref, link_ref, link->connection_ref);
        return false;
    }
    take_link_out(link);
    iml_link_proc *proc = start_delete(&link->link_data);
    iml_link_free(link);
    if (proc == nullptr) {
        return false;
    }
    take_request(proc, request);
    link_proc_open(proc);
    return true;
}

void iml_link_delete_all_of_connection(uint32_t connection_ref)
{
    // A delete without a request answers nobody, so that nothing but the link in hand is freed meanwhile.
    iml_link *next = nullptr;
    for (iml_link *link = iml_link_first(); link != nullptr; link = next) {
        next = link->next;
        if (link->connection_ref == connection_ref) {
            iml_link_delete(link->link_ref, connection_ref, nullptr);
        }
    }
}
