#include "capture.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <system_error>

#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "frames.hpp"
#include "itc.h"
#include "link_list/link_list.hpp"
#include "messages.hpp"
#include "pcapng.hpp"
#include "target.hpp"
#include "where.hpp"

namespace capture
{

namespace
{

using clock = std::chrono::steady_clock;

constexpr uint32_t LIST_TIMEOUT_MS = 3000;
constexpr size_t PACKETS_PER_ROUND = 4096;    // of each source, before anything is written
constexpr std::chrono::seconds LAST_WORDS{1}; // for what is still under way when the capture ends
constexpr uid_t NOBODY = 65534;

// Ends the command.
struct failure {
    int status;
    std::string text;
};

// What is in the file of one interface.
struct frames_of {
    std::unique_ptr<frame_source> source;
    uint32_t where = 0;
    uint64_t written = 0;
};

struct packet {
    uint32_t where;
    uint64_t stamp;
    std::vector<uint8_t> bytes;
    uint32_t length;
    direction way;
};

struct session {
    const capture_options &options;
    std::unique_ptr<pcapng_writer> file;
    std::vector<frames_of> frames;
    std::unique_ptr<message_source> messages;
    uint32_t messages_where = 0;
    uint64_t messages_written = 0;
    int signals = -1;

    uint64_t frames_written() const
    {
        uint64_t sum = 0;
        for (const frames_of &f : frames) {
            sum += f.written;
        }
        return sum;
    }
    bool enough() const { return options.count != 0 && frames_written() + messages_written >= options.count; }
};

uint64_t real_time()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

void say(const std::string &line) { (void)fprintf(stderr, "vornctl capture: %s\n", line.c_str()); }

// ---- Before the first packet

mac mac_of(const std::string &text)
{
    mac address{};
    unsigned byte[6] = {};
    int end = 0;
    const int count = sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%n", &byte[0], &byte[1], &byte[2], &byte[3],
                             &byte[4], &byte[5], &end);
    if (count != 6 || static_cast<size_t>(end) != text.size()) {
        throw failure{STATUS_WRONG_USE, "\"" + text + "\" is no MAC address"};
    }
    std::transform(byte, byte + 6, address.begin(), [](unsigned value) { return static_cast<uint8_t>(value); });
    return address;
}

void join_registry()
{
    const int error = itc_init(1, 0, nullptr, nullptr, 0);
    if (error != 0) {
        throw failure{error == EACCES ? STATUS_NOT_ALLOWED : STATUS_NO_REGISTRY,
                      std::string("the registry itcd cannot be reached: ") + strerror(error)};
    }
    if (itc_create_mailbox(("vornctl." + std::to_string(getpid())).c_str(), 0) == ITC_NO_MBOX) {
        throw failure{STATUS_NO_REGISTRY, "the registry itcd gives no mailbox"};
    }
}

link_list::link find_link(uint32_t link_ref)
{
    std::string error;
    const auto links = link_list::fetch(LIST_TIMEOUT_MS, &error);
    if (!links) {
        throw failure{STATUS_NO_DAEMON, error};
    }
    const auto found =
        std::find_if(links->begin(), links->end(), [&](const link_list::link &l) { return l.link_ref == link_ref; });
    if (found == links->end()) {
        throw failure{STATUS_FAILED, "there is no link " + std::to_string(link_ref)};
    }
    return *found;
}

// The ports, and which frames of theirs.
std::vector<std::string> ports_and_filter(const capture_options &o, frame_filter *filter)
{
    *filter = {o.all, o.vlan, {}};
    for (const std::string &far : o.far_ends) {
        filter->far_ends.push_back(mac_of(far));
    }
    if (!o.link_ref) {
        return o.ports;
    }
    const link_list::link link = find_link(*o.link_ref);
    filter->vlan = static_cast<uint16_t>(link.vlan);
    filter->far_ends.push_back(mac_of(link.far_end_cpm_mac));
    for (const link_list::app_link &app : link.app_links) {
        filter->far_ends.push_back(mac_of(app.far_end_mac));
    }
    return {link.port};
}

void look_at_interface(session &s, const port_place &where, const frame_filter &filter)
{
    frames_of f;
    f.source = std::make_unique<frame_source>(where.name_space, where.interface, filter, s.options.snap_length);
    place p;
    p.name = where.interface;
    p.description = where.port.empty() ? "interface" : "port " + where.port;
    p.description += where.name_space.empty() ? "" : " in namespace " + where.name_space;
    p.snap_length = s.options.snap_length;
    p.filter = filter_text(filter);
    f.where = s.file->add_place(p);
    s.frames.push_back(std::move(f));
    say("looking at " + where.interface + ", " + p.description);
}

void look_at_messages(session &s)
{
    try {
        s.messages = std::make_unique<message_source>(s.options.process);
    } catch (const tap_refused &refused) {
        throw failure{refused.error == EACCES     ? STATUS_NOT_ALLOWED
                      : refused.error == ENOENT   ? STATUS_NO_DAEMON
                      : refused.error == ENOTCONN ? STATUS_NO_REGISTRY
                                                  : STATUS_FAILED,
                      refused.text};
    }
    place p;
    p.name = s.options.process;
    p.description = "ITC messages of " + s.options.process;
    p.link_type = LINK_USER0;
    s.messages_where = s.file->add_place(p);
    say("looking at the messages of " + s.options.process);
}

// A signal ends the command as any other up to here: a FIFO that nobody reads holds it up.
void open_file(session &s)
{
    s.file = std::make_unique<pcapng_writer>(open_target(s.options.file), "vornctl capture (kap-vorn)");
}

void open_signals(session &s)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    (void)signal(SIGPIPE, SIG_IGN);
    s.signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

// All is open: what reads packets from here on can do nothing else.
void give_rights_up()
{
    (void)prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (geteuid() == 0) { // where that user is not known to the namespace of users, the rights go all the same
        (void)!setgroups(0, nullptr);
        (void)!setresgid(NOBODY, NOBODY, NOBODY);
        (void)!setresuid(NOBODY, NOBODY, NOBODY);
    }
    __user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capset, &head, none) != 0) {
        throw failure{STATUS_FAILED, std::string("rights cannot be given up: ") + strerror(errno)};
    }
