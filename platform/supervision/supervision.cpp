// The border of the supervision library, its thread, and its sockets: one per network namespace that has sessions.
//
// One lock guards everything. The thread holds it while it reads, judges, sends and reports, and lets go of it to
// sleep; start and stop take it. So when stop has it, no callback runs, and after stop none of that session ever will.
// A callback must not start or stop sessions.
//
// The thread is made with the first session. Without sessions it sleeps for good. It closes the socket of a namespace
// that has lost its last session (an open socket would keep a deleted namespace alive), and it lives in the namespace
// the process was started in, not in the one its creator had entered, for the same reason.
//
// After fork() a child has no such thread and must not use the sessions of its parent.
#include "supervision.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/auxv.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "answer.hpp"
#include "engine.hpp"
#include "guests.hpp"
#include "packet_socket.hpp"
#include "tri.h"

static_assert(sizeof(supervision_params) == 48);
static_assert(offsetof(supervision_params, interval) == 16);
static_assert(offsetof(supervision_params, sup_type) == 20);
static_assert(offsetof(supervision_params, frameSize) == 22);
static_assert(offsetof(supervision_params, reserved1) == 24);
static_assert(offsetof(supervision_params, dest_mac) == 28);
static_assert(offsetof(supervision_params, src_mac) == 34);
static_assert(offsetof(supervision_params, vlantag) == 40);
static_assert(offsetof(supervision_params, ether_type) == 44);
static_assert(sizeof(supervision_rtt) == 8);

