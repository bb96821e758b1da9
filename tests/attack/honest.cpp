// The client that the attacks are measured at. It has two links, one whose far end answers and one whose far end does
// not, and asks all the time: where a mailbox is, and for a port's MAC. What it sees stands in honest_report.hpp.
//
//   attack-honest links FILE LIVING_PORT LIVING_VLAN LIVING_MAC DEAD_PORT DEAD_VLAN DEAD_MAC both|one
//   attack-honest locate FILE             only asks where mailboxes are
//   attack-honest operator FILE           opens a session and closes it again, all the time
//
// "both": the dead link's far end answers at first; it is told in `state` when both are enabled.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include "honest_report.hpp"
#include "iemli_client.hpp"

namespace
{

using clock_type = std::chrono::steady_clock;

constexpr const char *OFTEN_ASKED = "kap-vorn";
constexpr int PAUSE_MS = 2;

struct honest {
    honest_report *report = nullptr;
    iemli_client client;
    iemli_link_wish living;
    iemli_link_wish dead;
    uint32_t living_ref = 0;
    uint32_t dead_ref = 0;
    bool living_enabled = false;
    bool dead_enabled = false;
};

honest_report *map_report(const char *path)
{
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    void *at = mmap(nullptr, sizeof(honest_report), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return fd < 0 || at == MAP_FAILED ? nullptr : static_cast<honest_report *>(at);
}

void keep(honest_calls &calls, clock_type::time_point begun, bool good)
{
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(clock_type::now() - begun).count();
    if (calls.count < HONEST_SAMPLES) {
        calls.microseconds[calls.count] = static_cast<uint32_t>(took);
        calls.count++;
    }
    calls.failed += good ? 0 : 1;
}

mac_address parse_mac(const char *text)
{
    mac_address mac{};
    unsigned b[6] = {};
    if (sscanf(text, "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) != 6) {
        fprintf(stderr, "not a MAC: %s\n", text);
        exit(2);
    }
    for (int i = 0; i < 6; i++) {
        mac.byte[i] = static_cast<uint8_t>(b[i]);
    }
    return mac;
}

iemli_link_wish parse_wish(char **words)
{
    iemli_link_wish wish;
    wish.port = words[0];
    wish.vlan = static_cast<uint16_t>(strtoul(words[1], nullptr, 10));
    wish.far_cpm_mac = parse_mac(words[2]);
    const auto low = static_cast<uint8_t>(wish.vlan);
    wish.app_links.push_back({{{0x06, 0, low, 0, 1, 0x01}}, {{0x06, 0, low, 0, 1, 0xFE}}});
    return wish;
}

void take_event(honest &h, const iemli_event &event)
{
    const bool counts = h.report->state == HONEST_READY;
    switch (event.kind) {
    case iemli_event_kind::link_status: {
        const bool up = event.status == IML_LINK_ENABLED;
        const bool is_living = event.link_ref == h.living_ref;
        printf("link %u (%s): %s\n", event.link_ref, is_living ? "living" : "dead",
               iemli_client_status_text(event.status, event.disabled_reason));
        if (counts && is_living && !up) {
            h.report->false_downs++;
        }
        if (counts && !is_living && up) {
            h.report->false_ups++;
        }
        (is_living ? h.living_enabled : h.dead_enabled) = up;
        break;
    }
    case iemli_event_kind::withdrawn:
    case iemli_event_kind::server_died:
        printf("the service is gone\n");
        h.report->withdrawals++;
        if (counts) {
            h.report->false_downs++; // the living link went with its session
        }
        h.living_ref = h.dead_ref = 0;
        h.living_enabled = h.dead_enabled = false;
        break;
    default:
        break;
    }
}

void listen(honest &h, uint32_t ms)
{
    while (auto event = iemli_client_next_event(h.client, ms)) {
        take_event(h, *event);
        ms = 0;
    }
}

void make_link(honest &h, const iemli_link_wish &wish, uint32_t &link_ref)
{
    if (link_ref == 0) {
        const iemli_answer answer = iemli_client_create_link(h.client, wish);
        if (answer.outcome == iemli_outcome::confirmed) {
            link_ref = answer.link_ref;
            printf("link %u in VLAN %u\n", link_ref, wish.vlan);
        } else {
            printf("no link in VLAN %u: %s\n", wish.vlan, iemli_client_reason_name(answer.reason));
        }
    }
}

// A session and both links, whatever has become of the last ones.
void make_good(honest &h)
{
    if (h.client.server_ref == 0 && h.client.published) {
        const iemli_answer answer = iemli_client_open(h.client);
        if (answer.outcome == iemli_outcome::rejected) {
            h.report->refused_sessions++;
        }
    }
    if (h.client.server_ref != 0) {
        make_link(h, h.living, h.living_ref);
        make_link(h, h.dead, h.dead_ref);
    }
}

void locate(honest &h)
{
    const auto begun = clock_type::now();
    const bool good = itc_locate(OFTEN_ASKED) != ITC_NO_MBOX;
    if (h.report->measuring != 0) {
        keep(h.report->locates, begun, good);
    }
}

void request(honest &h)
{
    const auto begun = clock_type::now();
    const iemli_answer answer = iemli_client_get_mac(h.client, h.living.port, h.living.mp_id);
    if (h.report->measuring != 0) {
        keep(h.report->requests, begun, answer.outcome == iemli_outcome::confirmed);
    }
}

// The registry is lost when a wait ends early.
void expect_registry()
{
    constexpr uint32_t NOTHING[] = {0};
    const auto begun = clock_type::now();
    itc_receive(NOTHING, PAUSE_MS, ITC_FROM_ANY);
    if (clock_type::now() - begun < std::chrono::milliseconds(PAUSE_MS - 1)) {
        printf("the registry is lost\n");
        exit(1);
    }
}

void work_with_links(honest &h, bool both)
{
    bool stood = !both;
    while (h.report->ending == 0) {
        h.report->seen = h.report->measuring.load();
        locate(h);
        make_good(h);
        request(h);
        listen(h, 0);
        if (!stood && h.living_enabled && h.dead_enabled) {
            stood = true;
            h.report->state = HONEST_LIVING;
        }
        if (stood && h.report->state != HONEST_READY && h.living_enabled && h.dead_ref != 0 && !h.dead_enabled) {
            h.report->state = HONEST_READY;
        }
        expect_registry();
    }
    iemli_client_close(h.client);
}

void work_locating(honest &h)
{
    h.report->state = HONEST_READY;
    while (h.report->ending == 0) {
        h.report->seen = h.report->measuring.load();
        const auto begun = clock_type::now();
        itc_locate(OFTEN_ASKED);
        if (h.report->measuring != 0) {
            keep(h.report->locates, begun, true);
        }
        expect_registry();
    }
}

void work_as_operator(honest &h)
{
    h.report->state = HONEST_READY;
    while (h.report->ending == 0) {
        listen(h, 20);
        if (!h.client.published) {
            continue;
        }
        const iemli_answer answer = iemli_client_open(h.client);
        if (answer.outcome == iemli_outcome::confirmed) {
            h.report->sessions++;
            iemli_client_close(h.client);
        } else {
            h.report->refused_sessions++;
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string mode = argc > 2 ? argv[1] : "";
    honest h;
    h.report = argc > 2 ? map_report(argv[2]) : nullptr;
    if (h.report == nullptr || (mode == "links" && argc != 10)) {
        fprintf(stderr, "attack-honest: see its source\n");
        return 2;
    }
    const std::string mailbox = "kap-linkd-" + mode;
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox(mailbox.c_str(), 0) == ITC_NO_MBOX) {
        printf("the registry does not let it in\n");
        return 1;
    }
    if (mode == "locate") {
        work_locating(h);
        return 0;
    }
    if (!iemli_client_start(h.client, 1) || !iemli_client_wait_published(h.client, 20000)) {
        printf("no service\n");
        return 1;
    }
    if (mode == "operator") {
        work_as_operator(h);
    } else {
        h.living = parse_wish(argv + 3);
        h.dead = parse_wish(argv + 6);
        work_with_links(h, strcmp(argv[9], "both") == 0);
    }
    itc_exit();
    return 0;
}
