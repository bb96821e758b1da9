// The keeper's way to the daemon (session.hpp).
#include "session.hpp"

#include "link_list/link_list.hpp"
#include "shell/shell_messages.hpp"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

namespace linkd
{

namespace
{

constexpr int64_t BETWEEN_TRIES_MS = 500;
constexpr int64_t BETWEEN_LISTS_MS = 10'000;
// Links that go one after the other have one list for all.
constexpr int64_t FRESH_LIST_MS = 1000;
constexpr int64_t LAST_LIST_PATIENCE_MS = 500;
// A connection with the registry that ends sooner did not last.
constexpr int64_t LASTING_MS = 10'000;
constexpr int64_t FIRST_ANEW_MS = 500;
constexpr int64_t LONGEST_ANEW_MS = 60'000;
// Of messages at a turn: descriptors of others have theirs, too.
constexpr int MOST_AT_ONCE = 256;
constexpr uint64_t NS_PER_S = 1'000'000'000;
constexpr const char *UNKNOWN_REASON = "an unknown reason";

mac_address mac_for(const mac_bytes &mac)
{
    mac_address out{};
    memcpy(out.byte, mac.data(), mac.size());
    return out;
}

std::vector<IemliAppLink> app_links_for(const std::vector<app_pair> &pairs)
{
    std::vector<IemliAppLink> out;
    out.reserve(pairs.size());
    for (const app_pair &pair : pairs) {
        out.push_back({mac_for(pair.near), mac_for(pair.far)});
    }
    return out;
}

// As the list has it: "02:00:00:00:00:02".
bool read_mac(const std::string &text, mac_bytes &mac)
{
    constexpr size_t DIGITS = 2;
    constexpr int HEX = 16;
    if (text.size() != mac.size() * (DIGITS + 1) - 1) {
        return false;
    }
    for (size_t i = 0; i < mac.size(); i++) {
        const char *first = text.data() + i * (DIGITS + 1);
        if (std::from_chars(first, first + DIGITS, mac.at(i), HEX).ptr != first + DIGITS) {
            return false;
        }
    }
    return true;
}

std::optional<std::vector<app_pair>> pairs_of(const link_list::link &link)
{
    if (link.app_links.size() >= SHELL_MAX_APP_LINKS) {
        return std::nullopt; // there may be more
    }
    std::vector<app_pair> pairs;
    for (const link_list::app_link &each : link.app_links) {
        app_pair pair;
        if (!read_mac(each.near_end_mac, pair.near) || !read_mac(each.far_end_mac, pair.far)) {
            return std::nullopt;
        }
        pairs.push_back(pair);
    }
    std::sort(pairs.begin(), pairs.end());
    return pairs;
}

} // namespace

instant now() { return {boot_us(), real_us()}; }

session::session(loop &turns, uint32_t short_lived, std::function<void(uint32_t)> on_registry_lost)
    : turns_(turns), lost_(std::move(on_registry_lost)), short_lived_(short_lived)
{
}

session::~session()
{
    if (connected_) {
        turns_.forget(itc_get_fd());
        iemli_client_stop(client_);
        itc_exit();
    }
}

// ---- The registry --------------------------------------------------------------------------------------------------

void session::connect() { try_to_connect(); }

void session::try_to_connect()
{
    const int failure = itc_init(1, 0, nullptr, nullptr, 0);
    if (failure == 0) {
        start_client();
        return;
    }
    if (!said_) {
        (void)fprintf(stderr, "kap-linkd: waits for the message registry: %s\n", strerror(failure));
        said_ = true;
    }
    turns_.after(BETWEEN_TRIES_MS, [this] { try_to_connect(); });
}

void session::start_client()
{
    const std::string name = "kap-linkd-" + std::to_string(getpid());
    connected_ = true;
    connected_ms_ = boot_ms();
    turns_.watch(itc_get_fd(), EPOLLIN, [this](uint32_t) { read(); });
    if (itc_create_mailbox(name.c_str(), 0) == ITC_NO_MBOX ||
        !iemli_client_start(client_, static_cast<uint32_t>(getpid()))) {
        (void)fprintf(stderr, "kap-linkd: the message registry gives no mailbox\n");
        on_registry_lost("the registry gives no mailbox");
        return;
    }
    keeper_->lost("no daemon", now());
    services_.begin();
    turns_.after(BETWEEN_LISTS_MS, [this] { ask_for_list(); });
    read(); // what came while the name service was asked
}

void session::on_registry_lost(const std::string &what)
{
    const bool lasted = boot_ms() - connected_ms_ >= LASTING_MS;
    short_lived_ = lasted ? 0 : std::min(short_lived_ + 1, 100U);
    int64_t pause = lasted ? 0 : FIRST_ANEW_MS;
    for (uint32_t i = 1; i < short_lived_ && pause < LONGEST_ANEW_MS; i++) {
        pause *= 2;
    }
    over_ = true;
    services_.registry_lost();
    turns_.forget(itc_get_fd());
    keeper_->lost(what, now());
    turns_.after(std::min(pause, LONGEST_ANEW_MS), [this] { lost_(short_lived_); });
}

// ---- What comes ----------------------------------------------------------------------------------------------------

void session::read()
{
    int taken = 0;
    for (; taken < MOST_AT_ONCE; taken++) {
        itc_msg *msg = itc_receive(nullptr, 0, ITC_FROM_ANY);
        if (msg == nullptr) {
            break;
        }
        if (msg->msgno == IECTM_COLI_IML_LINK_LIST_RSP) {
            read_list(msg);
        } else if (!services_.take(msg)) {
            iemli_client_handle(client_, msg);
            hand_over();
        }
        itc_free(&msg);
    }
    // Readable without a message is also what a lost registry looks like.
    if (taken == 0 && iemli_client_registry_is_lost()) {
        on_registry_lost("no registry");
        return;
    }
    settle();
}

// One message's worth: an answer, an event, or the end of a session with what it ends.
void session::hand_over()
{
    while (const auto what = iemli_client_take_answer(client_)) {
        if (what->outcome == iemli_outcome::confirmed || what->outcome == iemli_outcome::rejected) {
            answer out;
            out.number = what->procedure;
            out.confirmed = what->outcome == iemli_outcome::confirmed;
            out.reason = what->reason;
            out.link_ref = what->link_ref;
            memcpy(out.mac.data(), what->mac.byte, out.mac.size());
            keeper_->answered(out, now());
        }
    }
    while (!client_.events.empty()) {
        const iemli_event event = client_.events.front();
        client_.events.pop_front();
        handle(event);
    }
}

void session::handle(const iemli_event &event)
{
    switch (event.kind) {
    case iemli_event_kind::published:
        keeper_->published(now());
        break;
    case iemli_event_kind::withdrawn:
        keeper_->lost("no service", now());
        break;
    case iemli_event_kind::server_died:
        keeper_->lost("no daemon", now());
        break;
    case iemli_event_kind::link_status:
        keeper_->status(event.link_ref, event.status == IML_LINK_ENABLED,
                        iml_link_reason_text(event.disabled_reason, UNKNOWN_REASON), now());
        break;
    case iemli_event_kind::link_rtt: {
        rtt_sample sample;
        sample.shortest_ns = event.rtt.min_sec * NS_PER_S + event.rtt.min_nsec;
        sample.average_ns = event.rtt.avg_sec * NS_PER_S + event.rtt.avg_nsec;
        sample.longest_ns = event.rtt.max_sec * NS_PER_S + event.rtt.max_nsec;
        sample.valid = event.rtt.rtt_validity != 0 ? 1 : 0;
        keeper_->measured(event.link_ref, sample, now());
        break;
    }
    case iemli_event_kind::late_answer:
        break; // nothing is taken back here, so there is none
    case iemli_event_kind::malformed:
        (void)fprintf(stderr, "kap-linkd: ignored what is no message of the protocol: %s\n", event.text.c_str());
        break;
    }
}

void session::settle()
{
    keeper_->tick(now());
    const auto next = keeper_->next_ms();
    if (timer_ != 0 && next && *next == timer_ms_) {
        return;
    }
    turns_.cancel(timer_);
    timer_ = 0;
    if (next) {
        timer_ms_ = *next;
        timer_ = turns_.after(std::max<int64_t>(*next - boot_ms(), 1), [this] {
            timer_ = 0;
            settle();
        });
    }
}

// ---- The daemon's list ---------------------------------------------------------------------------------------------

void session::ask_for_list_now()
{
    asked_ms_ = boot_ms();
    itc_msg *request = itc_alloc(sizeof(itc_msg), IECTM_COLI_IML_LINK_LIST_REQ);
    itc_send(&request, client_.server_mbox, ITC_MY_MBOX);
}

void session::ask_for_list()
{
    if (keeper_->has_session()) {
        ask_for_list_now();
    }
    turns_.after(BETWEEN_LISTS_MS, [this] { ask_for_list(); });
}

void session::read_list(const itc_msg *msg)
{
    std::string error;
    const auto links = link_list::decode(reinterpret_cast<const uint8_t *>(msg), itc_size(msg), &error);
    if (itc_sender(msg) != client_.server_mbox || !links) {
        return;
    }
    std::vector<listed_link> ours;
    for (const link_list::link &link : *links) {
        mac_bytes far{};
        if (link.connection_ref == client_.server_ref && read_mac(link.far_end_cpm_mac, far)) {
            ours.push_back({link.link_ref,
                            {link.port, static_cast<uint16_t>(link.vlan), far, static_cast<uint8_t>(link.mp_id)},
                            link.enabled,
                            link.reason.empty() ? UNKNOWN_REASON : link.reason,
                            pairs_of(link),
                            link.rtt == "unknown" ? std::nullopt : std::optional(link.rtt == "on"),
                            link.results,
                            link.lost});
        }
    }
    keeper_->listed(ours, now());
    if (const auto then = std::exchange(on_list_, nullptr)) {
        then();
    }
}

void session::before_the_end(std::function<void()> then)
{
    if (on_list_) {
        return;
    }
    if (over_ || !keeper_->has_session()) {
        then();
        return;
    }
    on_list_ = std::move(then);
    ask_for_list_now();
    turns_.after(LAST_LIST_PATIENCE_MS, [this] {
        if (const auto patience_is_over = std::exchange(on_list_, nullptr)) {
            patience_is_over();
        }
    });
}

// ---- What goes -----------------------------------------------------------------------------------------------------

uint32_t session::send(const request &what)
{
    switch (what.kind) {
    case request_kind::open:
        return iemli_client_send_open(client_);
    case request_kind::create:
        return iemli_client_send_create(client_, {what.key.near_mp, mac_for(what.key.far), what.key.port, what.key.vlan,
                                                  app_links_for(what.app_links)});
    case request_kind::update:
        return iemli_client_send_update(client_, what.link_ref, app_links_for(what.app_links));
    case request_kind::remove:
        if (boot_ms() - asked_ms_ >= FRESH_LIST_MS) {
            ask_for_list_now();
        }
        return iemli_client_send_delete(client_, what.link_ref);
    case request_kind::enable_rtt:
        return iemli_client_send_enable_rtt(client_, what.link_ref,
                                            {what.rtt.batch, what.rtt.interval, what.rtt.frame_bytes});
    case request_kind::disable_rtt:
        return iemli_client_send_disable_rtt(client_, what.link_ref);
    case request_kind::get_mac:
        return iemli_client_send_get_mac(client_, what.key.port, what.key.near_mp);
    }
    return 0;
}

} // namespace linkd
