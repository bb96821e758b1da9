#include "fake_platform.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/vfs.h>

#include <linux/magic.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <sstream>

#include <unistd.h>

extern "C" {
void *__real_calloc(size_t n, size_t size);
void *__real_realloc(void *p, size_t size);
void *__real_malloc(size_t size);
void __real_free(void *p);
int __real_open(const char *path, int flags, ...);
int __real_close(int fd);
}

namespace
{

// A message and what the platform knows of it. The bytes end where the heap block ends.
struct Block {
    uint32_t sender;
    size_t size;
    alignas(8) uint8_t bytes[4];
};
constexpr size_t HEAD = offsetof(Block, bytes);

// A sanitizer sees the first byte that is read behind a message. Without one there is something there that changes what
// comes of it.
#ifdef KAP_SANITIZED
constexpr size_t TAIL = 0;
#else
constexpr size_t TAIL = 64;
#endif

Block *block_of(const itc_msg *msg)
{
    return reinterpret_cast<Block *>(reinterpret_cast<uintptr_t>(msg) - HEAD); // NOLINT
}

itc_msg *msg_of(Block *block) { return reinterpret_cast<itc_msg *>(block->bytes); }

struct Locate {
    std::string name;
    itc_msg *msg;
};

struct LiveMonitor {
    uint32_t id;
    uint32_t mbox;
    itc_msg *msg;
};

using Signal = std::pair<uint32_t, uint32_t>; // the number of a message and the mailbox at its other end

struct Platform {
    std::vector<fake::Sent> sent;
    std::deque<itc_msg *> inbox;
    std::function<void(const fake::Sent &)> responder;
    std::vector<uint32_t> timeouts;
    std::set<itc_msg *> live;
    std::set<itc_msg *> kept_messages;
    std::set<Signal> came;        // every message that was there for the daemon
    std::set<Signal> went;        // every message that it sent
    std::set<Signal> traced_sent; // every message that it said it sends

    uint32_t current_mbox = fake::OWN_MBOX;
    int init_result = 0;
    uint32_t create_result = fake::OWN_MBOX;
    int add_name_result = 0;
    std::map<std::string, uint32_t> names;
    std::vector<Locate> locates;
    std::vector<LiveMonitor> monitors;
    uint32_t next_monitor = 1;
    std::vector<std::string> calls;
    std::map<std::string, int> ns_results;

    std::vector<fake::Trace> traces;
    size_t traced_before_exit = 0;
    int tri_init_result = 0;
    std::string thread_name;

    signal_callback handler = nullptr;

    std::map<uint32_t, fake::Session> sessions;
    uint32_t start_result = 0;
    std::deque<uint32_t> start_results;
    uint32_t stop_result = 0;
    uint32_t next_session = 1;

    std::set<std::string> netns;
    std::set<std::string> not_netns; // of those
    bool own_netns_readable = true;
    int setns_fails = 0;
    std::string current_netns;
    std::map<int, std::string> netns_fds; // "" = the own one

    unsigned fail_at = 0;
    bool keeps_failing = false;
    unsigned allocations = 0;
    unsigned failed = 0;
    std::set<void *> heap; // what the code under test allocated and has not freed
    size_t kept = 0;