#ifdef KAP_SANITIZED
    (void)prctl(PR_SET_DUMPABLE, 1, 0, 0, 0); // a leak checker looks at its own process
#endif
}

void open_everything(session &s)
{
    const capture_options &o = s.options;
    if (o.messages || o.link_ref || !o.ports.empty()) {
        try {
            join_registry();
        } catch (const failure &) {
            if (o.messages || o.link_ref) { // where a port is, the node's configuration says as well
                throw;
            }
        }
    }
    frame_filter filter;
    const std::vector<std::string> ports = ports_and_filter(o, &filter);
    std::vector<port_place> places;
    for (const std::string &port : ports) {
        places.push_back(find_port(port, o.node_config));
    }
    if (!o.interface.empty()) {
        places.push_back({"", o.interface, o.name_space});
    }
    open_file(s);
    open_signals(s);
    s.file->ends_with(s.signals);
    for (const port_place &where : places) {
        look_at_interface(s, where, filter);
    }
    if (o.messages) {
        look_at_messages(s);
    }
    give_rights_up();
}

// ---- Packets

void take_frames(const frames_of &f, std::vector<packet> &round)
{
    for (size_t i = 0; i < PACKETS_PER_ROUND; i++) {
        auto next = f.source->next();
        if (!next) {
            return;
        }
        round.push_back({f.where, next->stamp, std::move(next->bytes), next->length, next->way});
    }
}

void take_messages(const session &s, std::vector<packet> &round)
{
    for (size_t i = 0; i < PACKETS_PER_ROUND; i++) {
        const auto next = s.messages->next();
        if (!next) {
            return;
        }
        packet p{s.messages_where, next->stamp, {}, 0, next->way};
        p.bytes = message_packet(*next, s.messages->name_of(next->sender), s.messages->name_of(next->receiver),
                                 s.options.snap_length);
        p.length = whole_length(*next, p.bytes.size(), s.options.snap_length);
        round.push_back(std::move(p));
    }
}

void write_packet(session &s, const packet &p)
{
    s.file->packet(p.where, p.stamp, p.bytes, p.length, p.way);
    if (s.messages && p.where == s.messages_where) {
        s.messages_written++;
        return;
    }
    for (frames_of &f : s.frames) {
        f.written += f.where == p.where ? 1 : 0;
    }
}

