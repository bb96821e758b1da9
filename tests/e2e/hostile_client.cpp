// A client of the daemon that keeps to nothing: floods it with a bounded number of messages of every protocol, cut off
// or filled at random, and says when it is done. The same seed gives the same messages.
//
//   e2e-hostile NAME COUNT SEED
//
// The daemon takes the messages of its services from whoever sends them: a whole set-up message that nobody asked for,
// or the news that a server is gone, are true for it. Such numbers are only sent cut off, and so is the result of a
// supervision session, which is taken from any sender too.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "itc.h"
#include "support/message_windows.hpp"

namespace
{

constexpr size_t LONGEST = 700;
constexpr uint32_t PACE = 64; // messages between two answers that are waited for

// Believed from whoever sends them.
constexpr uint32_t BELIEVED[] = {IEPCSI_SERVER_UP_IND,
                                 IEPCSI_SERVER_DOWN_IND,
                                 IEPCSI_INIT_SERVICE_CFM,
                                 IEPCSI_INIT_SERVICE_REJ,
                                 IEPCSI_TERM_SERVICE_CFM,
                                 IEPCSI_GET_ETH_PORT_SUPPORT_CFM,
                                 IEPCSI_GET_ETH_PORT_SUPPORT_REJ,
                                 IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ,
                                 IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ,
                                 PMI_SERVER_UP_IND,
                                 PMI_SERVER_DOWN_IND,
                                 PMI_CONN_ESTABLISH_CFM,
                                 PMI_CONN_ESTABLISH_REJ,
                                 PMI_GET_CAPABILITY_CFM,
                                 PMI_GET_CAPABILITY_REJ,
                                 EMI_SERVER_UP,
                                 EMI_SERVER_DOWN,
                                 EMI_CONN_ESTABLISH_CFM,
                                 EMI_CONN_ESTABLISH_REJ,
                                 EMI_GET_CAPABILITY_CFM,
                                 EMI_GET_CAPABILITY_REJ,
                                 FMI_SERVER_UP,
                                 FMI_SERVER_DOWN,
                                 FMI_CONN_ESTABLISH_CFM,
                                 FMI_CONN_ESTABLISH_REJ,
                                 FMI_GET_CAPABILITIES_CFM,
                                 FMI_GET_CAPABILITIES_REJ,
                                 SUPERVISION_IND};

using generator = std::mt19937;

uint32_t below(generator &random, uint32_t bound)
{
    return std::uniform_int_distribution<uint32_t>(0, bound - 1)(random);
}

// What a message that is believed is cut to: less than any layout.
constexpr size_t CUT_OFF = 8;

// It is let in like any other client: what it asks for in its session is looked at more closely.
constexpr uint32_t SECOND_SESSION = 2;

void open_session(uint32_t to)
{
    itc_msg *msg = itc_alloc(sizeof(iemli_init_service_req), IEMLI_INIT_SERVICE_REQ);
    reinterpret_cast<iemli_init_service_req *>(msg)->pv_1 = IEMLI_PROTOCOL_VERSION;
    itc_send(&msg, to, ITC_MY_MBOX);
}

void send_one(generator &random, uint32_t to)
{
    using message_windows::EVERY;
    const uint32_t number = EVERY[below(random, std::size(EVERY))].number(below(random, 256));
    const bool believed = std::find(std::begin(BELIEVED), std::end(BELIEVED), number) != std::end(BELIEVED);
    const size_t size = 4 + below(random, believed ? CUT_OFF - 3 : LONGEST);
    itc_msg *msg = itc_alloc(size, number);
    auto *bytes = reinterpret_cast<uint8_t *>(msg);
    // Small values come closer to what means something than any others.
    const bool small = below(random, 2) == 0;
    for (size_t i = sizeof number; i < size; i++) {
        bytes[i] = static_cast<uint8_t>(small ? below(random, 4) == 0 ? below(random, 3) : 0 : below(random, 256));
    }
    if (message_windows::iemli.has(number) && size >= sizeof(iemli_header) && below(random, 2) == 0) {
        reinterpret_cast<iemli_header *>(msg)->connection_ref = SECOND_SESSION;
    }
    itc_send(&msg, to, ITC_MY_MBOX);
}

// The daemon answers the question for its links after all that came before; so no outbox overflows.
bool keep_pace(uint32_t to)
{
    itc_msg *question = itc_alloc(sizeof(itc_msg), IECTM_COLI_IML_LINK_LIST_REQ);
    itc_send(&question, to, ITC_MY_MBOX);
    const uint32_t answers[] = {1, IECTM_COLI_IML_LINK_LIST_RSP};
    itc_msg *answer = itc_receive(answers, 10000, ITC_FROM_ANY);
    const bool answered = answer != nullptr;
    while (answer != nullptr) {
        itc_free(&answer);
        answer = itc_receive(nullptr, 0, ITC_FROM_ANY);
    }
    return answered;
}

} // namespace

int main(int argc, char **argv)
{
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc != 4 || itc_init(1, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox(argv[1], 0) == ITC_NO_MBOX) {
        printf("usage: e2e-hostile NAME COUNT SEED, with a registry\n");
        return 1;
    }
    const uint32_t to = itc_locate("kap-vorn");
    const auto count = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
    generator random(static_cast<uint32_t>(strtoul(argv[3], nullptr, 10)));
    for (uint32_t sent = 0; sent < count; sent++) {
        if (sent % PACE == 0) {
            open_session(to); // its last one it may have ended itself
        }
        send_one(random, to);
        if (sent % PACE == PACE - 1 && !keep_pace(to)) {
            printf("the daemon does not answer after %u messages\n", sent + 1);
            return 1;
        }
    }
    printf("done\n");
    itc_exit();
    return 0;
}
