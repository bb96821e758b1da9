// The rules for links and RTT settings, one condition per `if`, in the order in which they are laid down.
#include "iemli_checks.hpp"

#include <cstdlib>
#include <cstring>

#include "manager/port_mapping.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr uint8_t MAX_MP_ID = 63;
constexpr uint16_t MAX_VLAN_ID = 4094;
constexpr uint32_t RTT_PERIOD = 60; // seconds; a whole number of batches fits in
constexpr const char *UNKNOWN_PORT = "INVALID_PORT";

bool app_link_equal(const IemliAppLink &a, const IemliAppLink &b)
{
    return mac_equal(a.nearEndAppMac, b.nearEndAppMac) && mac_equal(a.farEndAppMac, b.farEndAppMac);
}

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

bool shares_far_end_app(const IemliLinkData *a, const IemliLinkData *b)
{
    for (uint32_t i = 0; i < a->numberOfAppLinks; ++i) {
        for (uint32_t j = 0; j < b->numberOfAppLinks; ++j) {
            if (mac_equal(iemli_app_links(a)[i].farEndAppMac, iemli_app_links(b)[j].farEndAppMac)) {
                return true;
            }
        }
    }
    return false;
}

uint32_t check_against_link(const IemliLinkData *link, const IemliLinkData *existing)
{
    if (is_same_link(link, existing)) {
        return IEMLI_REJ_LINK_ALREADY_CREATED;
    }
    if (!is_same_vlan_on_other_port(link, existing)) {
        return IEMLI_NO_REJECT;
    }
    if (shares_far_end_app(link, existing)) {
        return IEMLI_REJ_APP_LINK_ALREADY_USED;
    }
    if (mac_equal(link->farEndCpmMac, existing->farEndCpmMac)) {
        return IEMLI_REJ_OTHER_REASON;
    }
    return IEMLI_NO_REJECT;
}

uint32_t check_against_links(const IemliLinkData *link)
{
    for (const iml_link *existing = iml_link_first(); existing != nullptr; existing = existing->next) {
        const uint32_t reason = check_against_link(link, existing->link_data);
        if (reason != IEMLI_NO_REJECT) {
            return reason;
        }
    }
    return IEMLI_NO_REJECT;
}

bool occurs_in(const IemliAppLink &app_link, const IemliAppLink *app_links, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        if (app_link_equal(app_link, app_links[i])) {
            return true;
        }
    }
    return false;
}

uint32_t check_app_links(const mac_address &far_end_cpm, const IemliAppLink *app_links, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        const IemliAppLink &app_link = app_links[i];
        if (mac_equal(app_link.farEndAppMac, far_end_cpm) || mac_equal(app_link.nearEndAppMac, far_end_cpm)) {
            return IEMLI_REJ_SAME_CPM_APP_MAC;
        }
        if (mac_equal(app_link.nearEndAppMac, app_link.farEndAppMac)) {
            return IEMLI_REJ_SAME_SRC_DST_APP_MAC;
        }
        if (occurs_in(app_link, app_links + i + 1, count - i - 1)) {
            return IEMLI_REJ_DUPLICATE_APP_LINKS;
        }
    }
    return IEMLI_NO_REJECT;
}

bool is_known_port(const IemliLinkData *link)
{
    return strcmp(iemli_to_iepcsi_port_name(iemli_port_name_of(link).text), UNKNOWN_PORT) != 0;
}

// As many app links as now, and every one of now is among them, in whatever order.
bool changes_nothing(const IemliLinkData *link, uint32_t count, const IemliAppLink *app_links)
{
    if (count != link->numberOfAppLinks) {
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (!occurs_in(iemli_app_links(link)[i], app_links, count)) {
            return false;
        }
    }
    return true;
}

bool collides_with_other_link(uint32_t link_ref, const IemliLinkData *candidate)
{
    for (const iml_link *other = iml_link_first(); other != nullptr; other = other->next) {
        if (other->link_ref != link_ref && is_same_vlan_on_other_port(candidate, other->link_data) &&
            shares_far_end_app(candidate, other->link_data)) {
            return true;
        }
    }
    return false;
}

// The link as it would be with the new app links, held against all others.
uint32_t check_candidate(const iml_link *link, uint32_t count, const IemliAppLink *app_links)
{
    IemliLinkData *candidate = iml_link_data_copy(link->link_data, count);
    if (candidate == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Memory allocation failed");
        return IEMLI_REJ_OTHER_REASON;
    }
    memcpy(iemli_app_links(candidate), app_links, count * sizeof(IemliAppLink));
    const bool collides = collides_with_other_link(link->link_ref, candidate);
    free(candidate);
    return collides ? IEMLI_REJ_APP_LINK_ALREADY_USED : IEMLI_NO_REJECT;
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

iemli_port_name iemli_port_name_of(const char *field, size_t size)
{
    iemli_port_name name = {};
    memcpy(name.text, field, strnlen(field, size < PORT_NAME_LEN ? size : PORT_NAME_LEN));
    return name;
}

iemli_port_name iemli_port_name_of(const IemliLinkData *link)
{
    return iemli_port_name_of(link->imlPortName, sizeof link->imlPortName);
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
    uint32_t reason = check_against_links(link);
    if (reason != IEMLI_NO_REJECT) {
        return reason;
    }
    reason = check_app_links(link->farEndCpmMac, iemli_app_links(link), link->numberOfAppLinks);
    if (reason != IEMLI_NO_REJECT) {
        return reason;
    }
    if (!is_known_port(link)) {
        return IEMLI_REJ_UNKNOWN_PORT_NAME;
    }
    return IEMLI_NO_REJECT;
}

uint32_t iemli_check_update(const iml_link *link, uint32_t count, const IemliAppLink *app_links)
{
    if (changes_nothing(link->link_data, count, app_links)) {
        return IEMLI_REJ_LINK_DATA_NO_CHANGE;
    }
    const uint32_t reason = check_app_links(link->link_data->farEndCpmMac, app_links, count);
    if (reason != IEMLI_NO_REJECT) {
        return reason;
    }
    return check_candidate(link, count, app_links);
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
