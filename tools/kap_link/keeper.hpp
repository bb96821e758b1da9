// Keeps one link: opens a session, asks for the link, tells what becomes of it, and asks again when the daemon was
// away. It knows nothing of signals; whoever has it end calls stop.
#pragma once

#include "kap_iemli.h"
#include "teller.hpp"
#include "words.hpp"

#include <chrono>
#include <optional>

namespace kap_link
{

enum class ending {
    STOPPED,       // the link is deleted, or there was none
    REFUSED,       // by the daemon; it was said why
    UNHEARD,       // standard output takes no more; the link is deleted
    REGISTRY_LOST, // the process cannot get it back
};

class keeper
{
public:
    // `patient`: the node is just coming up, so that a port that is not there yet may come.
    keeper(kap_iemli *client, const wish &wanted, bool patient);

    ending keep();
    void stop(); // may be called from a callback of itc_watch_fd

private:
    using clock = std::chrono::steady_clock;

    // What stands between one look for events and the next.
    std::optional<ending> ask();
    std::optional<ending> ask_for_session();
    std::optional<ending> ask_for_link();
    std::optional<ending> ask_for_round_trips();
    std::optional<ending> later(const char *what, const kap_iemli_answer &answer);
    std::optional<ending> refuse(const char *what, const kap_iemli_answer &answer);
    std::optional<ending> take(const kap_iemli_event &event);
    void forget(const char *what);
    uint32_t time_to_wait() const;
    ending leave();

    kap_iemli *client_;
    const wish &wanted_;
    teller tell_;
    bool stopping_ = false;
    bool session_ = false;
    uint32_t link_ = 0; // 0: there is none
    bool measured_ = false;
    clock::time_point patient_until_;
    clock::time_point next_try_;
    bool said_that_it_waits_ = false;
    uint32_t said_reason_;
};

} // namespace kap_link
