// Opens link procedures and decides what comes next for each. A procedure remembers one request until every lower-layer
// step has answered; there is no time-out, so one that is never answered stays open for ever. The checks on a request
// were made before it came here.
#include "link_procedures.hpp"

#include <cstdlib>

#include "clients/emi_client.hpp"
#include "clients/fmi_client.hpp"
#include "clients/iepcsi_client.hpp"
#include "clients/pmi_client.hpp"
#include "link_procedure.hpp"
#include "link_supervision.hpp"
#include "link_table.hpp"
#include "port_mapping.hpp"
#include "port_rules.hpp"
#include "vorn_trace.hpp"

namespace
{

iml_link_proc *newest_proc;
uint32_t proc_count;
uint64_t procs_opened;
ref_index procs_by_ref[PROC_STEP_KINDS];

void close_proc(iml_link_proc *proc)
{
    (proc->prev != nullptr ? proc->prev->next : newest_proc) = proc->next;
    if (proc->next != nullptr) {
        proc->next->prev = proc->prev;
    }
    --proc_count;
    link_proc_free(proc);
}

void take_request(iml_link_proc *proc, IemliPendingRequest **request)
{
    if (request != nullptr) {
        proc->request = *request;
        *request = nullptr;
    }
}

void reject_out_of_memory(IemliPendingRequest **request)
{
    VORN_TRACE(TRACE_ERROR, "Memory error");
    links_report()->rejected(IEMLI_REJ_OTHER_REASON, request);
}

void trace_update(const iml_link *link)
{
    const mac_address &far = link->link_data->farEndCpmMac;
    VORN_TRACE(TRACE_LINK, "Updated iml link with ref %u on port %s with remote cpm mac: %02X:%02X:%02X:%02X:%02X:%02X",
               link->link_ref, link->link_data->imlPortName, MAC_ARGS(far));
}

void send_enable_vlan(iml_link_proc *proc)
{
    const IemliLinkData *data = proc->link_data;
    link_proc_step_sent(proc, PROC_STEP_PMI, pmi_enable_port_vlan(data->imlPortName, data->vlanId));
}

void send_disable_vlan(iml_link_proc *proc)
{
    const IemliLinkData *data = proc->link_data;
    link_proc_step_sent(proc, PROC_STEP_PMI, pmi_disable_port_vlan(data->imlPortName, data->vlanId));
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
    const bool known = iepcsi_fetch_port_data(iemli_to_iepcsi_port_name(link->link_data->imlPortName), &record);
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
        send_disable_vlan(proc);
    }
    link_proc_step_sent(proc, PROC_STEP_EMI_DEL, emi_remove_endpoint(endpoints, count));
    free(endpoints);
    return proc;
}

void perform(iml_link_proc *proc, proc_action action)
{
    switch (action) {
    case PROC_WAIT:
    case PROC_CLOSE:
        break;
    case PROC_FINISH_CREATE:
        link_proc_finish_create(proc);
        break;
    case PROC_UNWIND_CREATE:
        link_proc_unwind_create(proc);
        break;
    case PROC_FINISH_UPDATE:
        link_proc_finish_update(proc);
        break;
    case PROC_UNWIND_UPDATE:
        link_proc_unwind_update(proc);
        break;
    case PROC_CONFIRM_DELETE:
        link_proc_confirm_delete(proc);
        break;
    case PROC_UNKNOWN_REQUEST:
        VORN_TRACE(TRACE_ERROR, "Unknown req %u. Can't handle that.", proc->request->action);
        break;
    }
}

proc_step_state overall_of(const iml_link_proc *proc)
{
    return proc_overall_state(proc->steps[PROC_STEP_PMI].state, proc->steps[PROC_STEP_EMI_ADD].state,
                              proc->steps[PROC_STEP_EMI_DEL].state);
}

} // namespace

proc_step_state proc_overall_state(uint32_t pmi, uint32_t emi_add, uint32_t emi_del)
{
    if (pmi == PROC_STEP_ONGOING || emi_add == PROC_STEP_ONGOING || emi_del == PROC_STEP_ONGOING) {
        return PROC_STEP_ONGOING;
    }
    if (pmi == PROC_STEP_FAILED || emi_add == PROC_STEP_FAILED || emi_del == PROC_STEP_FAILED) {
        return PROC_STEP_FAILED;
    }
    return PROC_STEP_OK;
}

