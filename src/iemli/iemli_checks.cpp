// The rules for links and RTT settings, one condition per `if`, in the order in which they are laid down.
#include "iemli_checks.hpp"

#include <cstdlib>
#include <cstring>

#include "base/app_link_index.hpp"
#include "manager/ports/port_macs.hpp"
#include "manager/ports/port_mapping.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr uint8_t MAX_MP_ID = 63;
constexpr uint16_t MAX_VLAN_ID = 4094;
constexpr uint32_t RTT_PERIOD = 60; // seconds; a whole number of batches fits in

bool is_same_link(const IemliLinkData *a, const IemliLinkData *b)
{
    return a->vlanId == b->vlanId && a->nearEndMpId == b->nearEndMpId &&
           port_name_equal(a->imlPortName, b->imlPortName) && mac_equal(a->farEndCpmMac, b->farEndCpmMac);
}

// Links of one VLAN on two ports would reach the same far end twice.
bool is_same_vlan_on_other_port(const IemliLinkData *a, const IemliLinkData *b)
{
    return a->vlanId == b->vlanId && !port_name_equal(a->imlPortName, b->imlPortName);
}

// `requested`: the app links of the link that is asked for.
bool shares_far_end_app(const app_link_index &requested, const IemliLinkData *existing)
{
    for (uint32_t i = 0; i < existing->numberOfAppLinks; ++i) {
        if (app_link_index_has_far_end(requested, iemli_app_links(existing)[i].farEndAppMac)) {
            return true;
        }
    }
    return false;
}

uint32_t check_against_link(const IemliLinkData *link, const app_link_index &app_links, const IemliLinkData *existing)
{
    if (is_same_link(link, existing)) {
        return IEMLI_REJ_LINK_ALREADY_CREATED;
    }
    if (!is_same_vlan_on_other_port(link, existing)) {
        return IEMLI_NO_REJECT;
    }
    if (shares_far_end_app(app_links, existing)) {
        return IEMLI_REJ_APP_LINK_ALREADY_USED;
    }
    if (mac_equal(link->farEndCpmMac, existing->farEndCpmMac)) {
        return IEMLI_REJ_OTHER_REASON;
    }
    return IEMLI_NO_REJECT;
}

const iml_link *first_in_table(const iml_link *a, const iml_link *b)
{
    if (a == nullptr || b == nullptr) {
        return a != nullptr ? a : b;
    }
    return a->link_ref <= b->link_ref ? a : b;
}

// The first link of the VLAN on another port that has one of these far-end app MACs.
const iml_link *first_sharing_far_end_app(const IemliLinkData *link, const app_link_index &app_links)
{
    const port_names &port = port_of_iemli_name(link->imlPortName);
    const iml_link *found = nullptr;
    for (uint32_t i = 0; i < app_links.count; ++i) {
        const mac_address &far_end = app_links.app_links[i].farEndAppMac;
        found = first_in_table(found, iml_link_with_far_end_app_elsewhere(link->vlanId, far_end, port));
    }
    return found;
}

// The first link to the same far end that stands in the way. Those that do not are on the same port, with other MP ids.
const iml_link *first_to_same_far_end(const IemliLinkData *link, const app_link_index &app_links)
{
    const iml_link *existing = iml_link_first_to_far_end(link->vlanId, link->farEndCpmMac);
    while (existing != nullptr && check_against_link(link, app_links, existing->link_data) == IEMLI_NO_REJECT) {
        existing = iml_link_next_to_far_end(existing);
    }
    return existing;
}

// The first link of the table that stands in the way decides; such a link shares the far end or an app link's.
uint32_t check_against_links(const IemliLinkData *link, const app_link_index &app_links)
{
    const iml_link *existing =
        first_in_table(first_to_same_far_end(link, app_links), first_sharing_far_end_app(link, app_links));
    return existing != nullptr ? check_against_link(link, app_links, existing->link_data) : IEMLI_NO_REJECT;
}

uint32_t check_app_link(const mac_address &far_end_cpm, const IemliAppLink &app_link)
{
    if (mac_equal(app_link.farEndAppMac, far_end_cpm) || mac_equal(app_link.nearEndAppMac, far_end_cpm)) {
        return IEMLI_REJ_SAME_CPM_APP_MAC;
    }
    if (mac_equal(app_link.nearEndAppMac, app_link.farEndAppMac)) {
        return IEMLI_REJ_SAME_SRC_DST_APP_MAC;
    }
    return IEMLI_NO_REJECT;
}

// App links are checked in order, each for its own MACs and then for whether it occurs again further on. So the first
// one with wrong MACs decides, unless one before it is repeated.
uint32_t check_app_links(const mac_address &far_end_cpm, const app_link_index &app_links)
{
    uint32_t reason = IEMLI_NO_REJECT;
    uint32_t sound = 0;
    for (; sound < app_links.count; ++sound) {
        reason = check_app_link(far_end_cpm, app_links.app_links[sound]);
        if (reason != IEMLI_NO_REJECT) {
            break;
        }
    }
    return app_link_index_repeats(app_links, sound) ? IEMLI_REJ_DUPLICATE_APP_LINKS : reason;
}

