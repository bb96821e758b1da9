/*
 * What the source files of libitc share: the message block, the threads, boxes and peers of the process, and the one
 * lock over all of them. Every function here that takes a `hold` is called with the lock held; one that may let it go
 * for a while (to wait, to run a callback) says so.
 *
 * One thread at a time leads: it alone waits on descriptors, with the lock released, and then does whatever they ask
 * for. Other threads that wait for something follow: they sleep on `turn` until the leader has brought it, or until
 * the lead is free. The state is never destroyed, so that a thread which still runs while the process exits finds it.
 */
#ifndef ITC_STATE_HPP
#define ITC_STATE_HPP

#include "door.hpp"
#include "itc.h"
#include "itc_wire.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

namespace itc
{

struct peer;

using hold = std::unique_lock<std::mutex>;
using clock = std::chrono::steady_clock;

inline constexpr size_t reader_size = 65536;
inline constexpr size_t outbox_limit = 16u << 20;   // bytes of memory that wait for one peer
inline constexpr size_t outboxes_limit = 32u << 20; // ... for all of them; beyond it each has its share
inline constexpr size_t outbox_share = 1u << 20;
inline constexpr size_t registry_outbox_limit = 1u << 20; // bytes of requests that wait for the registry
inline constexpr int mailbox_limit = 1024;
inline constexpr std::chrono::milliseconds call_limit{2000};
inline constexpr std::chrono::milliseconds exit_limit{100};
inline constexpr std::chrono::seconds box_rest{24 * 3600 + 60}; // a little longer than the registry asks for
// How soon a call tries again what an earlier one could not send. In a burst against a full socket this keeps the cost
// of trying at a few hundredths; no peer is seen to have read in less.
inline constexpr std::chrono::microseconds time_between_tries{50};

void peers_try(); // whatever waits, unless it was tried a moment ago

// What one process has in the queues here. Outlives its channel as long as that is something.
struct account {
    uint32_t process = 0;
    peer *owner = nullptr; // while there is a channel
    size_t messages = 0;
    size_t memory = 0;
};

// A message as it lies in memory: the frame stands right before its first word, so that both leave in one write.
struct block {
    block *next;
    size_t size;
    uint32_t sender;
    uint32_t receiver;
    uint32_t monitor_id; // of a message that a monitor delivered, else 0
    uint32_t magic;
    union {
        account *of;        // the process whose channel it came by, while it is queued here; else NULL
        uint64_t alignment; // of the frame's end
    };
    itc_wire::channel_frame frame;

    uint8_t *bytes() { return reinterpret_cast<uint8_t *>(this + 1); }
    itc_msg *msg() { return reinterpret_cast<itc_msg *>(this + 1); }
};
static_assert(sizeof(block) % alignof(max_align_t) == 0, "a message is aligned for every type");
static_assert(offsetof(block, frame) + sizeof(itc_wire::channel_frame) == sizeof(block), "frame and message adjoin");

// The memory of a block with a message of that size: what the allocator adds and rounds counts, since of many small
// messages it is most.
constexpr size_t memory_of(size_t message)
{
    constexpr size_t grain = 2 * sizeof(size_t);
    return (sizeof(block) + message + sizeof(size_t) + grain - 1) / grain * grain;
}
inline size_t memory_of(const block *b) { return memory_of(b->size); }

block *block_new(size_t size, bool zero);
block *block_resize(block *b, size_t size); // the message's bytes are kept
block *block_of(const itc_msg *msg);        // ends the process if it is no message
block *block_take(itc_msg **msg);           // NULL for no message
void block_free(block *b);
void memory_give_back(); // a lot that is free goes back to the kernel

struct block_list {
    block *head = nullptr;
    block *tail = nullptr;

    void push(block *b)
    {
        b->next = nullptr;
        (head == nullptr ? head : tail->next) = b;
        tail = b;
    }

    // Takes out the block after `before` (the first for NULL).
    block *take_after(block *before)
    {
        block *b = before == nullptr ? head : before->next;
        (before == nullptr ? head : before->next) = b->next;
        if (tail == b) {
            tail = before;
        }
        return b;
    }
};

// Messages in the order of arrival (queue.cpp): first those that a receive has looked past, then the fresh ones.
struct message_queue {
    static constexpr uint32_t none = UINT32_MAX;

