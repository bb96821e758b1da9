// The client library as others use it: kap_iemli.h over iemli_client.hpp. What is handed in is checked and copied here,
// and nothing of C++ shows outside.
#include "kap_iemli.h"

#include "iemli_client.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

struct kap_iemli {
    iemli_client client;
};

static_assert(KAP_IEMLI_FOREVER == ITC_NO_TIMEOUT);
static_assert(KAP_IEMLI_PORT_NAME_LENGTH == PORT_NAME_LEN);
static_assert(sizeof(kap_iemli_app_link) == sizeof(IemliAppLink));
static_assert(uint32_t{KAP_IEMLI_REJECTED} == static_cast<uint32_t>(iemli_outcome::rejected));
static_assert(uint32_t{KAP_IEMLI_TIMED_OUT} == static_cast<uint32_t>(iemli_outcome::timed_out));
static_assert(uint32_t{KAP_IEMLI_LOST} == static_cast<uint32_t>(iemli_outcome::lost));
static_assert(uint32_t{KAP_IEMLI_DAEMON_DIED} == static_cast<uint32_t>(iemli_event_kind::server_died));
static_assert(uint32_t{KAP_IEMLI_LINK_RTT} == static_cast<uint32_t>(iemli_event_kind::link_rtt));
static_assert(uint32_t{KAP_IEMLI_MALFORMED} == static_cast<uint32_t>(iemli_event_kind::malformed));
static_assert(uint32_t{KAP_IEMLI_OTHER_REASON} == uint32_t{IEMLI_REJ_OTHER_REASON});
static_assert(uint32_t{KAP_IEMLI_NO_CONNECTIVITY} == uint32_t{IML_LINK_REASON_NO_CONNECTIVITY});