    Platform() = default;
    Platform(const Platform &) = delete;
    Platform &operator=(const Platform &) = delete;
    ~Platform()
    {
        for (itc_msg *msg : live) {
            __real_free(block_of(msg));
        }
        for (itc_msg *msg : kept_messages) {
            __real_free(block_of(msg));
        }
        // The code under test keeps a namespace handle and closes it some time later, perhaps on the next platform.
    }
};

std::unique_ptr<Platform> g;                        // NOLINT
tri_proc_info default_info = {0xFFFFFFFFu, "test"}; // NOLINT

Platform &p()
{
    if (!g) {
        g = std::make_unique<Platform>();
    }
    return *g;
}

std::set<std::string> &formats()
{
    static auto *set = new std::set<std::string>; // outlives the dump at exit
    return *set;
}

std::set<std::string> &texts()
{
    static auto *set = new std::set<std::string>; // outlives the dump at exit
    return *set;
}

void dump(const std::string &file, const std::set<std::string> &lines)
{
    std::ofstream out(file);
    for (const auto &line : lines) {
        out << line << "\n";
    }
}

// What was traced in this process goes to files, so that a check over all test processes can see it.
struct FormatDump {
    ~FormatDump()
    {
        const char *dir = getenv("KAP_FORMATS_SEEN_DIR");
        if (dir == nullptr) {
            return;
        }
        const auto now = std::chrono::steady_clock::now().time_since_epoch().count(); // process ids come again
        const std::string stem = std::string(dir) + "/" + std::to_string(getpid()) + "." + std::to_string(now);
        dump(stem + ".formats", formats());
        dump(stem + ".texts", texts());
    }
};
FormatDump dump_at_exit; // NOLINT

void record(uint32_t level, const char *text)
{
    texts().insert(text);
    p().traces.push_back({level, text});
}

itc_msg *new_message(uint32_t sender, const uint8_t *bytes, size_t size)
{
    auto *block = static_cast<Block *>(__real_calloc(1, HEAD + size + TAIL));
    memset(reinterpret_cast<uint8_t *>(block) + HEAD + size, 0xA5, TAIL);
    block->sender = sender;
    block->size = size;
    if (bytes != nullptr) {
        memcpy(block->bytes, bytes, size);
    }
    p().live.insert(msg_of(block));
    return msg_of(block);
}

void free_message(itc_msg *msg)
{
    if (p().live.erase(msg) + p().kept_messages.erase(msg) != 1) {
        ADD_FAILURE() << "a message was freed twice, or is none";
        return;
    }
    __real_free(block_of(msg));
}

fake::Bytes bytes_of(const itc_msg *msg)
{
    const Block *block = block_of(msg);
    const uint8_t *first = block->bytes; // the array is declared with its smallest size
    return {first, first + block->size};
}

void deliver(itc_msg *msg, uint32_t sender)
{
    block_of(msg)->sender = sender;
    p().came.insert({msg->msgno, sender});
    p().inbox.push_back(msg);
}

bool passes(const uint32_t *filter, uint32_t msgno)
{
    if (filter == nullptr) {
        return true;
    }
    for (uint32_t i = 1; i <= filter[0]; ++i) {
        if (filter[i] == msgno) {
            return true;
        }
    }
    return false;
}

template <typename... Args> std::string text(const Args &...args)
{
    std::ostringstream os;
    (os << ... << args);
    return os.str();
}

bool allocation_fails()
{
    if (!g) {
        return false;
    }
    ++g->allocations;
    if (g->fail_at == 0 || --g->fail_at != 0) {
        return false;
    }
    g->fail_at = g->keeps_failing ? 1 : 0;
    ++g->failed;
    return true;
}

void *note_allocated(void *block)
{
    if (g && block != nullptr) {
        g->heap.insert(block);
    }
    return block;
}

} // namespace