    struct place_in_line {
        block *message = nullptr;
        uint64_t arrived = 0;
        uint32_t next = none; // of a place that is not used: the next such
        uint32_t before = none;
        uint32_t next_of_number = none;
        uint32_t before_of_number = none;
    };
    struct line {
        uint32_t first = none;
        uint32_t last = none;
    };

    block_list fresh;
    uint32_t first = none; // of those looked past
    uint32_t last = none;
    uint32_t unused = none;
    uint32_t passed = 0; // how many were looked past
    uint32_t last_number = 0;
    line *last_line = nullptr; // of that number
    uint64_t arrivals = 0;
    std::vector<place_in_line> places;
    std::unordered_map<uint32_t, line> lines; // of the numbers that were looked past

    [[nodiscard]] bool empty() const { return first == none && fresh.head == nullptr; }
    void push(block *b) { fresh.push(b); }
    // The first that is wanted, or NULL. `looked_at`: the same receive has looked at those looked past already; set
    // when there is none.
    block *take(const uint32_t *filter, uint32_t from, bool *looked_at);

    // Takes out every message that matches, and hands it over.
    template <class Match, class Action> void take_all(Match match, Action action)
    {
        for (uint32_t place = first; place != none;) {
            const uint32_t next = places[place].next;
            if (match(places[place].message)) {
                action(take_place(place));
            }
            place = next;
        }
        block *before = nullptr;
        while (block *b = before == nullptr ? fresh.head : before->next) {
            if (match(b)) {
                action(fresh.take_after(before));
            } else {
                before = b;
            }
        }
    }

private:
    [[nodiscard]] uint32_t find(const uint32_t *filter, uint32_t from) const;
    uint32_t free_place();
    line &line_of(uint32_t msgno);
    void look_past(block *b);
    void leave_line(const place_in_line &place);
    block *take_place(uint32_t number);
};

// A thread that owns mailboxes. Their messages wait in one queue.
struct thread {
    message_queue queue;
    bool looked_at = false;      // the receive that is under way has looked at all that was looked past before
    uint32_t mbox = ITC_NO_MBOX; // the first it created
    bool waiting = false;
    bool leading = false;
    unsigned taken = 0; // messages since the thread last looked at the descriptors
};

// Why a channel is not read for now.
enum class pause : uint8_t {
    none,
    queue, // what came by it and was not taken yet is its share
    room,  // the rest of a large message has no room
};

// Another process, once there is something to send to it or it has been introduced. What every message touches stands
// first.
struct alignas(64) peer {
    uint32_t process = 0;
    uint32_t channel = 0;
    int fd = -1;
    bool write_broken = false;
    bool armed = false; // the wait asks for room to write
    bool in_round = false;
    bool parsed = true; // nothing whole is left in the buffer
    pause paused = pause::none;
    account *queued = nullptr;
    peer *round_before = nullptr;
    peer *round_after = nullptr;
    block_list outbox;
    uint64_t received = 0;     // bytes, by this channel
    uint8_t *buffer = nullptr; // while it holds something
    size_t start = 0;          // what it holds begins here
    size_t fill = 0;           // and ends here
    size_t skip = 0;           // bytes still to come of a message that was refused
    block *large = nullptr;    // a message that does not fit in the buffer, while it arrives

    size_t outbox_memory = 0; // of what waits behind the first
    size_t head_written = 0;  // of the outbox's first frame
    size_t held_frames = 0;   // queued since the socket was last tried
    size_t held_bytes = 0;
    size_t resume_below = 0; // messages, of one that waits for its queue
    size_t large_got = 0;
    size_t large_size = 0;
    size_t large_charged = 0;        // of its memory, to what half-sent messages may have together
    size_t large_seen = 0;           // of large_got, when it was last seen to have come on
    clock::time_point large_seen_at; // and when that was
};

// Those that asked for a turn, in the order in which they did.
struct turn_list {
    peer *head = nullptr;
    peer *tail = nullptr;
    size_t size = 0;

    bool empty() const { return head == nullptr; }
    void push(peer *p) // unless it is there
    {
        if (!p->in_round) {
            p->in_round = true;
            p->round_before = tail;
            p->round_after = nullptr;
            (tail == nullptr ? head : tail->round_after) = p;
            tail = p;
            size++;
        }
    }