proc_action proc_next_action(bool has_request, uint32_t pending_action, proc_step_state overall)
{
    if (overall == PROC_STEP_ONGOING) {
        return PROC_WAIT;
    }
    if (!has_request) {
        return PROC_CLOSE;
    }
    switch (pending_action) {
    case IEMLI_PENDING_CREATE:
        return overall == PROC_STEP_OK ? PROC_FINISH_CREATE : PROC_UNWIND_CREATE;
    case IEMLI_PENDING_UPDATE:
        return overall == PROC_STEP_OK ? PROC_FINISH_UPDATE : PROC_UNWIND_UPDATE;
    case IEMLI_PENDING_DELETE:
        return PROC_CONFIRM_DELETE;
    default:
        return PROC_UNKNOWN_REQUEST;
    }
}

iml_link_proc *link_proc_alloc() { return static_cast<iml_link_proc *>(calloc(1, sizeof(iml_link_proc))); }

void link_proc_free(iml_link_proc *proc)
{
    if (proc == nullptr) {
        return;
    }
    for (uint32_t kind = 0; kind < PROC_STEP_KINDS; ++kind) {
        ref_index_remove(&procs_by_ref[kind], &proc->steps[kind].by_ref);
    }
    free(proc->request);
    free(proc->link_data);
    free(proc);
}

void link_proc_open(iml_link_proc *proc)
{
    proc->age = ++procs_opened;
    proc->next = newest_proc;
    if (newest_proc != nullptr) {
        newest_proc->prev = proc;
    }
    newest_proc = proc;
    ++proc_count;
}

const iml_link_proc *link_proc_newest() { return newest_proc; }

iml_link_proc *link_proc_find(proc_step_kind kind, uint32_t procedure_ref)
{
    iml_link_proc *found = nullptr;
    for (const ref_index_node *node = ref_index_first(&procs_by_ref[kind], procedure_ref); node != nullptr;
         node = ref_index_next(node)) {
        auto *proc = static_cast<iml_link_proc *>(node->owner);
        if (found == nullptr || proc->age > found->age) {
            found = proc;
        }
    }
    return found;
}

void link_proc_step_sent(iml_link_proc *proc, proc_step_kind kind, uint32_t procedure_ref)
{
    proc_step *step = &proc->steps[kind];
    step->procedure_ref = procedure_ref;
    step->state = PROC_STEP_ONGOING;
    ref_index_remove(&procs_by_ref[kind], &step->by_ref);
    if (procedure_ref != 0) {
        ref_index_insert(&procs_by_ref[kind], &step->by_ref, procedure_ref, proc);
    }
}

void link_proc_evaluate(iml_link_proc *proc)
{
    const proc_action action = proc_next_action(proc->request != nullptr,
                                                proc->request != nullptr ? proc->request->action : 0, overall_of(proc));
    perform(proc, action);
    if (overall_of(proc) != PROC_STEP_ONGOING) {
        close_proc(proc);
    }
}

void iml_link_create(const IemliLinkData *data, IemliPendingRequest **request)
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
        reject_out_of_memory(request);
        return;
    }
    if (!is_tn_port(data->imlPortName)) {
        send_enable_vlan(proc);
    }
    link_proc_step_sent(proc, PROC_STEP_EMI_ADD, emi_add_endpoint(endpoints, count));
    free(endpoints);
    take_request(proc, request);
    link_proc_open(proc);
}

void iml_link_update(IemliPendingRequest **request, uint32_t number_of_app_links, const IemliAppLink *app_links)
{
    iml_link_proc *proc = link_proc_alloc();
    if (proc == nullptr) {
        reject_out_of_memory(request);
        return;
    }
    const uint32_t link_ref = (*request)->link_ref;
    const iml_link *link = iml_link_find_owned(link_ref, (*request)->server_conn_ref);
    if (link == nullptr) {
        VORN_TRACE(TRACE_WARNING, "WARNING:update received for non-existing IML link, link_ref=%u", link_ref);
        link_proc_free(proc);
        links_report()->rejected(IEMLI_REJ_UNKNOWN_LINK_REF, request);
        return;
    }
    proc->link_data = iml_link_data_copy(link->link_data, number_of_app_links);
    if (proc->link_data == nullptr) {
        link_proc_free(proc);
        reject_out_of_memory(request);
        return;
    }
    memcpy(iemli_app_links(proc->link_data), app_links, number_of_app_links * sizeof(IemliAppLink));
    send_difference(proc, link->link_data);
    take_request(proc, request);
    link_proc_open(proc);
    trace_update(link);
    link_proc_evaluate(proc); // waits, but for an update that had nothing to ask for
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

uint32_t link_procedure_count() { return proc_count; }

void link_procedures_forget_all()
{
    while (newest_proc != nullptr) {
        close_proc(newest_proc);
    }
    for (ref_index &index : procs_by_ref) {
        ref_index_clear(&index);
    }
}