namespace
{

constexpr rtt_settings USUAL_RTT{5, 1, 64};
constexpr uint64_t NANOSECONDS = 1'000'000'000;
// A message of that many app links has its size in 32 bits, and any real one has far fewer.
constexpr uint32_t MOST_APP_LINKS = 1'000'000;

struct reason_words {
    uint32_t reason;
    const char *text;
};

constexpr reason_words REASONS[] = {
    {KAP_IEMLI_SERVICE_NOT_INITIATED, "there is no session"},
    {KAP_IEMLI_SERVICE_INITIATED, "the client has a session already"},
    {KAP_IEMLI_SERVICE_INVALID_PV, "the daemon does not speak this version of the protocol"},
    {KAP_IEMLI_UNKNOWN_LINK_REF, "no such link"},
    {KAP_IEMLI_UNKNOWN_PORT_NAME, "no such port"},
    {KAP_IEMLI_PORT_ALREADY_USED, "the port is used already"},
    {KAP_IEMLI_LINK_ALREADY_CREATED, "this link is there already"},
    {KAP_IEMLI_INVALID_VLAN_ID, "no such VLAN"},
    {KAP_IEMLI_LINK_DATA_NO_CHANGE, "nothing would change"},
    {KAP_IEMLI_MP_ID_NOT_READY, "no such processor"},
    {KAP_IEMLI_REMOTE_CPM_MAC_CONFLICT, "the far end's address is one of this node's own"},
    {KAP_IEMLI_SAME_CPM_APP_MAC, "an application has the far end's address"},
    {KAP_IEMLI_SAME_SRC_DST_APP_MAC, "both applications of a pair have the same address"},
    {KAP_IEMLI_APP_LINK_ALREADY_USED, "another port has a link to that application in this VLAN"},
    {KAP_IEMLI_DUPLICATE_APP_LINKS, "a pair of applications stands there twice"},
    {KAP_IEMLI_PORT_NOT_RESERVED, "the port is not reserved"},
    {KAP_IEMLI_INVALID_RTT_CONFIG_PARAM, "round trips cannot be measured like that"},
    {KAP_IEMLI_RTT_ALREADY_ENABLED, "round trips are measured already"},
    {KAP_IEMLI_OTHER_REASON, "another reason, which the daemon's trace says"},
};

constexpr bool has_words(uint32_t reason)
{
    for (const reason_words &words : REASONS) {
        if (words.reason == reason) {
            return true;
        }
    }
    return false;
}

#define HAS_WORDS(value, name) static_assert(has_words(value), #name " has no words here");
IEMLI_REJECT_REASONS(HAS_WORDS)
#undef HAS_WORDS

mac_address inside(const kap_iemli_mac &mac)
{
    mac_address copy{};
    memcpy(copy.byte, mac.byte, sizeof copy.byte);
    return copy;
}

kap_iemli_mac outside(const mac_address &mac)
{
    kap_iemli_mac copy{};
    memcpy(copy.byte, mac.byte, sizeof copy.byte);
    return copy;
}

uint32_t tell(const iemli_answer &from, kap_iemli_answer *to)
{
    if (to != nullptr) {
        *to = {};
        to->outcome = static_cast<uint32_t>(from.outcome);
        to->reason = from.reason;
        to->link_ref = from.link_ref;
        to->mac = outside(from.mac);
        to->near_mp_id = from.mp_id;
        memcpy(to->port, from.port_name.data(), std::min<size_t>(from.port_name.size(), KAP_IEMLI_PORT_NAME_LENGTH));
    }
    return static_cast<uint32_t>(from.outcome);
}

uint32_t tell_invalid(kap_iemli_answer *to)
{
    if (to != nullptr) {
        *to = {};
        to->outcome = KAP_IEMLI_INVALID;
    }
    return KAP_IEMLI_INVALID;
}

bool is_port(const char *name)
{
    return name != nullptr && strnlen(name, KAP_IEMLI_PORT_NAME_LENGTH + 1) <= KAP_IEMLI_PORT_NAME_LENGTH;
}

bool are_app_links(const kap_iemli_app_link *app_links, uint32_t count)
{
    return count <= MOST_APP_LINKS && (count == 0 || app_links != nullptr);
}

std::vector<IemliAppLink> copy_of(const kap_iemli_app_link *app_links, uint32_t count)
{
    std::vector<IemliAppLink> copy;
    for (uint32_t i = 0; i < count; i++) {
        copy.push_back({inside(app_links[i].near_end), inside(app_links[i].far_end)});
    }
    return copy;
}

uint64_t nanoseconds(uint32_t seconds, uint32_t rest) { return seconds * NANOSECONDS + rest; }

kap_iemli_event outside(const iemli_event &event)
{
    kap_iemli_event out{};
    out.kind = static_cast<uint32_t>(event.kind);
    out.link_ref = event.link_ref;
    if (event.kind == iemli_event_kind::link_status) {
        out.enabled = event.status == IML_LINK_ENABLED ? 1 : 0;
        out.disabled_reason = out.enabled != 0 ? 0 : event.disabled_reason;
    } else if (event.kind == iemli_event_kind::link_rtt) {
        out.rtt.valid = event.rtt.rtt_validity != 0 ? 1 : 0;
        out.rtt.shortest = nanoseconds(event.rtt.min_sec, event.rtt.min_nsec);
        out.rtt.average = nanoseconds(event.rtt.avg_sec, event.rtt.avg_nsec);
        out.rtt.longest = nanoseconds(event.rtt.max_sec, event.rtt.max_nsec);
    }
    return out;
}

} // namespace

