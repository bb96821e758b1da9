#include "keeper.hpp"

#include <algorithm>

namespace kap_link
{

namespace
{

using namespace std::chrono_literals;

constexpr auto BETWEEN_TRIES = 1s;
// How long a node takes at most, from its daemon's service being there, until all ports and services are.
constexpr auto COMING_UP = 15s;
constexpr auto BEFORE_IT_SAYS_THAT_IT_WAITS = 2s;
constexpr uint32_t NO_REASON = UINT32_MAX;

// What a node that comes up may take back.
bool may_pass(const kap_iemli_answer &answer)
{
    return answer.outcome == KAP_IEMLI_TIMED_OUT || answer.reason == KAP_IEMLI_UNKNOWN_PORT_NAME ||
           answer.reason == KAP_IEMLI_OTHER_REASON;
}

} // namespace

keeper::keeper(kap_iemli *client, const wish &wanted, bool patient)
    : client_(client), wanted_(wanted), tell_(wanted), patient_until_(clock::now()),
      next_try_(clock::now() + BEFORE_IT_SAYS_THAT_IT_WAITS), said_reason_(NO_REASON)
{
    if (patient) {
        patient_until_ += COMING_UP;
    }
}

void keeper::stop()
{
    stopping_ = true;
    kap_iemli_interrupt(client_);
}

// A daemon that is here late, or again, may not have all its ports yet.
void keeper::forget(const char *what)
{
    if (link_ != 0) {
        tell_.lost(what);
    }
    session_ = measured_ = false;
    link_ = 0;
    patient_until_ = clock::time_point::max();
    next_try_ = clock::now() + BEFORE_IT_SAYS_THAT_IT_WAITS;
    said_that_it_waits_ = false;
    said_reason_ = NO_REASON;
}

std::optional<ending> keeper::refuse(const char *what, const kap_iemli_answer &answer)
{
    if (answer.outcome == KAP_IEMLI_REJECTED) {
        complain("%s is refused: %s (reason %u)", what, kap_iemli_reason_text(answer.reason), answer.reason);
    } else {
        complain("%s is %s", what, kap_iemli_outcome_text(answer.outcome));
    }
    return ending::REFUSED;
}

// Again in a while, or for good where there is nothing to hope for.
std::optional<ending> keeper::later(const char *what, const kap_iemli_answer &answer)
{
    if (answer.outcome == KAP_IEMLI_LOST) {
        return std::nullopt; // an event says what is lost
    }
    if (!may_pass(answer) || clock::now() >= patient_until_) {
        return refuse(what, answer);
    }
    if (answer.outcome == KAP_IEMLI_REJECTED && said_reason_ != answer.reason) {
        said_reason_ = answer.reason;
        complain("%s is refused: %s; tries again for a while", what, kap_iemli_reason_text(answer.reason));
    }
    next_try_ = clock::now() + BETWEEN_TRIES;
    return std::nullopt;
}

std::optional<ending> keeper::ask_for_session()
{
    kap_iemli_answer answer{};
    switch (kap_iemli_open(client_, &answer)) {
    case KAP_IEMLI_CONFIRMED:
        session_ = true;
        return std::nullopt;
    case KAP_IEMLI_TIMED_OUT:
        complain("no answer to the request for a session: another client of this user or group may have the one that "
                 "there is");
        return clock::now() >= patient_until_ ? std::optional(ending::REFUSED) : std::nullopt;
    default:
        return later("a session", answer);
    }
}

std::optional<ending> keeper::ask_for_link()
{
    const kap_iemli_link link{wanted_.port.c_str(),
                              wanted_.vlan,
                              wanted_.mp_id,
                              wanted_.far,
                              static_cast<uint32_t>(wanted_.app_links.size()),
                              wanted_.app_links.data()};
    kap_iemli_answer answer{};
    if (kap_iemli_create(client_, &link, &answer) != KAP_IEMLI_CONFIRMED) {
        return later("the link", answer);
    }
    link_ = answer.link_ref;
    tell_.created(link_);
    return std::nullopt;
}

std::optional<ending> keeper::ask_for_round_trips()
{
    kap_iemli_answer answer{};
    measured_ = true;
    if (kap_iemli_enable_rtt(client_, link_, &wanted_.rtt_settings, &answer) == KAP_IEMLI_CONFIRMED ||
        answer.outcome == KAP_IEMLI_LOST) {
        return std::nullopt;
    }
    (void)refuse("measuring round trips", answer);
    (void)leave();
    return ending::REFUSED;
}

std::optional<ending> keeper::ask()
{
    std::optional<ending> end;
    if (!session_) {
        end = ask_for_session();
    }
    if (!end && session_ && link_ == 0) {
        end = ask_for_link();
    }
    if (!end && link_ != 0 && wanted_.rtt && !measured_) {
        end = ask_for_round_trips();
    }
    return end;
}

std::optional<ending> keeper::take(const kap_iemli_event &event)
{
    switch (event.kind) {
    case KAP_IEMLI_PUBLISHED:
        if (patient_until_ == clock::time_point::max() || said_that_it_waits_) {
            patient_until_ = clock::now() + COMING_UP;
        }
        next_try_ = clock::now();
        break;
    case KAP_IEMLI_WITHDRAWN:
    case KAP_IEMLI_DAEMON_DIED:
        forget("the daemon's service is gone");
        break;
    case KAP_IEMLI_REGISTRY_LOST:
        forget("the message registry is gone");
        return ending::REGISTRY_LOST;
    case KAP_IEMLI_LINK_STATUS:
        if (event.link_ref == link_) {
            tell_.status(event);
        }
        break;
    case KAP_IEMLI_LINK_RTT:
        if (event.link_ref == link_) {
            tell_.round_trip(event.rtt);
        }
        break;
    case KAP_IEMLI_LATE_ANSWER: // the link that was asked for is there after all
        if (event.link_ref != 0 && session_ && link_ == 0) {
            link_ = event.link_ref;
            tell_.created(link_);
        }
        break;
    default:
        break; // what is no message of the protocol
    }
    return std::nullopt;
}

// For ever, unless there is something to be tried again or to be said.
uint32_t keeper::time_to_wait() const
{
    const bool published = kap_iemli_is_published(client_) != 0;
    if (published ? link_ != 0 : said_that_it_waits_) {
        return KAP_IEMLI_FOREVER;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_try_ - clock::now()).count();
    return static_cast<uint32_t>(std::max<int64_t>(left, 0));
}

ending keeper::keep()
{
    while (!stopping_) {
        if (!teller::is_heard()) {
            (void)leave();
            return ending::UNHEARD;
        }
        const bool due = clock::now() >= next_try_;
        if (kap_iemli_is_published(client_) != 0) {
            if (const auto end = due ? ask() : std::nullopt) {
                return *end;
            }
        } else if (due && !said_that_it_waits_) {
            said_that_it_waits_ = true;
            complain("waits for the daemon's service");
        }
        kap_iemli_event event{};
        if (!stopping_ && kap_iemli_next_event(client_, time_to_wait(), &event) != 0) {
            if (const auto end = take(event)) {
                return *end;
            }
        }
    }
    return leave();
}

ending keeper::leave()
{
    kap_iemli_answer answer{};
    if (link_ != 0) {
        const uint32_t outcome = kap_iemli_delete(client_, link_, &answer);
        if (outcome == KAP_IEMLI_REJECTED || outcome == KAP_IEMLI_TIMED_OUT) {
            return refuse("deleting the link", answer).value_or(ending::REFUSED);
        }
        tell_.deleted();
        link_ = 0;
    }
    if (session_) {
        (void)kap_iemli_close(client_, nullptr);
        session_ = false;
    }
    return ending::STOPPED;
}

} // namespace kap_link