namespace supervision
{

namespace
{

enum start_result : uint32_t {
    STARTED = 0,
    NO_INTERFACE = 1,
    NO_SOCKET = 2,
    INVALID = 3,
    NO_MEMORY = 4,
};

enum stop_result : uint32_t {
    STOPPED = 0,
    NO_ANSWER = 1,
    NO_SESSION = 4,
};

constexpr time_t STOP_PATIENCE_S = 5;
constexpr int64_t WOKEN = INT64_MIN;    // it has been told to look and has not yet
constexpr size_t KEPT_FRAME_BYTES = 64; // of a received frame: all that is read of it
static_assert(KEPT_FRAME_BYTES >= ecpri::MIN_FRAME_SIZE + MARK_SIZE);
// Per turn and socket. More than a full socket holds, so that what had arrived when the turn began is read whatever the
// clock says of it.
constexpr int MAX_BATCHES = 4096;
constexpr size_t FLOOD = 4 * packet::BATCH; // frames in one turn to which no request was waiting
constexpr int64_t LATE_TRACE_PAUSE_NS = 10'000'000'000;
// The kernel takes a moment to begin stamping frames when they arrive; it stamps them when they are read until then.
constexpr int64_t STAMPS_SETTLE_NS = 1'000'000'000;

// What was asked of an interface, and when. It is believed for a moment: the sessions of one link are started one right
// after the other, and there may be thousands.
struct interface_facts {
    char name[16];
    int64_t asked;
    int index; // 0: there is none
    int mtu;
    int vlan;
    bool has_mac;
    mac_address mac;
};

constexpr int64_t FACTS_LAST_NS = 1'000'000;

// A network namespace with sessions in it.
struct domain {
    uint32_t id;
    uint64_t netns; // its number: one in the whole kernel
    int fd;
    packet::filter filter;
    size_t sessions;
    size_t echoing;     // of them: their far end was seen to send dummy bytes back
    size_t short_of;    // of them: their frames have no room for the part of the mark that a filter knows
    int64_t last_drops; // when it was seen that the kernel had dropped frames
    guests let_in;
    interface_facts facts;
};

struct entry {
    session s;
    domain *home;
    char if_name[16];
    uint16_t vlan; // as asked for
    bool wants_tag;
    bool let_in; // its address is a guest
};

struct library {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    engine e;
    packet::batch batch{};
    std::unordered_map<uint32_t, std::unique_ptr<entry>> sessions;
    std::vector<std::unique_ptr<domain>> domains;
    std::vector<pollfd> polled; // the thread's alone
    uint32_t last_session = 0;
    uint32_t last_domain = 0;
    int wake_fd = -1;
    int own_netns = -1; // the link to the namespace of the thread that started a session last
    pid_t own_netns_of = 0;
    bool has_thread = false;
    int64_t sleeps_until = NEVER; // the thread, as it found when it looked last
    int64_t first_domain_opened = 0;
    int64_t late_traced = -LATE_TRACE_PAUSE_NS;
    uint32_t drops = 0;   // since that was told
    bool flooded = false; // in this turn
};

// Where the process was when it was loaded; the thread goes there. Closed once it has.
int birth_netns = -1;

__attribute__((constructor)) void remember_birth_netns()
{
    birth_netns = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
}

// Never destroyed: the thread may be at work while the process exits.
library &lib()
{
    static library *the_library = new library;
    return *the_library;
}

thread_local bool in_engine_thread = false;

struct guard {
    explicit guard(library &l) : held(&l.lock) { pthread_mutex_lock(held); }
    ~guard() { pthread_mutex_unlock(held); }
    guard(const guard &) = delete;
    guard &operator=(const guard &) = delete;
    pthread_mutex_t *held;
};

int64_t nanoseconds(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

clocks read_clocks(void *) { return {nanoseconds(CLOCK_MONOTONIC), nanoseconds(CLOCK_REALTIME)}; }

// The thread has to look only when there is something to send before it wakes by itself, or a socket to close, and once
// for all such reasons. Else thousands of sessions that are started or stopped one after the other would have it run,
// and take the lock from their starter, thousands of times. `due`: of what is new since it looked.
bool has_to_look(const library &l, int64_t due)
{
    const auto is_unused = [](const std::unique_ptr<domain> &d) { return d->sessions == 0; };
    return l.sleeps_until != WOKEN &&
           (due < l.sleeps_until || std::any_of(l.domains.begin(), l.domains.end(), is_unused));
}

void wake_if_needed(library &l, int64_t due)
{
    if (!has_to_look(l, due)) {
        return;
    }
    l.sleeps_until = WOKEN;
    const uint64_t one = 1;
    // It fails only when the thread has not yet seen 2^64 - 2 earlier calls.
    if (write(l.wake_fd, &one, sizeof one) < 0) {
        return;
    }
}

// ---- Interfaces of a session ----

session_key key_of(const entry &x, int if_index, bool tagged)
{
    session_key key = x.s.key;
    key.if_index = if_index;
    key.vlan = tagged ? x.vlan : 0;
    key.tpid = tag_protocol(tagged, from_be16(x.s.tag.tpid), x.vlan);
    return key;
}

bool are_of_now(const interface_facts &facts, const char *name, int64_t now)
{
    return facts.index != 0 && now - facts.asked < FACTS_LAST_NS && strncmp(facts.name, name, sizeof facts.name) == 0;
}

const interface_facts &ask_facts(domain *home, const char (&name)[16])
{
    interface_facts &f = home->facts;
    f = {};
    memcpy(f.name, name, sizeof f.name);
    f.asked = nanoseconds(CLOCK_MONOTONIC);
    f.index = packet::interface_index(home->fd, name);
    f.mtu = packet::interface_mtu(home->fd, name);
    f.vlan = packet::interface_vlan(home->fd, name);
    f.has_mac = packet::interface_mac(home->fd, name, &f.mac);
    return f;
}

const interface_facts &facts_of(const entry &x, int64_t now)
{
    if (are_of_now(x.home->facts, x.if_name, now)) {
        return x.home->facts;
    }
    return ask_facts(x.home, x.if_name);
}

// On the device of that very VLAN the kernel adds the tag, and takes it off what it hands to the device.
bool needs_tag(const entry &x, const interface_facts &facts) { return x.wants_tag && facts.vlan != x.vlan; }

void let_answers_in(entry *x, const interface_facts &facts)
{
    const bool is_own = facts.has_mac && mac_equal(facts.mac, x->s.key.local);
    x->let_in = !is_own && guest_let_in(x->home->let_in, x->home->fd, {x->s.key.if_index, x->s.key.local});
}

void shut_answers_out(entry *x)
{
    if (x->let_in) {
        guest_shut_out(x->home->let_in, x->home->fd, {x->s.key.if_index, x->s.key.local});
    }
    x->let_in = false;
}

// The interface was deleted and may be back under its name. True when it is, and a frame built before fits it.
bool find_interface_again(entry *x)
{
    const interface_facts &facts = ask_facts(x->home, x->if_name);
    const int if_index = facts.index;
    if (if_index == 0 || if_index == x->s.key.if_index) {
        return false;
    }
    shut_answers_out(x);
    const bool was_tagged = x->s.tagged;
    x->s.tagged = needs_tag(*x, facts);
    engine_rekey(lib().e, &x->s, key_of(*x, if_index, x->s.tagged));
    let_answers_in(x, facts);
    return x->s.tagged == was_tagged;
}

// What the kernel dropped it dropped before that was seen, perhaps long before.
bool may_have_missed(void *, const session &s, int64_t since)
{
    return since <= static_cast<const entry *>(s.link)->home->last_drops;
}

int send_frame(void *, session &s, const uint8_t *frame, size_t length)
{
    auto *x = static_cast<entry *>(s.link);
    const int result = packet::send_frame(x->home->fd, s.key.if_index, frame, length);
    if ((result == ENXIO || result == ENODEV) && find_interface_again(x)) {
        return packet::send_frame(x->home->fd, s.key.if_index, frame, length);
    }
    return result;
}

// ---- Receiving ----

void take_frame(library &l, domain &d, const packet::received &r, const clocks &now)
{
    answer a{};
    if (read_answer(r, d.id, &a)) {
        const uint64_t before = l.e.echoing;
        engine_answer(l.e, a, now);
        d.echoing += l.e.echoing - before;
    }
}

// Whether a frame arrived after the turn had begun. A stamp that lies ahead says that the clock was set back since, and
// nothing of when the frame came.
bool came_after(const packet::received &r, const clocks &turn, const clocks &now)
{
    return r.stamp > turn.real && r.stamp <= now.real;
}

// Everything that had arrived when the turn began, or no verdict of the turn would be a true one. What comes while it
// is read can wait: who sends faster than this reads must not hold up the verdicts.
void drain(library &l, domain &d, const clocks &turn)
{
    const uint64_t stale_before = l.e.counters.stale;
    for (int i = 0; i < MAX_BATCHES; i++) {
        const size_t count = packet::receive(d.fd, &l.batch);
        const clocks now = read_clocks(nullptr);
        for (size_t f = 0; f < count; f++) {
            take_frame(l, d, l.batch.frames[f], now);
        }
        if (count < packet::BATCH || came_after(l.batch.frames[count - 1], turn, now)) {
            break;
        }
    }
    l.flooded = l.flooded || l.e.counters.stale - stale_before >= FLOOD;
}

void note_drops(library &l, domain &d)
{
    const uint32_t drops = packet::take_drops(d.fd);
    l.drops += drops;
    if (drops > 0) {
        d.last_drops = nanoseconds(CLOCK_MONOTONIC);
    }
}

// ---- The kernel's filter ----

// Frames that are no answers of ours should not get as far as the socket's queue, where they take the room of those
// that are. How much the filter can ask for depends on the sessions: their frames must have room for the mark, and a
// far end that never brought dummy bytes may be one that does not.
packet::marks marks_to_want(const domain &d)
{
    if (d.short_of > 0) {
        return packet::marks::ANY;
    }
    return d.echoing < d.sessions ? packet::marks::OURS_OR_NONE : packet::marks::OURS;
}

// The filter that is there stays when the kernel does not take the other one, until the next turn.
void choose_filter(domain &d)
{
    packet::filter changed = d.filter;
    changed.wanted = marks_to_want(d);
    if (changed.wanted != d.filter.wanted && packet::set_filter(d.fd, changed)) {
        d.filter = changed;
    }
}

bool is_short_of_room(const session &s) { return s.frame_size < ecpri::MIN_FRAME_SIZE + offsetof(mark, request); }

// ---- The thread ----

// A machine that is short of time says so once in a while, not with every turn.
void tell_lateness(library &l, int64_t late_slots, int64_t now)
{
    if (late_slots == 0 || now - l.late_traced < LATE_TRACE_PAUSE_NS || tri_enabled(4) == 0) {
        return;
    }
    l.late_traced = now;
    const long long late_ms = late_slots * (SLOT_NS / 1'000'000);
    const uint32_t drops = std::exchange(l.drops, 0);
    lttngTriTrace(4, short_fname(__FILE__), __LINE__,
                  formatStr("WARNING: Supervision ran %lld ms late. Requests sent late: %llu, given more time: %llu, "
                            "received frames dropped: %u",
                            late_ms, static_cast<unsigned long long>(l.e.counters.late),
                            static_cast<unsigned long long>(l.e.counters.extended), drops));
}

std::vector<int> take_sockets_of_empty_domains(library &l)
{
    std::vector<int> sockets;
    std::erase_if(l.domains, [&](const std::unique_ptr<domain> &d) {
        if (d->sessions == 0) {
            sockets.push_back(d->fd);
        }
        return d->sessions == 0;
    });
    return sockets;
}

// In a flood the sockets are left alone for a slot, and the lock with them: who starts or stops a session has his turn.
//
// What to sleep on: new sessions always; answers only when the next turn is more than a slot away. Before that they
// can wait for it, their round trip is the kernel's stamp: so that thousands of sessions cost one wake-up per slot.
void choose_polled(library &l, int64_t now, int64_t deadline)
{
    l.polled.assign(1, {l.wake_fd, POLLIN, 0});
    if (l.flooded) {
        return;
    }
    if (deadline - now <= SLOT_NS && now - l.first_domain_opened >= STAMPS_SETTLE_NS) {
        return;
    }
    for (const auto &d : l.domains) {
        l.polled.push_back({d->fd, POLLIN, 0});
    }
}

// One turn; returns when the next is due at the latest. `unused` gets the sockets that nobody needs any more.
int64_t take_turn(library &l, std::vector<int> *unused)
{
    const guard g(l);
    *unused = take_sockets_of_empty_domains(l);
    // Read before the sockets are: what is due by then has had its answer handed in, if there is one, however long
    // that takes.
    const clocks turn = read_clocks(nullptr);
    const int64_t now = turn.monotonic;
    l.flooded = false;
    for (const auto &d : l.domains) {
        drain(l, *d, turn);
        note_drops(l, *d);
        choose_filter(*d);
    }
    const engine_io io{nullptr, read_clocks, send_frame, may_have_missed};
    tell_lateness(l, engine_run(l.e, now, io), now);
    const int64_t deadline = engine_deadline(l.e);
    l.sleeps_until = deadline;
    choose_polled(l, now, deadline);
    return l.flooded ? std::min(deadline, nanoseconds(CLOCK_MONOTONIC) + SLOT_NS) : deadline;
}

void sleep_until(library &l, int64_t deadline)
{
    const int64_t left = std::max<int64_t>(deadline - nanoseconds(CLOCK_MONOTONIC), 0);
    const timespec timeout{static_cast<time_t>(left / 1'000'000'000), static_cast<long>(left % 1'000'000'000)};
    ppoll(l.polled.data(), l.polled.size(), deadline == NEVER ? nullptr : &timeout, nullptr);
    uint64_t calls = 0;
    // Not blocking: nothing to read means that nobody called.
    if ((l.polled[0].revents & POLLIN) != 0 && read(l.wake_fd, &calls, sizeof calls) < 0) {
        return;
    }
}

void *run(void *)
{
    library &l = lib();
    in_engine_thread = true;
    pthread_setname_np(pthread_self(), "supervision");
    if (birth_netns >= 0) {
        // Where this is not allowed, the creator could not have entered another namespace either.
        setns(birth_netns, CLONE_NEWNET);
        close(birth_netns);
        birth_netns = -1;
    }
    for (;;) {
        std::vector<int> unused;
        const int64_t deadline = take_turn(l, &unused);
        // Closing a packet socket takes the kernel up to 15 ms: nobody who starts a session has to wait for that.
        for (const int fd : unused) {
            close(fd);
        }
        sleep_until(l, deadline);
    }
    return nullptr;
}

// The usual stack is large enough for the kernel to back it with one page of 2 MiB, by chance of where it lies: of a
// process that takes 1 MiB that would be most.
constexpr size_t STACK_BYTES = size_t{512} << 10;

bool make_thread()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    // Signals are for the process's own threads; a new thread starts with the mask of its creator.
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread{};
    pthread_attr_t attributes;
    bool made = pthread_attr_init(&attributes) == 0;
    if (made) {
        made = pthread_attr_setstacksize(&attributes, STACK_BYTES) == 0 &&
               pthread_create(&thread, &attributes, run, nullptr) == 0;
        pthread_attr_destroy(&attributes);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return made && pthread_detach(thread) == 0;
}

// Early in the life of a machine the kernel may not have drawn enough chance yet; what it gave the process at its start
// must do then.
void draw_key(library &l)
{
    secret key;
    if (getrandom(&key, sizeof key, GRND_NONBLOCK) != sizeof key) {
        static_assert(sizeof key == 16, "the kernel gives as many");
        // NOLINTNEXTLINE(performance-no-int-to-ptr): so the C library gives it
        memcpy(&key, reinterpret_cast<const void *>(getauxval(AT_RANDOM)), sizeof key);
    }
    engine_set_key(l.e, key);
}

bool ensure_thread(library &l)
{
    if (l.wake_fd < 0) {
        l.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    if (l.batch.bytes == nullptr && !packet::batch_init(&l.batch, KEPT_FRAME_BYTES)) {
        return false;
    }
    if (!l.has_thread) {
        draw_key(l);
        l.has_thread = l.wake_fd >= 0 && make_thread();
    }
    return l.has_thread;
}

// ---- Namespaces ----

domain *open_domain(library &l, uint64_t netns)
{
    auto d = std::make_unique<domain>();
    d->id = ++l.last_domain;
    d->netns = netns;
    d->last_drops = INT64_MIN;
    d->filter.action = ecpri::ACTION_RESPONSE;
    d->filter.word = l.e.process_mark;
    d->filter.word_offset = ecpri::MIN_FRAME_SIZE + offsetof(mark, process);
    d->fd = packet::open_socket(d->filter);
    if (d->fd < 0) {
        return nullptr;
    }
    if (l.domains.empty()) {
        l.first_domain_opened = nanoseconds(CLOCK_MONOTONIC);
    }
    l.domains.push_back(std::move(d));
    return l.domains.back().get();
}

// Asked for once: it is a system call, and a thread keeps its number.
pid_t own_thread_id()
{
    static thread_local const pid_t id = gettid();
    return id;
}

// The calling thread's link to its namespace, kept open from call to call: walking to it anew, and to what it points
// to, costs more than all else that a session takes.
void open_own_netns(library &l)
{
    if (l.own_netns >= 0) {
        close(l.own_netns);
    }
    l.own_netns = open("/proc/thread-self/ns/net", O_PATH | O_NOFOLLOW | O_CLOEXEC);
    l.own_netns_of = own_thread_id();
}

// The number in "net:[4026531840]".
bool read_own_netns(const library &l, uint64_t *netns)
{
    char text[64];
    const ssize_t length = readlinkat(l.own_netns, "", text, sizeof text - 1);
    if (length <= 0) {
        return false;
    }
    text[length] = '\0';
    const char *bracket = strchr(text, '[');
    *netns = bracket != nullptr ? strtoull(bracket + 1, nullptr, 10) : 0;
    return *netns != 0;
}

// The link of a thread that has ended, whose number the caller has by now, gives nothing: it is opened anew.
bool find_own_netns(library &l, uint64_t *netns)
{
    if (l.own_netns_of == own_thread_id() && read_own_netns(l, netns)) {
        return true;
    }
    open_own_netns(l);
    return read_own_netns(l, netns);
}

// The namespace in which the calling thread is. While its socket is open no other namespace can get its number.
domain *current_domain(library &l)
{
    uint64_t netns = 0;
    if (!find_own_netns(l, &netns)) {
        return nullptr;
    }
    for (const auto &d : l.domains) {
        if (d->netns == netns) {
            return d.get();
        }
    }
    return open_domain(l, netns);
}

bool filter_lets_pass(domain *d, uint16_t ether_type)
{
    packet::filter wanted = d->filter;
    const uint16_t *end = wanted.ether_types + wanted.count;
    if (std::find(static_cast<const uint16_t *>(wanted.ether_types), end, ether_type) != end) {
        return true;
    }
    if (wanted.count == packet::MAX_ETHER_TYPES) {
        return false;
    }
    wanted.ether_types[wanted.count++] = ether_type;
    if (!packet::set_filter(d->fd, wanted)) {
        return false;
    }
    d->filter = wanted;
    return true;
}

// ---- Starting ----

bool is_group(const uint8_t (&mac)[6]) { return (mac[0] & 1) != 0; }

// What is smaller stands in a frame for its length.
bool is_protocol(uint32_t ether_type) { return ether_type >= 0x0600; }

bool params_are_valid(const supervision_params &p)
{
    return p.if_name[0] != '\0' && memchr(p.if_name, '\0', sizeof p.if_name) != nullptr && p.interval >= 1 &&
           (p.sup_type == SUPERVISION_TYPE_LINK || p.sup_type == SUPERVISION_TYPE_KEEP_ALIVE) &&
           p.frameSize >= ecpri::MIN_FRAME_SIZE && is_protocol(p.ether_type) &&
           (p.vlantag == 0 || is_protocol(p.vlantag >> 16)) && !is_group(p.src_mac) && !is_group(p.dest_mac);
}

void fill_entry(entry *x, const supervision_params &p, domain *home, supervision_callback_fn callback)
{
    x->home = home;
    memcpy(x->if_name, p.if_name, sizeof x->if_name);
    x->vlan = p.vlantag & 0x0FFF;
    x->wants_tag = p.vlantag != 0;
    x->s.tag = {to_be16(static_cast<uint16_t>(p.vlantag >> 16)), to_be16(static_cast<uint16_t>(p.vlantag))};
    x->s.key.domain = home->id;
    memcpy(x->s.key.local.byte, p.src_mac, sizeof p.src_mac);
    memcpy(x->s.key.remote.byte, p.dest_mac, sizeof p.dest_mac);
    x->s.ether_type = p.ether_type;
    x->s.frame_size = p.frameSize;
    x->s.type = p.sup_type;
    x->s.interval = p.interval;
    x->s.callback = callback;
    x->s.link = x;
}

uint32_t find_interface(entry *x, const interface_facts &facts)
{
    const int if_index = facts.index;
    if (if_index == 0) {
        return NO_INTERFACE;
    }
    if (x->s.frame_size > static_cast<size_t>(facts.mtu) + sizeof(ecpri::ethernet_header)) {
        return INVALID;
    }
    x->s.tagged = needs_tag(*x, facts);
    x->s.key = key_of(*x, if_index, x->s.tagged);
    return filter_lets_pass(x->home, x->s.ether_type) ? STARTED : NO_SOCKET;
}

uint32_t free_session_id(library &l)
{
    do {
        l.last_session++;
    } while (l.last_session == 0 || l.sessions.contains(l.last_session));
    return l.last_session;
}

// `due`: when the session's first turn is.
uint32_t start(library &l, uint32_t *session_id, int64_t *due, const supervision_params &p,
               supervision_callback_fn callback)
{
    domain *home = current_domain(l);
    if (home == nullptr) {
        return NO_SOCKET;
    }
    auto made = std::make_unique<entry>();
    entry *x = made.get();
    fill_entry(x, p, home, callback);
    const int64_t now = nanoseconds(CLOCK_MONOTONIC);
    const interface_facts &facts = facts_of(*x, now);
    const uint32_t result = find_interface(x, facts);
    if (result != STARTED) {
        return result;
    }
    x->s.id = free_session_id(l);
    l.sessions.emplace(x->s.id, std::move(made));
    try {
        engine_add(l.e, &x->s, now);
    } catch (...) {
        l.sessions.erase(x->s.id);
        throw;
    }
    let_answers_in(x, facts);
    home->sessions++;
    home->short_of += is_short_of_room(x->s) ? 1 : 0;
    choose_filter(*home); // before its first request
    *session_id = x->s.id;
    *due = x->s.due * SLOT_NS;
    return STARTED;
}

void stop(library &l, entry *x)
{
    engine_remove(l.e, &x->s);
    shut_answers_out(x);
    x->home->sessions--;
    x->home->echoing -= x->s.echoes ? 1 : 0;
    x->home->short_of -= is_short_of_room(x->s) ? 1 : 0;
    l.sessions.erase(x->s.id);
}

} // namespace

} // namespace supervision

using namespace supervision;

uint32_t start_supervision_session(uint32_t *session_id, const supervision_params *params,
                                   supervision_callback_fn callback)
{
    if (session_id == nullptr || params == nullptr || callback == nullptr || !params_are_valid(*params)) {
        return INVALID;
    }
    if (in_engine_thread) {
        return NO_MEMORY;
    }
    try {
        library &l = lib();
        const guard g(l);
        if (!ensure_thread(l)) {
            return NO_MEMORY;
        }
        int64_t due = NEVER;
        const uint32_t result = start(l, session_id, &due, *params, callback);
        // Also after a failure: the thread closes the socket of a namespace that has no session.
        wake_if_needed(l, due);
        return result;
    } catch (const std::bad_alloc &) {
        return NO_MEMORY;
    }
}

uint32_t stop_supervision_session(uint32_t session_id)
{
    library &l = lib();
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += STOP_PATIENCE_S;
    // From a callback it would wait for itself.
    if (in_engine_thread || pthread_mutex_timedlock(&l.lock, &until) != 0) {
        return NO_ANSWER;
    }
    const auto found = l.sessions.find(session_id);
    const bool known = found != l.sessions.end();
    if (known) {
        stop(l, found->second.get());
        wake_if_needed(l, NEVER);
    }
    pthread_mutex_unlock(&l.lock);
    return known ? STOPPED : NO_SESSION;
}
