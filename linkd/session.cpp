// The keeper's way to the daemon (session.hpp).
#include "session.hpp"

#include "link_list/link_list.hpp"
#include "shell/shell_messages.hpp"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace linkd
{

namespace
{

constexpr int64_t BETWEEN_TRIES_MS = 500;
constexpr int64_t BETWEEN_LISTS_MS = 10'000;
// Of messages at a turn: descriptors of others have theirs, too.
constexpr int MOST_AT_ONCE = 256;
constexpr uint64_t NS_PER_S = 1'000'000'000;

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

} // namespace

instant now() { return {boot_us(), real_us()}; }

session::session(loop &turns, std::function<void()> on_registry_lost)
    : turns_(turns), lost_(std::move(on_registry_lost))
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
    turns_.watch(itc_get_fd(), EPOLLIN, [this](uint32_t) { read(); });
    if (itc_create_mailbox(name.c_str(), 0) == ITC_NO_MBOX ||
        !iemli_client_start(client_, static_cast<uint32_t>(getpid()))) {
        (void)fprintf(stderr, "kap-linkd: the message registry gives no mailbox\n");
        on_registry_lost();
        return;
    }
    keeper_->lost("no daemon", now());
    services_.begin();
    turns_.after(BETWEEN_LISTS_MS, [this] { ask_for_list(); });
    read(); // what came while the name service was asked
}

void session::on_registry_lost()
{
    services_.registry_lost();
    keeper_->lost("no registry", now());
    lost_();
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
        on_registry_lost();
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
                        iml_link_reason_text(event.disabled_reason, "an unknown reason"), now());
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

void session::ask_for_list()
{
    if (keeper_->has_session()) {
        itc_msg *request = itc_alloc(sizeof(itc_msg), IECTM_COLI_IML_LINK_LIST_REQ);
        itc_send(&request, client_.server_mbox, ITC_MY_MBOX);
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
    for (const link_list::link &link : *links) {
        if (link.connection_ref == client_.server_ref) {
            keeper_->counted(link.link_ref, link.results, link.lost, now());
        }
    }
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
