// The platform, in memory: what the daemon sends, traces and starts is recorded; what it receives is pushed by the
// test. One thread, no sockets, no clock. Received messages lie at the very end of their heap block, so that a
// sanitizer sees the first byte read behind them.
//
// A fixture derives from fake::PlatformTest, which starts every test with a fresh platform and ends it with a check
// that every message was freed or sent and every trace ring is empty of surprises the test asked about.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "itc.h"
#include "ns.h"
#include "sighandler.h"
#include "supervision.h"
#include "tri.h"

namespace fake
{

using Bytes = std::vector<uint8_t>;

inline constexpr uint32_t OWN_MBOX = 0x00010001;

// ---- Messages ----

struct Sent {
    uint32_t to;
    uint32_t from;
    Bytes bytes;
    [[nodiscard]] uint32_t msgno() const;
};

// Everything sent and not yet taken, in order. take_sent removes and returns the first; fails the test when none is
// there.
std::vector<Sent> &sent();
Sent take_sent();

// Called right after a message was sent (it is in sent() already); may push answers. For services that answer at once.
void on_send(std::function<void(const Sent &)> responder);

// Puts a message into the daemon's mailbox.
void push(uint32_t from, const Bytes &bytes);
// A received message to hand to a dispatch function directly; free it with itc_free.
itc_msg *make(uint32_t from, const Bytes &bytes);
// make, call, free. Returns what the dispatcher returned.
bool dispatch(bool (*dispatcher)(const itc_msg *), uint32_t from, const Bytes &bytes);
// How many pushed messages are still queued, and the time-outs that itc_receive was called with while none passed.
size_t queued();
std::vector<uint32_t> &receive_timeouts();

// ---- Mailboxes, names, monitors ----

void set_current_mbox(uint32_t mbox); // ITC_NO_MBOX: the thread has none
void set_init_result(int result);
void set_create_result(uint32_t mbox);
void set_add_name_result(int result);
void name(const std::string &itc_name, uint32_t mbox); // what itc_locate finds; delivers a waiting itc_locate_async
void kill(uint32_t mbox);                              // delivers the messages of its monitors, sender = mbox
std::vector<std::string> &calls();                     // itc_init(1,0,0,0,0), itc_exit(), ns_publish(...) and so on
struct Monitor {
    uint32_t id;
    uint32_t mbox;
    Bytes bytes; // of its message
};
std::vector<Monitor> monitors(); // the live ones
std::vector<std::string> waiting_names();

// ---- Name service ----

void set_ns_result(const std::string &function, int result); // "ns_publish", ...

// ---- Traces ----

struct Trace {
    uint32_t level; // 17: received, 18: sent
    std::string text;
    bool operator==(const Trace &other) const = default;
};
std::ostream &operator<<(std::ostream &os, const Trace &trace);
std::vector<Trace> &traces();
bool traced(uint32_t level, const std::string &text);
size_t count_traced(uint32_t level, const std::string &text);
size_t traced_before_exit(); // how many traces there were when itc_exit was called last
void set_trace_mask(uint32_t mask);
void set_tri_init_result(int result);
std::string thread_name();
// Every format string that went through formatStr in this process.
const std::set<std::string> &formats_seen();

// ---- Signals ----

signal_callback signal_handler();

// ---- Supervision ----

struct Session {
    uint32_t id;
    supervision_params params;
    supervision_callback_fn callback;
    std::string name_space; // where the thread was; "" = its own
};
std::map<uint32_t, Session> &sessions();               // the running ones
void set_start_result(uint32_t result);                // of every start from now on
void set_start_results(std::vector<uint32_t> results); // of the next ones
void set_stop_result(uint32_t result);
void set_next_session_id(uint32_t id);
// As the library does: calls the session's callback.
void supervision_result(uint32_t id, uint32_t result, uint32_t sec = 0, uint32_t nsec = 0);

// ---- Network namespaces: setns, and open of the two kinds of namespace file (linked with --wrap) ----

void add_netns(const std::string &name);
void add_other_file(const std::string &name); // it lies where the names are, and is no namespace
void remove_netns(const std::string &name);
void set_own_netns_readable(bool readable); // open("/proc/self/ns/net")
void set_setns_fails(int nth);              // the nth setns from now (1 = next) fails with EPERM; 0: none
std::string current_netns();                // "" = the process's own
size_t open_netns_fds();
bool is_open_netns_fd(int fd);

// ---- Memory: calloc, realloc, malloc and free called by the code under test (linked with --wrap) ----

// The nth allocation from now (1 = the next) fails, and only that one. 0: none.
void fail_allocation(unsigned nth);
// The nth allocation from now fails, and every later one. 0: none.
void fail_allocations_from(unsigned nth);
// How often calloc, realloc and malloc were called since the platform was reset.
unsigned allocations();
// How many of them failed.
unsigned failed_allocations();
// Blocks that were allocated since the platform was reset and neither freed nor marked as kept.
size_t live_allocations();
// How often the code under test said that it keeps something. It may free that later.
size_t kept_leaks();

void reset();
// Messages allocated and neither freed nor sent nor marked as kept.
size_t live_messages();
// Messages marked as kept and not freed since, and their bytes.
size_t kept_messages();
size_t kept_message_bytes();

class PlatformTest : public ::testing::Test
{
protected:
    void SetUp() override { reset(); }
    void TearDown() override;
};

// ---- Bytes ----

// u8, u16, u32 in host byte order; n16, n32 in network byte order; text zero-filled to its field.
struct Builder {
    Bytes bytes;
    Builder &u8(uint8_t v);
    Builder &u16(uint16_t v);
    Builder &u32(uint32_t v);
    Builder &n16(uint16_t v);
    Builder &n32(uint32_t v);
    Builder &mac(const char *text); // "02:00:00:00:00:01"
    Builder &text(const std::string &s, size_t field);
    Builder &zeros(size_t n);
    Builder &hex(const std::string &digits); // blanks are skipped
    operator Bytes() const { return bytes; } // NOLINT(google-explicit-constructor)
};
std::string to_hex(const Bytes &bytes);
// Overwrites the 32-bit word at `offset`, in host byte order.
void put_u32(Bytes &bytes, size_t offset, uint32_t value);

} // namespace fake
