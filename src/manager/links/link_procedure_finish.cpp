// What a link procedure does once its steps have answered: make, change or let go the link, or take back what had
// succeeded.
#include "link_procedure_finish.hpp"

#include <cstdlib>
#include <cstring>

#include "clients/emi_client.hpp"
#include "clients/iepcsi_client.hpp"
#include "clients/pmi_client.hpp"
#include "link_supervision.hpp"
#include "manager/ports/port_mapping.hpp"
#include "manager/rules/port_rules.hpp"
#include "manager/table/link_table.hpp"
#include "vorn_trace.hpp"

namespace
{

proc_step_state step_state(const iml_link_proc *proc, proc_step_kind kind) { return proc->steps[kind].state; }

iml_link *requested_link(const iml_link_proc *proc)
{
    return iml_link_find_owned(proc->request->link_ref, proc->request->server_conn_ref);
}

// ---- Create ----

// A link with its own copy of the procedure's parameters; null when memory is out.
iml_link *alloc_link(const iml_link_proc *proc)
{
    IemliLinkData *data = iml_link_data_copy(proc->link_data, proc->link_data->numberOfAppLinks);
    iml_link *link = data != nullptr ? iml_link_alloc(data) : nullptr;
    if (link == nullptr) {
        free(data);
        return nullptr;
    }
    link->connection_ref = proc->request->server_conn_ref;
    return link;
}

// Gives the link its first status and, where the port is not down, its sessions. False when supervision does not start.
bool bring_up_link(const eth_port &port, iml_link *link)
{
    if (port.oper_state == 0) {
        iml_link_write_status(link, IML_LINK_DISABLED, IML_LINK_REASON_DOWN);
        return true;
    }
    iml_link_write_status(link, IML_LINK_DISABLED, IML_LINK_REASON_NO_CONNECTIVITY);
    link_place place;
    if (!find_link_place(port, link, &place)) {
        return true;
    }
    if (!start_supervision_at(place, port, link)) {
        return false;
    }
    start_keep_alive(place.if_name, link, place.name_space);
    return true;
}

void enter_link(const eth_port &port, iml_link *link)
{
    iml_link_insert(link);
    if (port.adm_state == ETH_PORT_UNLOCKED) {
        set_emca_acl_rule_on_port(link->link_data->imlPortName);
    }
    const mac_address &far = link->link_data->farEndCpmMac;
    VORN_TRACE(TRACE_LINK,
               "Created iml link with ref %u, supervision session id: %u, on port %s with remote cpm mac: "
               "%02X:%02X:%02X:%02X:%02X:%02X, status=0x%x, disabled_reason=0x%x",
               link->link_ref, link->supervision_session_id, link->link_data->imlPortName, MAC_ARGS(far), link->status,
               link->disabled_reason);
}

void take_back_added_endpoints(iml_link_proc *proc)
{
    EmiEndpoint *endpoints = nullptr;
    const uint32_t count = build_link_acl_rules(proc->link_data, &endpoints);
    if (count == 0) {
        VORN_TRACE(TRACE_ERROR, "Memory error");
        return;
    }
    link_proc_step_sent(proc, PROC_STEP_EMI_DEL, emi_remove_endpoint(endpoints, count));
    proc->steps[PROC_STEP_EMI_ADD].state = PROC_STEP_IDLE;
    free(endpoints);
}

// ---- Update ----

// Puts the new app links in place of the old ones, with their sessions and rules where the port carries links. Nothing
// else of the procedure's parameters is taken over.
void exchange_app_links(const eth_port &port, iml_link *link, const IemliLinkData *data, app_link_room *room)
{
    link_place place;
    const bool unlocked = port.adm_state == ETH_PORT_UNLOCKED;
    const bool watched = unlocked && port.oper_state == ETH_PORT_OPERATIONAL && find_link_place(port, link, &place);
    if (watched) {
        stop_keep_alive(link, place.name_space);
    }
    iml_link_store_app_links(link, data, room);
    if (unlocked) {
        set_emca_acl_rule_on_port(link->link_data->imlPortName);
    }
    if (watched) {
        start_keep_alive(place.if_name, link, place.name_space);
    }
}

// Takes the endpoints of an update back that had succeeded: first those just added, else those just removed.
void send_difference_back(iml_link_proc *proc, const IemliLinkData *old_data)
{
    EmiEndpoint *endpoints = nullptr;
    uint32_t count = 0;
    if (step_state(proc, PROC_STEP_EMI_ADD) == PROC_STEP_OK) {
        build_new_app_link_acl_rules(proc->link_data, old_data, &endpoints, &count);
        if (count > 0) {
            link_proc_step_sent(proc, PROC_STEP_EMI_DEL, emi_remove_endpoint(endpoints, count));
        }
    } else if (step_state(proc, PROC_STEP_EMI_DEL) == PROC_STEP_OK) {
        build_new_app_link_acl_rules(old_data, proc->link_data, &endpoints, &count);
        if (count > 0) {
            link_proc_step_sent(proc, PROC_STEP_EMI_ADD, emi_add_endpoint(endpoints, count));
        }
    }
    free(endpoints);
}

} // namespace

