// Another client of the daemon, a process of its own that a test may kill: opens a session, creates the links it is
// told of, and says in one line each what came of it. Stays until it is ended by SIGTERM.
//
//   e2e-client NAME [PORT[=FAR_MAC] VLAN]...
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "iemli_client.hpp"
#include "sighandler.h"

namespace
{

constexpr uint32_t CLIENT_REF = 7;
constexpr const char *FAR_MAC = "02:00:00:00:A1:FE"; // of the first port of the stage
constexpr uint32_t PUBLISHED_BOUND_MS = 10000;

const char *outcome_text(const iemli_answer &answer)
{
    switch (answer.outcome) {
    case iemli_outcome::confirmed:
        return "confirmed";
    case iemli_outcome::rejected:
        return iemli_client_reason_name(answer.reason);
    case iemli_outcome::timed_out:
        return "not answered";
    case iemli_outcome::lost:
        return "lost";
    }
    return "";
}

// Six bytes in hexadecimal, a colon between each two.
mac_address mac_of(const char *text)
{
    mac_address mac{};
    for (uint8_t &byte : mac.byte) {
        char *end = nullptr;
        byte = static_cast<uint8_t>(strtoul(text, &end, 16));
        text = *end == ':' ? end + 1 : end;
    }
    return mac;
}

void create(iemli_client &client, const std::string &port, const char *vlan)
{
    const size_t equals = port.find('=');
    iemli_link_wish wish;
    wish.port = port.substr(0, equals);
    wish.vlan = static_cast<uint16_t>(strtoul(vlan, nullptr, 10));
    wish.far_cpm_mac = mac_of(equals == std::string::npos ? FAR_MAC : port.c_str() + equals + 1);
    wish.app_links = {{{{0x06, 1, 1, 1, 1, 1}}, {{0x06, 1, 1, 1, 1, 0xFE}}}};
    printf("create: %s\n", outcome_text(iemli_client_create_link(client, wish)));
}

void end(int) { exit(0); }

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    set_signal_handler(end);
    iemli_client client;
    if (argc < 2 || itc_init(1, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox(argv[1], 0) == ITC_NO_MBOX ||
        !iemli_client_start(client, CLIENT_REF) || !iemli_client_wait_published(client, PUBLISHED_BOUND_MS)) {
        printf("no service\n");
        return 1;
    }
    printf("open: %s\n", outcome_text(iemli_client_open(client)));
    for (int i = 2; i + 1 < argc; i += 2) {
        create(client, argv[i], argv[i + 1]);
    }
    printf("ready\n");
    for (;;) {
        auto event = iemli_client_next_event(client, 3600000);
        if (event && event->kind == iemli_event_kind::link_status) {
            printf("link %u: %s\n", event->link_ref, iemli_client_status_text(event->status, event->disabled_reason));
        }
    }
}