// What a create asks for, held against the links that exist, in itself and against the ports.
uint32_t check_link(const IemliLinkData *link, const app_link_index &app_links)
{
    uint32_t reason = check_against_links(link, app_links);
    if (reason != IEMLI_NO_REJECT) {
        return reason;
    }
    reason = check_app_links(link->farEndCpmMac, app_links);
    if (reason != IEMLI_NO_REJECT) {
        return reason;
    }
    if (!is_known_port(port_of_iemli_name(iemli_port_name_of(link).text))) {
        return IEMLI_REJ_UNKNOWN_PORT_NAME;
    }
    return IEMLI_NO_REJECT;
}

// As many app links as now, and every one of now is among them, in whatever order.
bool changes_nothing(const IemliLinkData *link, const app_link_index &app_links)
{
    if (app_links.count != link->numberOfAppLinks) {
        return false;
    }
    for (uint32_t i = 0; i < link->numberOfAppLinks; ++i) {
        if (!app_link_index_has(app_links, iemli_app_links(link)[i])) {
            return false;
        }
    }
    return true;
}

// The link as it would be with the new app links, held against all others; its own are on the port that is left out.
uint32_t check_candidate(const iml_link *link, const app_link_index &app_links)
{
    IemliLinkData *candidate = iml_link_data_copy(link->link_data, app_links.count);
    if (candidate == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Memory allocation failed");
        return IEMLI_REJ_OTHER_REASON;
    }
    memcpy(iemli_app_links(candidate), app_links.app_links, app_links.count * sizeof(IemliAppLink));
    const bool collides = first_sharing_far_end_app(candidate, app_links) != nullptr;
    free(candidate);
    return collides ? IEMLI_REJ_APP_LINK_ALREADY_USED : IEMLI_NO_REJECT;
}

uint32_t check_new_app_links(const iml_link *link, const app_link_index &app_links)
{
    if (changes_nothing(link->link_data, app_links)) {
        return IEMLI_REJ_LINK_DATA_NO_CHANGE;
    }
    const uint32_t reason = check_app_links(link->link_data->farEndCpmMac, app_links);
    if (reason != IEMLI_NO_REJECT) {
        return reason;
    }
    return check_candidate(link, app_links);
}

bool rtt_settings_valid(const rtt_settings &settings)
{
    if (settings.batchSize < 2 || settings.batchSize > 60) {
        return false;
    }
    if (settings.measureInterval == 0 || settings.measureInterval > 30) {
        return false;
    }
    if (settings.frameSize < 64 || settings.frameSize > 1500) {
        return false;
    }
    const uint32_t batch_duration = uint32_t{settings.batchSize} * settings.measureInterval;
    return batch_duration <= RTT_PERIOD && RTT_PERIOD % batch_duration == 0;
}

} // namespace

iemli_port_name iemli_port_name_of(const IemliLinkData *link)
{
    iemli_port_name name = {};
    memcpy(name.text, link->imlPortName, strnlen(link->imlPortName, PORT_NAME_LEN));
    return name;
}

uint32_t iemli_check_create(const IemliLinkData *link)
{
    if (link->nearEndMpId == 0 || link->nearEndMpId > MAX_MP_ID) {
        return IEMLI_REJ_MP_ID_NOT_READY;
    }
    if (link->vlanId == 0 || link->vlanId > MAX_VLAN_ID) {
        return IEMLI_REJ_INVALID_VLAN_ID;
    }
    uint32_t not_checked = 0; // a manager that cannot tell does not refuse
    if (check_mac(link->farEndCpmMac, &not_checked)) {
        return IEMLI_REJ_REMOTE_CPM_MAC_CONFLICT;
    }
    app_link_index app_links = app_link_index_build(iemli_app_links(link), link->numberOfAppLinks);
    const uint32_t reason = check_link(link, app_links);
    app_link_index_free(&app_links);
    return reason;
}

uint32_t iemli_check_update(const iml_link *link, uint32_t count, const IemliAppLink *app_links)
{
    app_link_index index = app_link_index_build(app_links, count);
    const uint32_t reason = check_new_app_links(link, index);
    app_link_index_free(&index);
    return reason;
}

uint32_t iemli_check_enable_rtt(const iml_link *link, uint32_t server_conn_ref, const rtt_settings &settings)
{
    if (link == nullptr || link->connection_ref != server_conn_ref) {
        return IEMLI_REJ_UNKNOWN_LINK_REF;
    }
    if (iml_link_is_rtt_enabled(link->link_ref)) {
        return IEMLI_REJ_RTT_ALREADY_ENABLED;
    }
    if (!rtt_settings_valid(settings)) {
        return IEMLI_REJ_INVALID_RTT_CONFIG_PARAM;
    }
    return IEMLI_NO_REJECT;
}