link_answer link_proc_out_of_memory()
{
    VORN_TRACE(TRACE_ERROR, "Memory error");
    return link_rejected(IEMLI_REJ_OTHER_REASON);
}

void link_proc_trace_update(const iml_link *link)
{
    VORN_TRACE(TRACE_LINK, "Updated iml link with ref %u on port %s with remote cpm mac: %02X:%02X:%02X:%02X:%02X:%02X",
               link->link_ref, link->link_data->imlPortName, MAC_ARGS(link->link_data->farEndCpmMac));
}

void link_proc_disable_vlan(iml_link_proc *proc)
{
    const IemliLinkData *data = proc->link_data;
    link_proc_step_sent(proc, PROC_STEP_PMI, pmi_disable_port_vlan(data->imlPortName, data->vlanId));
}

link_answer link_proc_finish_create(iml_link_proc *proc)
{
    iml_link *link = alloc_link(proc);
    if (link == nullptr) {
        return link_proc_out_of_memory();
    }
    eth_port port;
    if (!iepcsi_fetch_port_data(link->port->iepcsi, &port)) {
        VORN_TRACE(TRACE_LINK, "Failed to fetch port data.");
        iml_link_free(link);
        return link_rejected(IEMLI_REJ_UNKNOWN_PORT_NAME);
    }
    if (!bring_up_link(port, link)) {
        iml_link_free(link);
        return link_rejected(IEMLI_REJ_OTHER_REASON);
    }
    enter_link(port, link);
    return link_confirmed(link->link_ref);
}

link_answer link_proc_unwind_create(iml_link_proc *proc)
{
    const IemliLinkData *data = proc->link_data;
    VORN_TRACE(TRACE_WARNING,
               "WARNING: Something went wrong with create iml link req(port %s with remote cpm mac: "
               "%02X:%02X:%02X:%02X:%02X:%02X) pmi.state = %u, emi_add.state = %u, emi_del.state = %u",
               data->imlPortName, MAC_ARGS(data->farEndCpmMac), step_state(proc, PROC_STEP_PMI),
               step_state(proc, PROC_STEP_EMI_ADD), step_state(proc, PROC_STEP_EMI_DEL));
    if (step_state(proc, PROC_STEP_PMI) == PROC_STEP_OK) {
        link_proc_disable_vlan(proc);
    }
    if (step_state(proc, PROC_STEP_EMI_ADD) == PROC_STEP_OK) {
        take_back_added_endpoints(proc);
    }
    return link_rejected(IEMLI_REJ_OTHER_REASON);
}

link_answer link_proc_finish_update(iml_link_proc *proc)
{
    const uint32_t link_ref = proc->request->link_ref;
    iml_link *link = requested_link(proc);
    if (link == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Update finished for non-existing IML link, link_ref=%u", link_ref);
        return link_rejected(IEMLI_REJ_UNKNOWN_LINK_REF);
    }
    app_link_room room;
    if (!iml_link_make_room(link, proc->link_data->numberOfAppLinks, &room)) {
        return link_proc_out_of_memory();
    }
    eth_port port;
    if (!iepcsi_fetch_port_data(link->port->iepcsi, &port)) {
        VORN_TRACE(TRACE_ERROR, "Failed to fetch port data. App supervision not stoped.");
        app_link_room_free(&room);
        return link_rejected(IEMLI_REJ_OTHER_REASON);
    }
    exchange_app_links(port, link, proc->link_data, &room);
    link_proc_trace_update(link);
    return link_confirmed(link_ref);
}

link_answer link_proc_unwind_update(iml_link_proc *proc)
{
    const uint32_t link_ref = proc->request->link_ref;
    VORN_TRACE(TRACE_WARNING,
               "WARNING: Something went wrong with update iml link req(port %s with remote cpm mac: "
               "%02X:%02X:%02X:%02X:%02X:%02X) pmi.state = %u, emi_add.state = %u, emi_del.state = %u, link_ref = %u",
               proc->link_data->imlPortName, MAC_ARGS(proc->link_data->farEndCpmMac), step_state(proc, PROC_STEP_PMI),
               step_state(proc, PROC_STEP_EMI_ADD), step_state(proc, PROC_STEP_EMI_DEL), link_ref);
    const iml_link *link = requested_link(proc);
    if (link == nullptr) {
        VORN_TRACE(TRACE_WARNING, "WARNING: unsuccessful update received for non-existing IML link, link_ref=%u",
                   link_ref);
        return link_rejected(IEMLI_REJ_UNKNOWN_LINK_REF);
    }
    send_difference_back(proc, link->link_data);
    return link_rejected(IEMLI_REJ_OTHER_REASON);
}