    void remove(peer *p) // if it is there
    {
        if (p->in_round) {
            p->in_round = false;
            (p->round_before == nullptr ? head : p->round_before->round_after) = p->round_after;
            (p->round_after == nullptr ? tail : p->round_after->round_before) = p->round_before;
            size--;
        }
    }
};

// What a peer may bring in one turn, or what is left of it.
struct allowance {
    size_t messages;
    size_t bytes;
};

// A message of another process of which the frame and the number are there. No memory was taken for it yet.
struct arrival {
    uint32_t sender; // ITC_NO_MBOX for none
    uint32_t to;     // ITC_NO_MBOX for a box that no process has
    uint32_t msgno;
    uint32_t size;
};

// A request whose caller waits for the answer.
struct call {
    uint32_t serial = 0;
    uint32_t opens_box = itc_wire::box_limit; // of an own mailbox that is there once this is granted
    bool done = false;
    uint32_t value = 0;
    int fd = -1;      // that came with the answer; the caller's
    std::string text; // likewise
};

struct awaited {
    block *message;
    uint32_t deliver_to;
};

// What the registry told of a process of which something was still to be read: it is told on after that.
struct late_news {
    uint32_t process; // 0: this only comes after other news of the same subscription
    uint32_t channel;
    uint64_t mark; // of the peer's `received`
    itc_wire::frame_type type;
    uint32_t key; // the token of a death, the number of a subscription
    uint32_t mbox;
    std::string path;
};

struct watch {
    void (*callback)(void *);
    void *arg;
};

// Drops for one reason; a flood of one hides no other.
struct drop_kind {
    const char *why = nullptr;
    uint64_t silent = 0; // since the last line that told of them
    clock::time_point next_line;
};

inline constexpr size_t DROP_KINDS = 8; // more than there are reasons

// What a receive has to do besides, which mostly is nothing.
inline constexpr uint8_t EXTRA_FD = 1;  // itc_get_fd was called: the descriptor must tell of queued messages
inline constexpr uint8_t EXTRA_TAP = 2; // somebody looks at the messages

// What a message that comes or goes touches stands first, close together: a process that sleeps between two messages
// finds its caches cold, and then every line costs more than what is done with it.
struct state {
    std::mutex lock;
    unsigned blocked = 0;    // threads inside a wait, with the lock released
    unsigned followers = 0;  // those of them that sleep on `turn`
    uint64_t generation = 0; // grows with every itc_init and itc_exit
    uint32_t process = 0;
    int epoll = -1;
    bool led = false;
    bool up = false;    // between itc_init and itc_exit
    bool plain = false; // up, and nobody looks at the messages
    bool exiting = false;
    bool woken = false; // the eventfd is readable
    uint8_t extras = 0;
    bool registry_lost = false;
    bool registry_armed = false;         // the wait asks for room to write
    bool registry_news = true;           // something was received from others since it was looked
    bool registry_ahead = false;         // what was looked at waits to be acted on
    std::atomic<unsigned> backlogged{0}; // peers whose outbox holds something; changed with the lock held
    unsigned introducing = 0;
    unsigned paused_queue = 0; // how many peers
    unsigned paused_room = 0;
    turn_list round; // peers that have something to read
    peer *last_peer = nullptr;
    uint8_t *spare_buffer = nullptr;
    size_t queued_memory = 0; // on all accounts
    std::vector<late_news> late;
    struct doors doors;
    uint64_t channel_writes = 0; // that took something
    std::atomic<size_t> held{0}; // by blocks and buffers, and the most of it since memory was last given back
    std::atomic<size_t> held_most{0};
    itc_statistics statistics{};

    std::condition_variable turn;
    int wake = -1; // an eventfd that ends the leader's wait
    int registry = -1;
    std::map<int, watch> watches;

    std::vector<thread *> threads;
    thread *boxes[itc_wire::box_limit] = {};
    bool box_is_closed[itc_wire::box_limit] = {}; // to other processes: the registry has not said yet what it takes
    clock::time_point box_rests_until[itc_wire::box_limit] = {}; // of those that were deleted
    int box_allowance = 0;
    int box_count = 0;
    uint32_t next_box = 0;