namespace fake
{

uint32_t Sent::msgno() const
{
    uint32_t number = 0;
    memcpy(&number, bytes.data(), 4);
    return number;
}

std::vector<Sent> &sent() { return p().sent; }

Sent take_sent()
{
    if (p().sent.empty()) {
        ADD_FAILURE() << "nothing was sent";
        return {0, 0, Bytes(4)};
    }
    Sent first = p().sent.front();
    p().sent.erase(p().sent.begin());
    return first;
}

void on_send(std::function<void(const Sent &)> responder) { p().responder = std::move(responder); }

void push(uint32_t from, const Bytes &bytes) { p().inbox.push_back(make(from, bytes)); }

itc_msg *make(uint32_t from, const Bytes &bytes)
{
    itc_msg *msg = new_message(from, bytes.data(), bytes.size());
    p().came.insert({msg->msgno, from});
    return msg;
}

bool dispatch(bool (*dispatcher)(const itc_msg *), uint32_t from, const Bytes &bytes)
{
    itc_msg *msg = make(from, bytes);
    const bool handled = dispatcher(msg);
    itc_free(&msg);
    return handled;
}

size_t queued() { return p().inbox.size(); }
std::vector<uint32_t> &receive_timeouts() { return p().timeouts; }

void set_current_mbox(uint32_t mbox) { p().current_mbox = mbox; }
void set_init_result(int result) { p().init_result = result; }
void set_create_result(uint32_t mbox) { p().create_result = mbox; }
void set_add_name_result(int result) { p().add_name_result = result; }

void name(const std::string &itc_name, uint32_t mbox)
{
    p().names[itc_name] = mbox;
    auto &waiting = p().locates;
    for (auto it = waiting.begin(); it != waiting.end();) {
        if (it->name == itc_name) {
            deliver(it->msg, mbox);
            it = waiting.erase(it);
        } else {
            ++it;
        }
    }
}

void kill(uint32_t mbox)
{
    auto &live = p().monitors;
    for (auto it = live.begin(); it != live.end();) {
        if (it->mbox == mbox && it->msg != nullptr) {
            deliver(it->msg, mbox);
            it->msg = nullptr;
        }
        ++it;
    }
}

std::vector<std::string> &calls() { return p().calls; }

std::vector<Monitor> monitors()
{
    std::vector<Monitor> list;
    for (const auto &m : p().monitors) {
        list.push_back({m.id, m.mbox, m.msg != nullptr ? bytes_of(m.msg) : Bytes{}});
    }
    return list;
}

std::vector<std::string> waiting_names()
{
    std::vector<std::string> list;
    for (const auto &l : p().locates) {
        list.push_back(l.name);
    }
    return list;
}

void set_ns_result(const std::string &function, int result) { p().ns_results[function] = result; }

std::ostream &operator<<(std::ostream &os, const Trace &trace)
{
    return os << trace.level << " \"" << trace.text << '"';
}

std::vector<Trace> &traces() { return p().traces; }

size_t traced_before_exit() { return p().traced_before_exit; }

size_t count_traced(uint32_t level, const std::string &text)
{
    size_t n = 0;
    for (const auto &t : p().traces) {
        n += t == Trace{level, text} ? 1 : 0;
    }
    return n;
}

bool traced(uint32_t level, const std::string &text) { return count_traced(level, text) > 0; }

void set_trace_mask(uint32_t mask) { default_info.mask = mask; }
void set_tri_init_result(int result) { p().tri_init_result = result; }
std::string thread_name() { return p().thread_name; }
const std::set<std::string> &formats_seen() { return formats(); }

signal_callback signal_handler() { return p().handler; }

std::map<uint32_t, Session> &sessions() { return p().sessions; }
void set_start_result(uint32_t result) { p().start_result = result; }
void set_start_results(std::vector<uint32_t> results) { p().start_results.assign(results.begin(), results.end()); }
void set_stop_result(uint32_t result) { p().stop_result = result; }
void set_next_session_id(uint32_t id) { p().next_session = id; }

void supervision_result(uint32_t id, uint32_t result, uint32_t sec, uint32_t nsec)
{
    auto found = p().sessions.find(id);
    if (found == p().sessions.end()) {
        ADD_FAILURE() << "no session " << id;
        return;
    }
    const supervision_rtt rtt = {sec, nsec};
    found->second.callback(result == SUPERVISION_LOST ? nullptr : &rtt, id, result);
}

void add_netns(const std::string &name) { p().netns.insert(name); }
void add_other_file(const std::string &name)
{
    p().netns.insert(name);
    p().not_netns.insert(name);
}
void remove_netns(const std::string &name) { p().netns.erase(name); }
void set_own_netns_readable(bool readable) { p().own_netns_readable = readable; }
void set_setns_fails(int nth) { p().setns_fails = nth; }
std::string current_netns() { return p().current_netns; }
size_t open_netns_fds() { return p().netns_fds.size(); }
bool is_open_netns_fd(int fd) { return p().netns_fds.count(fd) == 1; }

void fail_allocation(unsigned nth)
{
    p().fail_at = nth;
    p().keeps_failing = false;
}
void fail_allocations_from(unsigned nth)
{
    p().fail_at = nth;
    p().keeps_failing = true;
}
unsigned allocations() { return p().allocations; }
unsigned failed_allocations() { return p().failed; }
size_t live_allocations() { return p().heap.size(); }
size_t kept_leaks() { return p().kept; }

void reset()
{
    g = std::make_unique<Platform>();
    default_info.mask = 0xFFFFFFFFu;
}

size_t live_messages() { return p().live.size(); }

size_t kept_message_bytes()
{
    size_t bytes = 0;
    for (const itc_msg *msg : p().kept_messages) {
        bytes += itc_size(msg);
    }
    return bytes;
}
size_t kept_messages() { return p().kept_messages.size(); }

void PlatformTest::TearDown()
{
    size_t waiting = p().inbox.size() + p().locates.size();
    for (const auto &m : p().monitors) {
        waiting += m.msg != nullptr ? 1 : 0;
    }
    EXPECT_EQ(live_messages(), waiting) << "messages that nobody freed or sent";
    EXPECT_EQ(live_allocations(), 0u) << "blocks that nobody freed";
    for (const Signal &signal : p().traced_sent) {
        EXPECT_EQ(p().went.count(signal), 1u)
            << std::hex << "traced, but not sent: message 0x" << signal.first << " to 0x" << signal.second;
    }
    reset();
}

Builder &Builder::u8(uint8_t v)
{
    bytes.push_back(v);
    return *this;
}

Builder &Builder::u16(uint16_t v)
{
    bytes.resize(bytes.size() + 2);
    memcpy(bytes.data() + bytes.size() - 2, &v, 2);
    return *this;
}

Builder &Builder::u32(uint32_t v)
{
    bytes.resize(bytes.size() + 4);
    memcpy(bytes.data() + bytes.size() - 4, &v, 4);
    return *this;
}

Builder &Builder::n16(uint16_t v) { return u16(htons(v)); }
Builder &Builder::n32(uint32_t v) { return u32(htonl(v)); }

Builder &Builder::mac(const char *text)
{
    unsigned b[6] = {};
    if (sscanf(text, "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) != 6) { // NOLINT
        ADD_FAILURE() << "not a MAC: " << text;
    }
    for (unsigned v : b) {
        u8(static_cast<uint8_t>(v));
    }
    return *this;
}

Builder &Builder::text(const std::string &s, size_t field)
{
    for (size_t i = 0; i < field; ++i) {
        u8(i < s.size() ? static_cast<uint8_t>(s[i]) : 0);
    }
    return *this;
}

Builder &Builder::zeros(size_t n)
{
    bytes.resize(bytes.size() + n);
    return *this;
}

Builder &Builder::hex(const std::string &digits)
{
    std::string d;
    for (char c : digits) {
        if (c != ' ' && c != '\n') {
            d += c;
        }
    }
    for (size_t i = 0; i + 1 < d.size(); i += 2) {
        u8(static_cast<uint8_t>(std::stoul(d.substr(i, 2), nullptr, 16)));
    }
    return *this;
}

void put_u32(Bytes &bytes, size_t offset, uint32_t value)
{
    ASSERT_LE(offset + sizeof value, bytes.size());
    memcpy(bytes.data() + offset, &value, sizeof value);
}

std::string to_hex(const Bytes &bytes)
{
    std::string out;
    char digits[4];
    for (uint8_t b : bytes) {
        snprintf(digits, sizeof digits, "%02x", b);
        out += digits;
    }
    return out;
}

} // namespace fake

// ---- The platform's libraries
// ----------------------------------------------------------------------------------------

extern "C" {

int itc_init(int mailbox_count, int alloc_scheme, const void *scheme_params, const char *name_space, uint32_t flags)
{
    p().calls.push_back(text("itc_init(", mailbox_count, ",", alloc_scheme, ",", scheme_params != nullptr, ",",
                             name_space != nullptr, ",", flags, ")"));
    return p().init_result;
}

void itc_exit(void)
{
    p().calls.emplace_back("itc_exit()");
    p().traced_before_exit = p().traces.size();
}

uint32_t itc_create_mailbox(const char *name, uint32_t flags)
{
    p().calls.push_back(text("itc_create_mailbox(", name, ",", flags, ")"));
    return p().create_result;
}

int itc_delete_mailbox(uint32_t mbox)
{
    p().calls.push_back(text("itc_delete_mailbox(", mbox, ")"));
    return 0;
}

int itc_add_name(uint32_t mbox, const char *name)
{
    p().calls.push_back(text("itc_add_name(", mbox, ",", name, ")"));
    return p().add_name_result;
}

uint32_t itc_current_mbox(void) { return p().current_mbox; }

itc_msg *itc_alloc(size_t size, uint32_t msgno)
{
    itc_msg *msg = new_message(ITC_NO_MBOX, nullptr, size);
    msg->msgno = msgno;
    return msg;
}

void itc_free(itc_msg **msg)
{
    free_message(*msg);
    *msg = nullptr;
}

size_t itc_size(const itc_msg *msg) { return block_of(msg)->size; }

uint32_t itc_sender(const itc_msg *msg) { return block_of(msg)->sender; }

void itc_send(itc_msg **msg, uint32_t to, uint32_t from)
{
    fake::Sent record = {to, from, bytes_of(*msg)};
    itc_free(msg);
    p().went.insert({record.msgno(), to});
    if (to == fake::OWN_MBOX) {
        fake::push(from == ITC_MY_MBOX ? fake::OWN_MBOX : from, record.bytes);
        return;
    }
    p().sent.push_back(record);
    if (p().responder) {
        auto responder = p().responder;
        responder(record);
    }
}

itc_msg *itc_receive(const uint32_t *filter, uint32_t timeout_ms, uint32_t from)
{
    auto &inbox = p().inbox;
    for (auto it = inbox.begin(); it != inbox.end(); ++it) {
        if (passes(filter, (*it)->msgno) && (from == ITC_FROM_ANY || from == itc_sender(*it))) {
            itc_msg *msg = *it;
            inbox.erase(it);
            return msg;
        }
    }
    p().timeouts.push_back(timeout_ms);
    return nullptr;
}

uint32_t itc_locate(const char *name)
{
    auto found = p().names.find(name);
    return found == p().names.end() ? ITC_NO_MBOX : found->second;
}

void itc_locate_async(const char *name, itc_msg **msg, uint32_t deliver_to)
{
    p().calls.push_back(text("itc_locate_async(", name, ",", deliver_to, ")"));
    itc_msg *indication = *msg;
    *msg = nullptr;
    auto found = p().names.find(name);
    if (found != p().names.end()) {
        deliver(indication, found->second);
    } else {
        p().locates.push_back({name, indication});
    }
}

uint32_t itc_monitor(uint32_t mbox, itc_msg **msg)
{
    p().calls.push_back(text("itc_monitor(", mbox, ")"));
    const uint32_t id = p().next_monitor++;
    p().monitors.push_back({id, mbox, *msg});
    *msg = nullptr;
    return id;
}

void itc_unmonitor(uint32_t monitor_id)
{
    p().calls.push_back(text("itc_unmonitor(", monitor_id, ")"));
    auto &live = p().monitors;
    for (auto it = live.begin(); it != live.end(); ++it) {
        if (it->id == monitor_id) {
            if (it->msg != nullptr) {
                itc_free(&it->msg);
            }
            live.erase(it);
            return;
        }
    }
}

static int ns_call(const char *function, const char *name, const char *scope, uint32_t mbox, const char *path)
{
    p().calls.push_back(text(function, "(", name, ",", scope, ",", mbox, ",", path, ")"));
    auto found = p().ns_results.find(function);
    return found == p().ns_results.end() ? 0 : found->second;
}

int ns_publish(const char *name, const char *scope, uint32_t mbox, const char *path)
{
    return ns_call("ns_publish", name, scope, mbox, path);
}

int ns_unpublish(const char *name, const char *scope, uint32_t mbox, const char *path)
{
    return ns_call("ns_unpublish", name, scope, mbox, path);
}

int ns_subscribe(const char *name, const char *scope, uint32_t mbox)
{
    return ns_call("ns_subscribe", name, scope, mbox, "");
}

int ns_unsubscribe(uint32_t sid, uint32_t mbox)
{
    p().calls.push_back(text("ns_unsubscribe(", sid, ",", mbox, ")"));
    return 0;
}

__thread tri_proc_info *procInfo = &default_info; // NOLINT

int tri_init(void)
{
    p().calls.emplace_back("tri_init()");
    return p().tri_init_result;
}

int tri_register_thread_name(const char *name)
{
    p().thread_name = name;
    return 0;
}

const char *short_fname(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

const char *formatStr(const char *format, ...)
{
    static char buffer[2048];
    formats().insert(format);
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

void lttngTriTrace(uint32_t level, const char * /*file*/, int /*line*/, const char *text) { record(level, text); }

void lttngTriSendSigTrace(const char * /*file*/, int /*line*/, uint32_t msgno, uint32_t peer, const char *text)
{
    p().traced_sent.insert({msgno, peer});
    record(TRI_LEVEL_SENT, text);
}

void lttngTriRecSigTrace(const char * /*file*/, int /*line*/, uint32_t msgno, uint32_t peer, const char *text)
{
    EXPECT_EQ(p().came.count({msgno, peer}), 1u)
        << std::hex << "traced, but not received: message 0x" << msgno << " from 0x" << peer << ": " << text;
    record(TRI_LEVEL_RECEIVED, text);
}

int set_signal_handler(signal_callback callback)
{
    p().calls.emplace_back("set_signal_handler()");
    p().handler = callback;
    return 0;
}

uint32_t start_supervision_session(uint32_t *session_id, const supervision_params *params,
                                   supervision_callback_fn callback)
{
    uint32_t result = p().start_result;
    if (!p().start_results.empty()) {
        result = p().start_results.front();
        p().start_results.pop_front();
    }
    if (result != 0) {
        return result;
    }
    *session_id = p().next_session++;
    p().sessions[*session_id] = {*session_id, *params, callback, p().current_netns};
    return 0;
}

uint32_t stop_supervision_session(uint32_t session_id)
{
    if (p().stop_result != 0) {
        return p().stop_result;
    }
    return p().sessions.erase(session_id) == 1 ? 0 : 4;
}

// ---- Wrapped calls of the C library ----

void *__wrap_calloc(size_t n, size_t size)
{
    return allocation_fails() ? nullptr : note_allocated(__real_calloc(n, size));
}

void *__wrap_malloc(size_t size) { return allocation_fails() ? nullptr : note_allocated(__real_malloc(size)); }

void *__wrap_realloc(void *old, size_t size)
{
    if (allocation_fails()) {
        return nullptr;
    }
    if (g) {
        g->heap.erase(old);
    }
    return note_allocated(__real_realloc(old, size));
}

void __wrap_free(void *block)
{
    if (g) {
        g->heap.erase(block);
    }
    __real_free(block);
}

int __wrap_open(const char *path, int flags, ...)
{
    const std::string file = path;
    const std::string netns_dir = "/var/run/netns/";
    std::string name;
    if (file == "/proc/self/ns/net") {
        if (!p().own_netns_readable) {
            errno = EACCES;
            return -1;
        }
        name = p().current_netns;
    } else if (file.rfind(netns_dir, 0) == 0) {
        name = file.substr(netns_dir.size());
        if (p().netns.count(name) == 0) {
            errno = ENOENT;
            return -1;
        }
    } else {
        va_list args;
        va_start(args, flags);
        const int mode = va_arg(args, int);
        va_end(args);
        return __real_open(path, flags, mode);
    }
    const int fd = __real_open("/dev/null", O_RDONLY | O_CLOEXEC);
    p().netns_fds[fd] = name;
    return fd;
}

int __wrap_open64(const char *path, int flags, ...) __attribute__((alias("__wrap_open")));

int __wrap_close(int fd)
{
    if (g) {
        g->netns_fds.erase(fd);
    }
    return __real_close(fd);
}

int __wrap_fstatfs(int fd, struct statfs *found)
{
    const auto known = p().netns_fds.find(fd);
    if (known == p().netns_fds.end()) {
        errno = EBADF;
        return -1;
    }
    *found = {};
    found->f_type = p().not_netns.contains(known->second) ? TMPFS_MAGIC : NSFS_MAGIC;
    return 0;
}

int __wrap_fstatfs64(int fd, struct statfs *found) __attribute__((alias("__wrap_fstatfs")));

int __wrap_setns(int fd, int nstype)
{
    if (p().setns_fails > 0 && --p().setns_fails == 0) {
        errno = EPERM;
        return -1;
    }
    auto found = p().netns_fds.find(fd);
    if (found == p().netns_fds.end() || nstype != CLONE_NEWNET) {
        errno = EBADF;
        return -1;
    }
    p().current_netns = found->second;
    return 0;
}

// Called where the code under test keeps a leak on purpose: see keep_leak.hpp.
void kap_note_kept_leak(const void *object)
{
    ++p().kept;
    p().heap.erase(const_cast<void *>(object)); // NOLINT(cppcoreguidelines-pro-type-const-cast)
    for (auto it = p().live.begin(); it != p().live.end(); ++it) {
        if (*it == object) {
            p().kept_messages.insert(*it);
            p().live.erase(it);
            return;
        }
    }
}

} // extern "C"