void flush(session &s)
{
    if (!s.file->flush()) {
        throw failure{STATUS_FAILED, errno == ECANCELED
                                         ? "nobody reads the capture; its end is lost"
                                         : std::string("the capture cannot be written: ") + strerror(errno)};
    }
}

// What is there now, in the order of its stamps.
void take_round(session &s)
{
    std::vector<packet> round;
    for (const frames_of &f : s.frames) {
        take_frames(f, round);
    }
    if (s.messages) {
        take_messages(s, round);
    }
    std::stable_sort(round.begin(), round.end(), [](const packet &a, const packet &b) { return a.stamp < b.stamp; });
    for (const packet &p : round) {
        if (s.enough()) {
            break;
        }
        write_packet(s, p);
    }
    flush(s);
}

int until(clock::time_point end)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

std::vector<pollfd> descriptors(const session &s)
{
    std::vector<pollfd> wanted = {{s.signals, POLLIN, 0}};
    for (const frames_of &f : s.frames) {
        wanted.push_back({f.source->fd(), POLLIN, 0});
    }
    if (s.messages && !s.messages->ended()) {
        wanted.push_back({s.messages->fd(), POLLIN, 0});
    }
    return wanted;
}

// Whether there is still something to come.
bool is_over(const session &s) { return s.enough() || (s.frames.empty() && s.messages && s.messages->ended()); }

void capture_all(session &s)
{
    const bool bounded = s.options.duration_s > 0;
    const auto end =
        clock::now() + std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(s.options.duration_s));
    bool ended_told = false;
    while (!is_over(s) && (!bounded || clock::now() < end)) {
        std::vector<pollfd> wanted = descriptors(s);
        if (poll(wanted.data(), wanted.size(), bounded ? until(end) : -1) < 0 && errno != EINTR) {
            throw failure{STATUS_FAILED, strerror(errno)};
        }
        take_round(s);
        if (s.messages && s.messages->ended() && !ended_told) {
            ended_told = true;
            say(s.messages->replaced() ? "somebody else looks at the messages now" : s.options.process + " has ended");
        }
        if ((wanted[0].revents & POLLIN) != 0) {
            return;
        }
    }
}

// The process says how much was lost up to the end.
void await_last_words(session &s)
{
    if (!s.messages) {
        return;
    }
    s.messages->stop();
    const auto end = clock::now() + LAST_WORDS;
    while (!s.messages->ended() && clock::now() < end) {
        pollfd wanted = {s.messages->fd(), POLLIN, 0};
        (void)poll(&wanted, 1, until(end));
        take_round(s);
    }
}

std::string counted(uint64_t count, const char *what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

void finish(session &s)
{
    await_last_words(s);
    std::string told;
    uint64_t dropped = 0;
    for (const frames_of &f : s.frames) {
        const uint64_t of_this = f.source->dropped();
        s.file->counts(f.where, real_time(), {f.written, of_this});
        dropped += of_this;
    }
    if (!s.frames.empty()) {
        told = counted(s.frames_written(), "frame") + ", " + std::to_string(dropped) + " dropped";
    }
    if (s.messages) {
        s.file->counts(s.messages_where, real_time(), {s.messages_written, s.messages->lost()});
        told += (told.empty() ? "" : "; ") + counted(s.messages_written, "message") + ", " +
                std::to_string(s.messages->lost()) + " dropped";
    }
    flush(s);
    say(told);
}

int run(const capture_options &options)
{
    session s{options, {}, {}, {}, 0, 0, -1};
    try {
        open_everything(s);
        flush(s);
        capture_all(s);
        finish(s);
        return 0;
    } catch (const failure &f) {
        say(f.text);
        return f.status;
    } catch (const std::system_error &problem) {
        say(problem.what());
        const int error = problem.code().value();
        return error == EPERM || error == EACCES ? STATUS_NOT_ALLOWED : STATUS_FAILED;
    } catch (const std::exception &problem) {
        say(problem.what());
        return STATUS_FAILED;
    }
}

} // namespace

int capture_command(const capture_options &options)
{
    const int status = run(options);
    itc_exit();
    return status;
}

} // namespace capture