    uint32_t next_serial = 0;
    std::unordered_map<uint32_t, call *> calls;
    std::deque<int> registry_fds; // descriptors that came before their frame was whole
    std::string registry_out;
    size_t registry_fill = 0;
    size_t registry_at = 0;   // the frame that is acted on
    size_t registry_seen = 0; // up to here it was looked what is said of doors
    uint8_t registry_buffer[reader_size];

    std::unordered_map<uint32_t, peer *> peers;
    std::unordered_map<uint32_t, account *> accounts;
    size_t half_memory = 0;             // charged for half-sent messages
    peer *half_slot = nullptr;          // whose half-sent message alone may grow beyond what is charged
    int half_timer = -1;                // a timerfd, once a message had to wait for room
    clock::time_point half_looked_at;   // when the timer was last looked at
    clock::time_point half_wanted_at;   // since when messages have waited for room
    clock::time_point half_unwanted_at; // when the last did
    clock::time_point next_full_line;
    std::chrono::milliseconds half_limit{30000};
    size_t outboxes_memory = 0;   // of all that waits behind the first of each
    clock::time_point last_tries; // of all of them

    uint32_t next_sid = 0;
    std::map<uint32_t, uint32_t> subscriptions;     // sid to mailbox
    std::unordered_map<uint32_t, awaited> awaiting; // by token
    std::unordered_map<uint32_t, awaited> monitors; // by monitor id

    std::array<drop_kind, DROP_KINDS> drops{};