extern "C" {

kap_iemli *kap_iemli_new(uint32_t client_ref)
{
    if (itc_current_mbox() == ITC_NO_MBOX) {
        errno = EINVAL;
        return nullptr;
    }
    auto *made = new kap_iemli;
    if (!iemli_client_start(made->client, client_ref)) {
        delete made;
        errno = iemli_client_registry_is_lost() ? ENOTCONN : ETIMEDOUT;
        return nullptr;
    }
    return made;
}

void kap_iemli_free(kap_iemli *client)
{
    if (client != nullptr) {
        iemli_client_stop(client->client);
        delete client;
    }
}

void kap_iemli_set_patience(kap_iemli *client, uint32_t milliseconds) { client->client.bound_ms = milliseconds; }

int kap_iemli_is_published(const kap_iemli *client) { return client->client.published ? 1 : 0; }

int kap_iemli_wait_published(kap_iemli *client, uint32_t timeout_ms)
{
    return iemli_client_wait_published(client->client, timeout_ms) ? 1 : 0;
}

uint32_t kap_iemli_open(kap_iemli *client, kap_iemli_answer *answer)
{
    return tell(iemli_client_open(client->client), answer);
}

uint32_t kap_iemli_close(kap_iemli *client, kap_iemli_answer *answer)
{
    return tell(iemli_client_close(client->client), answer);
}

uint32_t kap_iemli_create(kap_iemli *client, const kap_iemli_link *link, kap_iemli_answer *answer)
{
    if (link == nullptr || !is_port(link->port) || !are_app_links(link->app_links, link->app_link_count)) {
        return tell_invalid(answer);
    }
    const iemli_link_wish wish{link->near_mp_id, inside(link->far), link->port, link->vlan,
                               copy_of(link->app_links, link->app_link_count)};
    return tell(iemli_client_create_link(client->client, wish), answer);
}

uint32_t kap_iemli_update(kap_iemli *client, uint32_t link_ref, const kap_iemli_app_link *app_links,
                          uint32_t app_link_count, kap_iemli_answer *answer)
{
    if (!are_app_links(app_links, app_link_count)) {
        return tell_invalid(answer);
    }
    return tell(iemli_client_update_link(client->client, link_ref, copy_of(app_links, app_link_count)), answer);
}

uint32_t kap_iemli_delete(kap_iemli *client, uint32_t link_ref, kap_iemli_answer *answer)
{
    return tell(iemli_client_delete_link(client->client, link_ref), answer);
}

uint32_t kap_iemli_get_mac(kap_iemli *client, const char *port, uint8_t near_mp_id, kap_iemli_answer *answer)
{
    return is_port(port) ? tell(iemli_client_get_mac(client->client, port, near_mp_id), answer) : tell_invalid(answer);
}

uint32_t kap_iemli_enable_rtt(kap_iemli *client, uint32_t link_ref, const kap_iemli_rtt_settings *settings,
                              kap_iemli_answer *answer)
{
    const rtt_settings wanted =
        settings == nullptr ? USUAL_RTT : rtt_settings{settings->batch, settings->interval, settings->frame_bytes};
    return tell(iemli_client_enable_rtt(client->client, link_ref, wanted), answer);
}

uint32_t kap_iemli_disable_rtt(kap_iemli *client, uint32_t link_ref, kap_iemli_answer *answer)
{
    return tell(iemli_client_disable_rtt(client->client, link_ref), answer);
}

int kap_iemli_next_event(kap_iemli *client, uint32_t timeout_ms, kap_iemli_event *event)
{
    const auto next = iemli_client_next_event(client->client, timeout_ms);
    if (!next && !client->client.registry_lost) {
        return 0;
    }
    *event = {};
    event->kind = KAP_IEMLI_REGISTRY_LOST;
    if (next) {
        *event = outside(*next);
    }
    return 1;
}

void kap_iemli_interrupt(kap_iemli *client) { iemli_client_interrupt(client->client); }

const char *kap_iemli_outcome_text(uint32_t outcome)
{
    switch (outcome) {
    case KAP_IEMLI_CONFIRMED:
        return "confirmed";
    case KAP_IEMLI_REJECTED:
        return "rejected";
    case KAP_IEMLI_TIMED_OUT:
        return "not answered in time";
    case KAP_IEMLI_LOST:
        return "lost with the service";
    case KAP_IEMLI_INVALID:
        return "not sent, since it makes no sense";
    default:
        return "an unknown outcome";
    }
}

const char *kap_iemli_reason_text(uint32_t reason)
{
    const auto *found = std::find_if(std::begin(REASONS), std::end(REASONS),
                                     [=](const reason_words &words) { return words.reason == reason; });
    return found == std::end(REASONS) ? "an unknown reason" : found->text;
}

const char *kap_iemli_status_text(uint32_t enabled, uint32_t disabled_reason)
{
    return iemli_client_status_text(enabled != 0 ? IML_LINK_ENABLED : IML_LINK_DISABLED, disabled_reason);
}

} // extern "C"
