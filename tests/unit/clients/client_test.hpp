// What the tests of all clients share: a handler that records events, a client driven through its states, and two
// walks: every message in every state, and every message at every length too short for it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "fake_platform.hpp"
#include "vorn_types.hpp"

namespace client_test
{

using fake::Builder;
using fake::Bytes;

inline constexpr uint32_t SERVER = 0x00020007;

struct Event {
    client_event event;
    uint32_t state; // of the client, while its handler ran
};

inline std::vector<Event> &events()
{
    static std::vector<Event> list;
    return list;
}

inline uint32_t (*&state_function())()
{
    static uint32_t (*function)() = nullptr;
    return function;
}

inline void record_event(const client_event *event)
{
    events().push_back({*event, state_function() != nullptr ? state_function()() : 0});
}

// Service events as their id, results as 100 and the code, port events as 200 and the id.
inline std::vector<uint32_t> raised()
{
    std::vector<uint32_t> list;
    for (const auto &e : events()) {
        list.push_back(e.event.type * 100 + e.event.word[0]);
    }
    return list;
}

// The first three words of a message, as a server writes them.
inline Builder message(uint32_t number, uint32_t procedure_ref = 0x21, uint32_t connection_ref = 0x55)
{
    Builder b;
    b.u32(number).n32(procedure_ref).n32(connection_ref);
    return b;
}

// Takes the next message out of the daemon's mailbox, dispatches it and returns its bytes.
inline Bytes deliver_next(bool (*dispatch)(const itc_msg *))
{
    itc_msg *msg = itc_receive(nullptr, 0, ITC_FROM_ANY);
    if (msg == nullptr) {
        ADD_FAILURE() << "the mailbox is empty";
        return Bytes(4);
    }
    const auto *first = reinterpret_cast<const uint8_t *>(msg);
    Bytes bytes(first, first + itc_size(msg));
    EXPECT_TRUE(dispatch(msg));
    itc_free(&msg);
    return bytes;
}

inline std::string with_state(const std::string &format, const char *state)
{
    const size_t at = format.find("%s");
    return at == std::string::npos ? format : format.substr(0, at) + state + format.substr(at + 2);
}

// Of a list of messages the numbers, and of any list how many entries it has.
#define CLIENT_TEST_NUMBER(number, ...) number,
#define CLIENT_TEST_ONE_MORE(...) +1
#define CLIENT_TEST_ENTRIES(LIST) (size_t{0} LIST(CLIENT_TEST_ONE_MORE))

struct Client {
    void (*init)(client_event_handler);
    bool (*dispatch)(const itc_msg *);
    uint32_t (*state)();
    const char *(*state_to_string)(uint32_t);
    void (*forget_all)();
    void (*drive)(uint32_t state); // from a fresh process
    uint32_t states;
    std::vector<uint32_t> numbers; // every one that its protocol has

    // A fresh process whose client is in `wanted`, with nothing recorded.
    void enter(uint32_t wanted) const
    {
        forget_all();
        fake::reset();
        state_function() = state;
        drive(wanted);
        ASSERT_EQ(state(), wanted);
        forget_records();
    }

    static void forget_records()
    {
        events().clear();
        fake::sent().clear();
        fake::traces().clear();
        fake::calls().clear();
    }

    [[nodiscard]] bool receive(const Bytes &bytes, uint32_t from = SERVER) const
    {
        return fake::dispatch(dispatch, from, bytes);
    }
};

// What a message does in every state.
struct Transition {
    const char *name;
    Bytes bytes;
    std::vector<uint32_t> next;                // by state
    std::vector<std::vector<uint32_t>> raised; // by state
    uint32_t level;                            // of `text`
    const char *text;                          // the notice, "%s" stands for the state's text
    std::set<uint32_t> noticed_in;             // the states in which it appears
};

// The table has a row for every message that the client takes, and for no other.
inline void expect_row_for_every_message(const Client &client, const std::vector<Transition> &table)
{
    std::set<uint32_t> rows;
    for (const auto &row : table) {
        uint32_t number = 0;
        memcpy(&number, row.bytes.data(), sizeof number);
        rows.insert(number);
    }
    for (const uint32_t number : client.numbers) {
        client.enter(0);
        EXPECT_EQ(client.receive(Builder().u32(number)), rows.count(number) == 1) << std::hex << number;
    }
}

inline void walk(const Client &client, const std::vector<Transition> &table)
{
    expect_row_for_every_message(client, table);
    for (const auto &row : table) {
        ASSERT_EQ(row.next.size(), client.states) << row.name;
        ASSERT_EQ(row.raised.size(), client.states) << row.name;
        for (uint32_t state = 0; state < client.states; ++state) {
            SCOPED_TRACE(std::string(row.name) + " in " + client.state_to_string(state));
            client.enter(state);
            EXPECT_TRUE(client.receive(row.bytes));
            EXPECT_EQ(client.state(), row.next[state]);
            EXPECT_EQ(raised(), row.raised[state]);
            const std::string text = with_state(row.text, client.state_to_string(state));
            EXPECT_EQ(fake::count_traced(row.level, text), row.noticed_in.count(state)) << text;
            client.enter(state); // and the same untraced
            fake::set_trace_mask(0);
            EXPECT_TRUE(client.receive(row.bytes));
            EXPECT_EQ(client.state(), row.next[state]);
            EXPECT_EQ(raised(), row.raised[state]);
            EXPECT_TRUE(fake::traces().empty());
        }
    }
    client.forget_all();
    fake::reset();
}

struct Received {
    const char *name;
    Bytes bytes; // of the smallest size that its layout and its own count need
    uint32_t in_state;
};

inline void expect_long_enough(const Client &client, const Received &message, const Bytes &bytes)
{
    client.enter(message.in_state);
    EXPECT_TRUE(client.receive(bytes));
    EXPECT_FALSE(std::any_of(fake::traces().begin(), fake::traces().end(), [](const fake::Trace &t) {
        return t.text.find("too short") != std::string::npos;
    })) << message.name;
}

// Every length that is too short, from the message number alone on, leaves no more than one trace.
inline void shorten(const Client &client, const std::vector<Received> &messages)
{
    for (const auto &message : messages) {
        for (size_t size = 4; size < message.bytes.size(); ++size) {
            SCOPED_TRACE(std::string(message.name) + " of " + std::to_string(size) + " bytes");
            client.enter(message.in_state);
            EXPECT_TRUE(client.receive(Bytes(message.bytes.begin(), message.bytes.begin() + static_cast<long>(size))));
            EXPECT_EQ(client.state(), message.in_state);
            EXPECT_TRUE(events().empty());
            EXPECT_TRUE(fake::sent().empty());
            EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{1, std::string(message.name) + " too short: " +
                                                                        std::to_string(size) + " bytes"}}));
        }
        expect_long_enough(client, message, message.bytes);
        if (message.bytes.size() == 16 && message.bytes.back() != 0) { // nothing follows: its last word counts nothing
            Bytes bytes = message.bytes;
            std::fill(bytes.end() - 4, bytes.end(), 0xFF);
            expect_long_enough(client, message, bytes);
        }
    }
    client.forget_all();
    fake::reset();
}

class ClientTest : public fake::PlatformTest
{
protected:
    explicit ClientTest(const Client &client) : client_(client) {}

    void SetUp() override
    {
        PlatformTest::SetUp();
        client_.forget_all();
        state_function() = client_.state;
        Client::forget_records();
    }

    void TearDown() override
    {
        client_.forget_all();
        PlatformTest::TearDown();
    }

    const Client &client_;
};

} // namespace client_test