    int tap = -1;        // where messages are told
    uint32_t tap_id = 0; // tells it from those before
    uint64_t tap_lost = 0;
};

// In the library's own data, so that nothing has to be asked or loaded to reach it. Made when the library is loaded,
// and never destroyed: threads may outlive main().
struct alignas(64) state_storage {
    std::byte bytes[sizeof(state)];
};
extern __attribute__((visibility("hidden"))) state_storage only_state;

inline state &g() { return *std::launder(reinterpret_cast<state *>(only_state.bytes)); }

// The calling thread's record.
struct own_thread {
    thread *self;
    uint64_t generation;
};
extern __attribute__((visibility("hidden"))) constinit thread_local own_thread here;

// NULL if the calling thread owns no mailbox.
inline thread *thread_current()
{
    const bool valid = here.self != nullptr && here.generation == g().generation && here.self->mbox != ITC_NO_MBOX;
    return valid ? here.self : nullptr;
}

// A living mailbox of this process.
inline bool mbox_is_own(uint32_t mbox)
{
    const state &s = g();
    return s.up && itc_wire::process_of(mbox) == s.process && s.boxes[itc_wire::box_of(mbox)] != nullptr;
}

// Memory was taken, or has been freed: from any thread.
inline void memory_more(size_t size)
{
    const size_t now = g().held.fetch_add(size, std::memory_order_relaxed) + size;
    if (now > g().held_most.load(std::memory_order_relaxed)) {
        g().held_most.store(now, std::memory_order_relaxed);
    }
}

inline void memory_less(size_t size) { g().held.fetch_sub(size, std::memory_order_relaxed); }

// The lock, as every call from outside takes it: what waits for other processes is tried on the way.
inline hold call_lock()
{
    hold lock(g().lock);
    if (g().backlogged.load(std::memory_order_relaxed) != 0) [[unlikely]] {
        peers_try();
    }
    return lock;
}

// The same for a call that needs no lock of its own.
inline void try_backlog()
{
    if (g().backlogged.load(std::memory_order_relaxed) != 0) [[unlikely]] {
        (void)call_lock();
    }
}

// ---- wait.cpp: the descriptors, the lead, itc_receive ---------------------------------------------------------------

// What an event of the leader's wait is about.
enum source : uint32_t {
    source_wake,
    source_registry,
    source_peer,
    source_watch,
    source_timer,
    source_tap
};
int poll_open(); // makes the wait's descriptors, if there are none yet; returns 0 or an errno value
int poll_add(source kind, uint32_t id, int fd, uint32_t events);
void poll_change(source kind, uint32_t id, int fd, uint32_t events);
void poll_remove(int fd);
void poll_close(); // unless somebody still watches a descriptor

void thread_wake(const thread *t); // something was queued for it
void wake_leader();
void wake_followers();
int milliseconds_until(clock::time_point deadline);  // 0 if it is over
void follow(hold &lock, clock::time_point deadline); // sleeps until the lead is free or something was brought

// Waits, for at most `limit`, until nothing waits to be sent; lets the lock go.
void flush_everything(hold &lock, clock::duration limit);

// ---- mailbox.cpp: itc_init, itc_exit, threads and their mailboxes ---------------------------------------------------

bool name_is_good(const char *name);      // 1 to 255 bytes
void mbox_deliver(block *b, uint32_t to); // to a mailbox of this process; counts and frees what nobody receives

// ---- complain.cpp: lines on stderr ----------------------------------------------------------------------------------

// Adds who says it, and the line feed. Never waits.
__attribute__((cold, format(printf, 1, 2))) void complain(const char *format, ...);
// Counts, and says it on stderr, but not too often.
__attribute__((cold)) void note_drop(uint64_t *counter, const char *why);

// ---- share.cpp: what each process may have of this one -----------------------------------------------------------

account *account_open(peer *p);
void account_close(peer *p);
void account_add(account *a, block *b); // it is queued
void account_take(block *b);            // and is no more; nothing for a block that is on no account

void peer_pause(peer *p, pause why);
void peer_resume(peer *p); // nothing for one that is read
allowance turn_share(size_t peers);
__attribute__((cold)) void note_full_queue(const peer *p);
bool may_go_further(const peer *p); // beyond its share, while somebody waits and nothing that is queued passes

bool half_room(peer *p, size_t memory); // for a half-sent message to have that much
void half_end(peer *p);                 // it has come, or never will
void half_timer_event();
void half_close();

// ---- channel.cpp: the other processes -------------------------------------------------------------------------------

void peer_send(block *b, uint32_t to);
void peer_introduced(uint32_t process, uint32_t channel, int fd);
void peer_absent(uint32_t process);
void peer_drain(uint32_t process); // takes in what that process has sent up to now, however much it is
// Whether that process has sent something that is not read yet; then up to where, of what came by which channel.
bool peer_has_sent(uint32_t process, uint32_t *channel, uint64_t *mark);
bool peer_is_read(uint32_t process, uint32_t channel, uint64_t mark);
void peer_event(uint32_t process, uint32_t events); // what there is to read is left to the next turn
void peer_flush(peer *p);
void peer_watch(peer *p); // has the wait ask for what is of use now
void peer_end_half_sent(peer *p);

// One turn of all that have something to read. `waits`: somebody waits, and nothing that is queued passes; then one
// who has its share in the queues is paused, or read further if it is the process `wanted`.
void peers_turn(bool waits, uint32_t wanted);
bool peers_could_go_further();
void peers_go_further();
void peers_lose_registry(); // drops what waits for an introduction that will never come
void peers_close();

// ---- registry_link.cpp: the connection to the registry --------------------------------------------------------------

int registry_connect();
void registry_close();
void registry_send(itc_wire::writer &frame);
void registry_flush();
void registry_read();
// Takes in what the registry has said of doors, before anything else that it said is acted on.
__attribute__((cold)) void registry_look_ahead();
void registry_catch_up(); // acts on the rest of it
bool late_news_deliver(); // what is due of it; true if some was
uint32_t new_serial();
// Sends the frame under a fresh serial and waits for its answer; lets the lock go. Returns 0 and the answer's one
// field, or an errno value.
int registry_call(hold &lock, itc_wire::writer &frame, uint32_t *value, uint32_t opens_box = itc_wire::box_limit);
int registry_call(hold &lock, itc_wire::writer &frame, call &waiting); // the same with all that an answer has
// The same for a request that is answered by an errno value; returns that.
int registry_command(hold &lock, itc_wire::writer &frame, uint32_t opens_box = itc_wire::box_limit);

// ---- tap.cpp: somebody looks at the messages ------------------------------------------------------------------------

void tap_begin(int fd); // takes it over; whoever looked before looks no more
void tap_end(bool say_so);
void tap_event(uint32_t id); // the reader of that tap has gone, or wants to
__attribute__((cold)) void tap_received(const block *b);
__attribute__((cold)) void tap_sent(const block *b, uint32_t to);

} // namespace itc

#endif
