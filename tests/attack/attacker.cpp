// What one hostile process does to the registry and the daemon, for as long as it is let: one way per call.
//
//   attack-hostile WAY SECONDS [ARGUMENT...]
//
// It ends with 0 when the time is over, whatever became of its connections: it makes new ones. What it was not to get
// stands on standard output as "gained: ...", and what it did as "did: ...". Ways that need a session are called for a
// user who may have one.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <set>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "clients/aasi_messages.hpp"
#include "clients/emi_messages.hpp"
#include "clients/fmi_messages.hpp"
#include "clients/iepcsi_messages.hpp"
#include "clients/pmi_messages.hpp"
#include "ecpri.hpp"
#include "iemli_client.hpp"
#include "manager/links/link_supervision.hpp"
#include "ns.h"
#include "raw.hpp"
#include "shell/shell_messages.hpp"

namespace
{

using clock_type = std::chrono::steady_clock;
using arguments = std::vector<std::string>;

constexpr const char *DAEMON = "kap-vorn";
constexpr uint16_t NO_SENDER = itc_wire::no_box;
constexpr uint16_t SENDER = 1;

clock_type::time_point the_end;

bool time_is_left() { return clock_type::now() < the_end; }

void rest(int ms) { poll(nullptr, 0, ms); }

void gained(const std::string &what)
{
    static std::set<std::string> said;
    if (said.insert(what).second) {
        printf("gained: %s\n", what.c_str());
    }
}

void did(uint64_t count, const char *what) { printf("did: %llu %s\n", static_cast<unsigned long long>(count), what); }

void raise_own_descriptor_limit()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// A connection with a box of its own where that is allowed, and a channel to the daemon. Tries until the time is over.
bool meet_daemon(raw_link &link, raw_channel &channel)
{
    while (time_is_left()) {
        channel = raw_channel();
        if (raw_hello(link)) {
            raw_create_box(link, SENDER, "hostile-" + std::to_string(getpid()));
            if (raw_meet(link, DAEMON, channel)) {
                return true;
            }
        }
        rest(20);
    }
    return false;
}

template <typename Message> bool say(raw_channel &channel, const Message &message)
{
    return raw_message(channel, SENDER, &message, sizeof message);
}

// ---- Messages that are somebody else's ------------------------------------------------------------------------------

void forge_supervision(const arguments & /*words*/)
{
    raw_link link;
    raw_channel daemon;
    uint64_t sent = 0;
    while (meet_daemon(link, daemon)) {
        bool goes_on = true;
        while (goes_on && time_is_left()) {
            for (uint32_t session = 1; session <= 64 && goes_on; session++) {
                const supervision_ind ind{SUPERVISION_IND, session, SUPERVISION_ANSWERED, 0, 1000};
                goes_on = say(daemon, ind);
                sent++;
            }
            rest(10);
        }
    }
    did(sent, "results of supervision");
}

client_plain_msg plain(uint32_t number)
{
    client_plain_msg msg{};
    msg.header.msgno = number;
    return msg;
}

void forge_withdrawal(const arguments & /*words*/)
{
    raw_link link;
    raw_channel daemon;
    uint64_t sent = 0;
    while (meet_daemon(link, daemon)) {
        bool goes_on = true;
        while (goes_on && time_is_left()) {
            for (const uint32_t number :
                 {+PMI_SERVER_DOWN_IND, +IEPCSI_SERVER_DOWN_IND, +EMI_SERVER_DOWN, +FMI_SERVER_DOWN}) {
                goes_on = goes_on && say(daemon, plain(number));
                sent++;
            }
            const ns_service_ind removed{NS_SERVICE_REMOVED_IND, 1, 0, {}};
            goes_on = goes_on && say(daemon, removed);
            rest(50);
        }
    }
    did(sent, "messages that a server is gone");
}

// What the daemon sends to whom it takes for a server.
void look_for_requests(raw_channel &daemon)
{
    char bytes[65536];
    const ssize_t got = recv(daemon.fd, bytes, sizeof bytes, MSG_DONTWAIT);
    for (ssize_t at = 0; at + 12 <= got;) {
        itc_wire::channel_frame head;
        uint32_t number = 0;
        memcpy(&head, bytes + at, sizeof head);
        memcpy(&number, bytes + at + sizeof head, sizeof number);
        if (number >= PMI_SERVER_UP_IND && number <= PMI_DISABLE_PORT_VLAN_REJ) {
            gained(std::string("is asked as PMI server (") + pmi_msg_to_string(number) + ")");
        }
        at += static_cast<ssize_t>(sizeof head + head.length);
    }
}

void pose_as_server(const arguments & /*words*/)
{
    raw_link link;
    raw_channel daemon;
    uint64_t sent = 0;
    while (meet_daemon(link, daemon)) {
        bool goes_on = true;
        while (goes_on && time_is_left()) {
            goes_on = say(daemon, plain(PMI_SERVER_UP_IND));
            sent++;
            rest(20);
            look_for_requests(daemon);
        }
    }
    did(sent, "messages that the PMI server is up");
}

void take_name(const arguments &words)
{
    raw_link link;
    uint64_t tries = 0;
    while (time_is_left()) {
        if (link.fd < 0 && !raw_hello(link)) {
            rest(5);
            continue;
        }
        for (const std::string &name : words) {
            const int error = raw_create_box(link, SENDER, name);
            tries++;
            if (error == 0) {
                gained("has the name " + name);
                itc_wire::writer frame(itc_wire::delete_box, 4);
                raw_send(link, frame.u32(itc_wire::mbox_of(link.process, SENDER)));
                raw_next(link, 1000);
            }
        }
        rest(2);
    }
    did(tries, "tries to take a name");
}

// A process that was, and whether its number is given again.
void exhaust_ids(const arguments & /*words*/)
{
    raw_link link;
    while (!raw_hello(link) && time_is_left()) {
        rest(10);
    }
    const uint32_t wanted = link.process;
    const auto begun = clock_type::now();
    raw_close(link);
    uint64_t hellos = 0;
    bool came = false;
    std::string pair;
    {
        itc_wire::writer hello(itc_wire::hello, 1);
        itc_wire::writer bye(itc_wire::bye, 2);
        pair = std::string(hello.u32(itc_wire::version).frame()) + std::string(bye.frame());
    }
    constexpr int AT_ONCE = 64;
    std::string many;
    for (int i = 0; i < AT_ONCE; i++) {
        many += pair;
    }
    while (time_is_left()) {
        if (link.fd < 0 && !raw_connect(link)) {
            rest(5);
            continue;
        }
        if (!raw_send_bytes(link, many)) {
            raw_close(link);
            continue;
        }
        for (int i = 0; i < 2 * AT_ONCE; i++) {
            const auto frame = raw_next(link, 1000);
            if (!frame) {
                raw_close(link);
                break;
            }
            if (frame->type == itc_wire::welcome) {
                hellos++;
                if (frame->word(0) == wanted && !came) {
                    came = true;
                    const std::chrono::duration<double> took = clock_type::now() - begun;
                    char text[96];
                    snprintf(text, sizeof text, "an old id after %llu hellos (%.1f s)",
                             static_cast<unsigned long long>(hellos), took.count());
                    gained(text);
                }
            }
        }
    }
    did(hellos, "hellos");
}

// ---- The registry ---------------------------------------------------------------------------------------------------

// Requests in one piece, and all their answers read meanwhile.
bool ask_many(raw_link &link, const std::vector<std::string> &frames)
{
    constexpr size_t AT_ONCE = 32;
    for (size_t at = 0; at < frames.size() && time_is_left();) {
        std::string piece;
        for (size_t i = 0; i < AT_ONCE && at < frames.size(); i++, at++) {
            piece += frames[at];
        }
        if (!raw_send_bytes(link, piece) || !raw_discard(link)) {
            return false;
        }
    }
    return true;
}

std::vector<std::string> everything_of(const raw_link &link, uint32_t count)
{
    std::vector<std::string> frames;
    for (uint32_t i = 1; i < count; i++) {
        const uint32_t mbox = itc_wire::mbox_of(link.process, i);
        const std::string name = "hostile-" + std::to_string(link.process) + "-" + std::to_string(i);
        itc_wire::writer create(itc_wire::create_box, i);
        frames.emplace_back(create.u32(mbox).text(name).frame());
        itc_wire::writer publish(itc_wire::publish, i);
        frames.emplace_back(publish.u32(mbox).text(name + "s").text("").text("").frame());
        itc_wire::writer subscribe(itc_wire::subscribe, i);
        frames.emplace_back(subscribe.u32(mbox).u32(i).text(name + "s").text("").frame());
        itc_wire::writer wait(itc_wire::await_name, i);
        frames.emplace_back(wait.text(name + "-nobody").frame());
        itc_wire::writer watch(itc_wire::monitor, i + count);
        frames.emplace_back(watch.u32(mbox).frame());
    }
    return frames;
}

void big_close(const arguments & /*words*/)
{
    uint64_t closed = 0;
    while (time_is_left()) {
        raw_link link;
        if (raw_hello(link) && ask_many(link, everything_of(link, itc_wire::box_limit))) {
            closed++;
        }
        raw_close(link);
        rest(10);
    }
    did(closed, "connections with 4,095 of each closed");
}

void say_nothing(const arguments & /*words*/)
{
    raise_own_descriptor_limit();
    constexpr size_t MOST = 5000;
    std::vector<raw_link> links(MOST);
    uint64_t made = 0;
    uint64_t ended = 0;
    size_t most = 0;
    while (time_is_left()) {
        size_t open = 0;
        for (raw_link &link : links) {
            if (!time_is_left()) {
                break;
            }
            if (link.fd >= 0 && !raw_discard(link)) {
                ended++;
            }
            if (link.fd < 0) {
                made += raw_connect(link) ? 1 : 0;
            }
            open += link.fd >= 0 ? 1 : 0;
        }
        most = std::max(most, open);
        rest(20);
    }
    did(most, "connections open at once that say nothing");
    did(made, "made");
    did(ended, "ended by the registry");
}

// Every process is introduced to every other, and none takes what comes with it.
void exhaust_descriptors(const arguments & /*words*/)
{
    raise_own_descriptor_limit();
    constexpr size_t PROCESSES = 60;
    uint64_t rounds = 0;
    while (time_is_left()) {
        std::vector<raw_link> links(PROCESSES);
        std::vector<raw_link> silent(400);
        for (raw_link &link : links) {
            (void)raw_hello(link);
        }
        for (raw_link &link : links) {
            std::string frames;
            for (const raw_link &other : links) {
                itc_wire::writer introduce(itc_wire::introduce, 0);
                frames += introduce.u32(other.process).frame();
            }
            itc_wire::writer locate(itc_wire::locate, 1);
            frames += locate.text(DAEMON).frame();
            raw_send_bytes(link, frames);
        }
        for (raw_link &link : silent) {
            (void)raw_connect(link);
        }
        rest(500);
        rounds++;
    }
    did(rounds, "times 60 processes introduced to each other");
}

// All at once from many processes: the one they want to meet is busy.
void introduce_many(const arguments & /*words*/)
{
    raise_own_descriptor_limit();
    constexpr size_t PROCESSES = 900;
    uint64_t rounds = 0;
    while (time_is_left()) {
        std::vector<raw_link> links(PROCESSES);
        for (raw_link &link : links) {
            if (!time_is_left() || !raw_hello(link)) {
                break;
            }
        }
        itc_wire::writer locate(itc_wire::locate, 1);
        const std::string frame(locate.text(DAEMON).frame());
        for (raw_link &link : links) {
            if (link.process != 0) {
                raw_send_bytes(link, frame);
            }
        }
        rest(100);
        rounds++;
    }
    did(rounds, "times 900 locates");
}

void publish_again_and_again(const arguments & /*words*/)
{
    raw_link link;
    uint64_t rounds = 0;
    while (time_is_left()) {
        if (link.fd < 0) {
            if (!raw_hello(link)) {
                rest(10);
                continue;
            }
            raw_create_box(link, SENDER, "hostile-" + std::to_string(getpid()));
        }
        std::vector<std::string> frames;
        const uint32_t mbox = itc_wire::mbox_of(link.process, SENDER);
        for (uint32_t i = 0; i < 256; i++) {
            for (const auto type : {itc_wire::publish, itc_wire::unpublish}) {
                itc_wire::writer frame(type, i);
                frames.emplace_back(
                    frame.u32(mbox).text(AASI_SERVICE_NAME).text("hostile-" + std::to_string(i)).text(DAEMON).frame());
            }
        }
        if (!ask_many(link, frames)) {
            raw_close(link);
        }
        rounds++;
    }
    did(rounds * 256, "services published and withdrawn");
}

// ---- Messages to the daemon -----------------------------------------------------------------------------------------

// The start of messages, and never their end.
void send_half(const arguments & /*words*/)
{
    raise_own_descriptor_limit();
    constexpr size_t CONNECTIONS = 200;
    constexpr uint32_t SIZES[] = {1'000'000, 64u << 20, 16u << 20, 250'000};
    const std::string zeros(64u << 20, '\0');
    uint64_t sent = 0;
    while (time_is_left()) {
        std::vector<raw_link> links(CONNECTIONS);
        std::vector<raw_channel> channels(CONNECTIONS);
        for (size_t i = 0; i < CONNECTIONS && time_is_left(); i++) {
            if (!raw_hello(links[i]) || !raw_meet(links[i], DAEMON, channels[i])) {
                continue;
            }
            const uint32_t size = SIZES[i % std::size(SIZES)];
            const itc_wire::channel_frame head{size, static_cast<uint16_t>(itc_wire::box_of(channels[i].mbox)),
                                               NO_SENDER};
            raw_bytes(channels[i], &head, sizeof head, 100);
            sent += raw_bytes(channels[i], zeros.data(), size - 1, 50);
        }
        // Held for a while, as long as there is time.
        for (int i = 0; i < 20 && time_is_left(); i++) {
            rest(100);
        }
    }
    did(sent >> 20, "MiB of messages without an end");
}

void send_on(uint32_t length, uint16_t box, size_t connections, const char *what)
{
    std::vector<raw_link> links(connections);
    std::vector<raw_channel> channels(connections);
    const std::string zeros(1u << 20, '\0');
    uint64_t sent = 0;
    while (time_is_left()) {
        for (size_t i = 0; i < connections && time_is_left(); i++) {
            if (channels[i].fd < 0) {
                if (!raw_hello(links[i]) || !raw_meet(links[i], DAEMON, channels[i])) {
                    channels[i] = raw_channel();
                    rest(10);
                    continue;
                }
                const uint16_t to = box != 0 ? box : static_cast<uint16_t>(itc_wire::box_of(channels[i].mbox));
                const itc_wire::channel_frame head{length, to, NO_SENDER};
                raw_bytes(channels[i], &head, sizeof head, 1000);
            }
            const size_t put = raw_bytes(channels[i], zeros.data(), zeros.size(), 20);
            sent += put;
            if (put == 0 && !raw_read_away(channels[i])) {
                channels[i] = raw_channel();
            }
        }
    }
    did(sent >> 20, what);
}

void send_giants(const arguments & /*words*/) { send_on(1u << 30, 0, 4, "MiB of messages of 1 GiB"); }

void send_to_nobody(const arguments & /*words*/)
{
    raw_link link;
    raw_channel daemon;
    const std::string zeros(4u << 20, '\0');
    uint64_t sent = 0;
    while (meet_daemon(link, daemon)) {
        const uint32_t real = daemon.mbox;
        for (bool goes_on = true; goes_on && time_is_left(); sent += goes_on ? 1 : 0) {
            daemon.mbox = itc_wire::mbox_of(itc_wire::process_of(real), 4000);
            goes_on = raw_message(daemon, NO_SENDER, zeros.data(), zeros.size());
        }
    }
    did(sent, "messages of 4 MiB to a mailbox that is not there");
}

// Ten at a time, each a process of its own.
void flood(const arguments & /*words*/)
{
    constexpr int SENDERS = 10;
    for (int i = 0; i < SENDERS; i++) {
        if (fork() != 0) {
            continue;
        }
        raw_link link;
        raw_channel daemon;
        uint64_t sent = 0;
        while (meet_daemon(link, daemon)) {
            iemli_plain_msg request{};
            request.header.msgno = IEMLI_TERM_SERVICE_REQ; // of a session that is not there
            std::string many;
            const itc_wire::channel_frame head{sizeof request, static_cast<uint16_t>(itc_wire::box_of(daemon.mbox)),
                                               SENDER};
            for (int m = 0; m < 100; m++) {
                many.append(reinterpret_cast<const char *>(&head), sizeof head);
                many.append(reinterpret_cast<const char *>(&request), sizeof request);
            }
            while (time_is_left()) {
                const size_t put = raw_bytes(daemon, many.data(), many.size(), 100);
                sent += put / (sizeof head + sizeof request);
                if (put < many.size()) {
                    break;
                }
                if (!raw_read_away(daemon)) {
                    break;
                }
            }
        }
        did(sent, "small messages");
        fflush(stdout);
        _exit(0);
    }
    while (wait(nullptr) > 0) {
    }
}

// Asks for what is long, and takes nothing of it.
void never_read(const arguments & /*words*/)
{
    constexpr size_t CONNECTIONS = 8;
    std::vector<raw_link> links(CONNECTIONS);
    std::vector<raw_channel> channels(CONNECTIONS);
    uint64_t sent = 0;
    while (time_is_left()) {
        bool took = false;
        for (size_t i = 0; i < CONNECTIONS; i++) {
            if (channels[i].fd < 0 && (!raw_hello(links[i]) || !raw_meet(links[i], DAEMON, channels[i]))) {
                channels[i] = raw_channel();
                continue;
            }
            const uint32_t question = IECTM_COLI_IML_LINK_LIST_REQ;
            iemli_get_mac_req request{};
            request.header.msgno = IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ;
            const bool list = sent % 2 == 0;
            const bool put = list ? raw_message(channels[i], SENDER, &question, sizeof question, 1)
                                  : raw_message(channels[i], SENDER, &request, sizeof request, 1);
            sent += put ? 1 : 0;
            took = took || put;
        }
        if (!took) {
            rest(5);
        }
    }
    did(sent, "requests whose answers nobody reads");
}

// Every number of every protocol, cut off or of nobody, and frames to the registry that make no sense.
void flood_logs(const arguments & /*words*/)
{
    constexpr uint32_t FIRSTS[] = {0x1B0E00, 0x1B1041, 0x1B10C0, 0x1B0F50, 0x1B0CE2, 0x1900000, 0x1A004C0, 0x77};
    raw_link link;
    raw_channel daemon;
    uint64_t sent = 0;
    uint64_t bad_frames = 0;
    while (meet_daemon(link, daemon)) {
        for (bool goes_on = true; goes_on && time_is_left();) {
            for (const uint32_t first : FIRSTS) {
                for (uint32_t number = first; number < first + 24 && goes_on; number++) {
                    const uint32_t words[2] = {number, 0};
                    goes_on = raw_message(daemon, SENDER, words, sizeof words);
                    sent++;
                }
            }
            raw_read_away(daemon);
            raw_link bad;
            if (raw_connect(bad)) {
                raw_send_bytes(bad, std::string("\x0c\0\0\0\x63\0\0\0\0\0\0\0", 12));
                bad_frames++;
            }
        }
    }
    did(sent, "messages that are worth a line");
    did(bad_frames, "frames that are");
}

// ---- With a session -------------------------------------------------------------------------------------------------

struct session {
    iemli_client client;
    mac_address far_mac = {{0x02, 0, 0, 0, 0xEE, 0x01}};
};

// True with a session. A service that went away comes back.
bool have_session(session &s)
{
    static bool up = false;
    if (!up) {
        const std::string name = "kap-operator-" + std::to_string(getpid());
        up = itc_init(1, 0, nullptr, nullptr, 0) == 0 && itc_create_mailbox(name.c_str(), 0) != ITC_NO_MBOX &&
             iemli_client_start(s.client, 9);
        if (!up) {
            printf("did: nothing, the registry does not let it in\n");
            the_end = clock_type::now();
            return false;
        }
    }
    while (iemli_client_next_event(s.client, 0)) {
    }
    return s.client.server_ref != 0 || (iemli_client_wait_published(s.client, 200) &&
                                        iemli_client_open(s.client).outcome == iemli_outcome::confirmed);
}

std::vector<IemliAppLink> app_links(uint32_t count)
{
    std::vector<IemliAppLink> list;
    for (uint32_t i = 0; i < count; i++) {
        const auto high = static_cast<uint8_t>(i >> 8);
        const auto low = static_cast<uint8_t>(i);
        list.push_back({{{0x0A, 0, 1, high, low, 0x01}}, {{0x0A, 0, 1, high, low, 0xFE}}});
    }
    return list;
}

iemli_link_wish wish_in(const session &s, uint16_t vlan, uint32_t count)
{
    iemli_link_wish wish;
    wish.port = "TN_A";
    wish.vlan = vlan;
    wish.far_cpm_mac = s.far_mac;
    wish.app_links = app_links(count);
    return wish;
}

void create_again_and_again(session &s, const iemli_link_wish &wish, const std::string &forbidden, int pause_ms)
{
    uint64_t confirmed = 0;
    uint64_t rejected = 0;
    while (time_is_left()) {
        if (!have_session(s)) {
            rest(20);
            continue;
        }
        const iemli_answer answer = iemli_client_create_link(s.client, wish);
        if (answer.outcome == iemli_outcome::confirmed) {
            confirmed++;
            if (!forbidden.empty()) {
                gained(forbidden);
            }
            iemli_client_delete_link(s.client, answer.link_ref);
        } else {
            rejected++;
        }
        rest(pause_ms);
    }
    did(confirmed, "creates confirmed");
    did(rejected, "creates not confirmed");
}

void create_large(const arguments & /*words*/)
{
    session s;
    create_again_and_again(s, wish_in(s, 200, 10'000), "", 0);
}

void create_in(const arguments &words)
{
    session s;
    const auto vlan = static_cast<uint16_t>(strtoul(words.at(0).c_str(), nullptr, 10));
    create_again_and_again(s, wish_in(s, vlan, 1), words.size() > 1 ? words[1] : "", 1);
}

// Requests wait behind one that is with the lower layer, and the session ends with them.
void queue_and_end(const arguments & /*words*/)
{
    session s;
    uint64_t rounds = 0;
    while (time_is_left()) {
        if (!have_session(s)) {
            rest(20);
            continue;
        }
        iemli_client_send_create(s.client, wish_in(s, 200, 1));
        for (int i = 0; i < 40; i++) {
            iemli_client_send_create(s.client, wish_in(s, 200, 5'000));
        }
        const uint32_t bound = s.client.bound_ms;
        s.client.bound_ms = 1000;
        iemli_client_close(s.client);
        s.client.bound_ms = bound;
        s.client.server_ref = 0;
        s.client.requests.clear();
        rounds++;
    }
    did(rounds, "sessions ended with 40 requests waiting");
}

// Every session there is, and not a word more.
void hold_sessions(const arguments & /*words*/)
{
    constexpr size_t MOST = 4;
    std::vector<raw_link> links(MOST);
    std::vector<raw_channel> channels(MOST);
    for (size_t i = 0; i < MOST; i++) {
        if (raw_hello(links[i]) && raw_create_box(links[i], SENDER, "hostile-" + std::to_string(i)) == 0 &&
            raw_meet(links[i], DAEMON, channels[i])) {
            iemli_init_service_req request{};
            request.header = {IEMLI_INIT_SERVICE_REQ, static_cast<uint32_t>(i), static_cast<uint32_t>(i)};
            request.pv_1 = IEMLI_PROTOCOL_VERSION;
            say(channels[i], request);
        }
    }
    uint64_t held = 0;
    while (time_is_left()) {
        rest(100);
        for (raw_channel &channel : channels) {
            char bytes[256];
            uint32_t number = 0;
            const ssize_t got = channel.fd < 0 ? 0 : recv(channel.fd, bytes, sizeof bytes, MSG_DONTWAIT);
            if (got >= 12) {
                memcpy(&number, bytes + sizeof(itc_wire::channel_frame), sizeof number);
            }
            held += number == IEMLI_INIT_SERVICE_CFM ? 1 : 0;
        }
    }
    did(held, "sessions held");
}

// ---- Other ways -----------------------------------------------------------------------------------------------------

// Every measurement id once a second, as if from the far end, with dummy bytes and without. Run where the far end is.
//   INTERFACE FAR_MAC NEAR_MAC VLAN
void answer_blindly(const arguments &words)
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = static_cast<int>(if_nametoindex(words.at(0).c_str()));
    to.sll_halen = 6;
    uint8_t frame[128] = {};
    unsigned b[12] = {};
    sscanf(words.at(2).c_str(), "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]);
    sscanf(words.at(1).c_str(), "%x:%x:%x:%x:%x:%x", &b[6], &b[7], &b[8], &b[9], &b[10], &b[11]);
    for (size_t i = 0; i < 12; i++) {
        frame[i] = static_cast<uint8_t>(b[i]);
    }
    const auto vlan = static_cast<uint16_t>(strtoul(words.at(3).c_str(), nullptr, 10));
    frame[12] = 0x81;
    frame[14] = static_cast<uint8_t>(vlan >> 8);
    frame[15] = static_cast<uint8_t>(vlan);
    frame[16] = 0xAE;
    frame[17] = 0xFE;
    frame[18] = ecpri::REVISION_1;
    frame[19] = ecpri::ONE_WAY_DELAY_MEASUREMENT;
    frame[23] = ecpri::ACTION_RESPONSE;
    uint64_t sent = 0;
    while (fd >= 0 && time_is_left()) {
        for (const size_t dummy : {size_t{0}, size_t{22}}) {
            const size_t payload = ecpri::MIN_PAYLOAD_SIZE + dummy;
            frame[21] = static_cast<uint8_t>(payload);
            for (unsigned id = 0; id < 256; id++) {
                frame[22] = static_cast<uint8_t>(id);
                const size_t size = 4 + ecpri::MIN_FRAME_SIZE + dummy;
                sent +=
                    sendto(fd, frame, std::max<size_t>(size, 64), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) > 0
                        ? 1
                        : 0;
                if (id % 16 == 15) {
                    rest(1);
                }
            }
        }
        rest(900);
    }
    did(sent, "blind answers");
}

// The file behind a trace mask becomes shorter than what is mapped of it.
void truncate_mask(const arguments &words)
{
    uint64_t times = 0;
    while (time_is_left()) {
        times += truncate(words.at(0).c_str(), 0) == 0 ? 1 : 0;
        rest(50);
    }
    did(times, "times the mask's file truncated");
}

void do_nothing(const arguments & /*words*/)
{
    while (time_is_left()) {
        rest(100);
    }
}

const std::map<std::string, void (*)(const arguments &)> WAYS = {
    {"nothing", do_nothing},
    {"forge-supervision", forge_supervision},
    {"forge-withdrawal", forge_withdrawal},
    {"pose-as-server", pose_as_server},
    {"take-name", take_name},
    {"exhaust-ids", exhaust_ids},
    {"big-close", big_close},
    {"say-nothing", say_nothing},
    {"exhaust-descriptors", exhaust_descriptors},
    {"introduce-many", introduce_many},
    {"publish", publish_again_and_again},
    {"half-sent", send_half},
    {"to-nobody", send_to_nobody},
    {"giants", send_giants},
    {"flood", flood},
    {"never-read", never_read},
    {"flood-logs", flood_logs},
    {"create-large", create_large},
    {"create-in", create_in},
    {"queue-and-end", queue_and_end},
    {"hold-sessions", hold_sessions},
    {"blind", answer_blindly},
    {"truncate-mask", truncate_mask},
};

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN);
    const auto way = argc > 2 ? WAYS.find(argv[1]) : WAYS.end();
    if (way == WAYS.end()) {
        fprintf(stderr, "usage: attack-hostile WAY SECONDS [ARGUMENT...]\n");
        return 2;
    }
    const auto time = std::chrono::duration<double>(strtod(argv[2], nullptr));
    the_end = clock_type::now() + std::chrono::duration_cast<clock_type::duration>(time);
    way->second(arguments(argv + 3, argv + argc));
    return 0;
}
