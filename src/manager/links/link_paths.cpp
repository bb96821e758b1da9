// Tells the automation agent of the links: see link_paths.hpp.
#include "link_paths.hpp"

#include "base/daemon_state.hpp"
#include "clients/aasi_client.hpp"
#include "manager/ports/port_macs.hpp"
#include "manager/table/link_table.hpp"
#include "vorn_trace.hpp"

namespace
{

// With zeros when the port's own MAC is not to be had.
aasi_path path_of(uint32_t link_ref, const IemliLinkData *data)
{
    aasi_path path = {link_ref, {}, data};
    uint32_t reason = 0;
    if (!fetch_local_supervision_mac(data->imlPortName, &path.near_end_cpm_mac, &reason)) {
        VORN_TRACE(TRACE_ERROR, "Could not fetch near end cpm mac, reason: %u", reason);
    }
    return path;
}

} // namespace

void iml_link_create_path(uint32_t link_ref)
{
    if (!is_aasi_service_up()) {
        return;
    }
    const iml_link *link = iml_link_look_up(link_ref);
    if (link == nullptr) {
        VORN_TRACE(TRACE_WARNING, "WARNING:vorn path cannot be created for non-existing IML link, link_ref=%u",
                   link_ref);
        return;
    }
    aasi_send_path_create(path_of(link_ref, link->link_data));
}

void iml_link_update_path(uint32_t link_ref)
{
    if (!is_aasi_service_up()) {
        return;
    }
    const iml_link *link = iml_link_look_up(link_ref);
    if (link == nullptr) {
        VORN_TRACE(TRACE_WARNING, "WARNING:vorn path cannot be updated for non-existing IML link, link_ref=%u",
                   link_ref);
        return;
    }
    aasi_send_path_update(path_of(link_ref, link->link_data));
}

void iml_link_delete_path(uint32_t link_ref, const IemliLinkData *data)
{
    if (is_aasi_service_up()) {
        aasi_send_path_delete(path_of(link_ref, data));
    }
}

void iml_link_create_all_paths()
{
    for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
        aasi_send_path_create(path_of(link->link_ref, link->link_data));
    }
}

void iml_link_path_info(uint32_t link_ref, uint32_t min_latency, uint32_t max_latency, uint32_t avg_latency,
                        iml_link_status status)
{
    if (is_aasi_service_up()) {
        aasi_send_path_info(link_ref, min_latency, max_latency, avg_latency, status);
    }
}
