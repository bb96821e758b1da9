/* What waits for a thread: held against a plain list that every receive walks from its front, over random steps. */
#include "itc_internal.h"
#include "itcd_fixture.hpp"

#include <array>
#include <cstring>
#include <list>
#include <random>

using namespace itc_test;

namespace
{

constexpr uint32_t FIRST_NUMBER = 0x5201;
constexpr uint32_t NUMBERS = 5;
constexpr uint32_t OTHERS = 0x5301;
constexpr uint32_t WANTED = 0x5302;

struct tagged {
    uint32_t msgno;
    uint32_t tag;
};

struct waiting {
    uint32_t msgno;
    uint32_t from;
    uint32_t to;
    uint32_t tag;
};

class ItcQueue : public ItcTest
{
protected:
    std::mt19937 random{11}; // NOLINT: the same walk every time
    std::array<uint32_t, 3> boxes{};
    std::list<waiting> plain;
    uint32_t tags = 0;
    int boxes_made = 0;

    void SetUp() override
    {
        ItcTest::SetUp();
        if (!IsSkipped()) {
            start_registry();
            boxes[0] = join("own");
            boxes[1] = itc_create_mailbox("second", 0);
            boxes[2] = itc_create_mailbox("third", 0);
        }
    }
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random() % n); }

    void send_one()
    {
        const waiting w{FIRST_NUMBER + below(NUMBERS), boxes[below(3)], boxes[below(3)], ++tags};
        itc_msg *msg = itc_alloc(sizeof(tagged), w.msgno);
        reinterpret_cast<tagged *>(msg)->tag = w.tag;
        itc_send(&msg, w.to, w.from);
        plain.push_back(w);
    }

    // One that wants every number, some, some of which it names twice, or none at all.
    std::vector<uint32_t> random_filter()
    {
        std::vector<uint32_t> filter;
        if (below(4) != 0) {
            filter.push_back(below(4));
            for (uint32_t i = 0; i < filter[0]; i++) {
                filter.push_back(FIRST_NUMBER + below(NUMBERS + 1));
            }
        }
        return filter;
    }

    uint32_t take_from_plain(const std::vector<uint32_t> &filter, uint32_t from)
    {
        for (auto w = plain.begin(); w != plain.end(); ++w) {
            bool passes = filter.empty();
            for (size_t i = 1; i < filter.size(); i++) {
                passes = passes || filter[i] == w->msgno;
            }
            if (passes && (from == ITC_FROM_ANY || w->from == from)) {
                const uint32_t tag = w->tag;
                plain.erase(w);
                return tag;
            }
        }
        return 0;
    }

    void receive_one()
    {
        const std::vector<uint32_t> filter = random_filter();
        const uint32_t from = below(3) == 0 ? boxes[below(3)] : ITC_FROM_ANY;
        itc_msg *msg = itc_receive(filter.empty() ? nullptr : filter.data(), 0, from);
        itc_internal_waiting counted{};
        itc_internal_get_waiting(&counted);
        ASSERT_EQ(msg == nullptr ? 0 : reinterpret_cast<tagged *>(msg)->tag, take_from_plain(filter, from));
        itc_free(&msg);
        ASSERT_EQ(counted.messages_in, plain.size());
    }

    // What waited in it goes with it.
    void make_a_box_anew()
    {
        uint32_t &box = boxes[1 + below(2)];
        ASSERT_EQ(itc_delete_mailbox(box), 0);
        plain.remove_if([box](const waiting &w) { return w.to == box; });
        const uint32_t gone = box;
        box = itc_create_mailbox(("again " + std::to_string(boxes_made++)).c_str(), 0);
        ASSERT_NE(box, ITC_NO_MBOX);
        ASSERT_NE(box, gone);
    }
};

TEST_F(ItcQueue, GivesWhatAWalkFromTheFrontFinds)
{
    for (int phase = 0; phase < 8; phase++) { // the queue grows, and is emptied again
        for (int step = 0; step < 4000; step++) {
            if (below(100) < (phase % 2 == 0 ? 62u : 30u)) {
                send_one();
            } else {
                ASSERT_NO_FATAL_FAILURE(receive_one()) << "phase " << phase << " step " << step;
            }
            if (below(1000) == 0) {
                ASSERT_NO_FATAL_FAILURE(make_a_box_anew());
            }
        }
    }
    while (!plain.empty()) {
        itc_msg *msg = itc_receive(nullptr, 0, ITC_FROM_ANY);
        ASSERT_NE(msg, nullptr);
        ASSERT_EQ(reinterpret_cast<tagged *>(msg)->tag, plain.front().tag) << "the rest comes in the order of arrival";
        plain.pop_front();
        itc_free(&msg);
    }
    EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
}

// Other numbers than any before, each once: the lines that they stood in go with them.
TEST_F(ItcQueue, KeepsTheOrderOfAsManyNumbersAsThereAreMessages)
{
    const uint32_t filter[] = {1, WANTED};
    for (uint32_t round = 0; round < 3; round++) {
        for (uint32_t i = 0; i < 10000; i++) {
            itc_msg *msg = itc_alloc(4, 0x10000 + round * 10000 + i);
            itc_send(&msg, boxes[0], ITC_MY_MBOX);
        }
        ASSERT_EQ(itc_receive(filter, 0, ITC_FROM_ANY), nullptr);
        for (uint32_t i = 0; i < 10000; i++) {
            itc_msg *msg = itc_receive(nullptr, 0, ITC_FROM_ANY);
            ASSERT_NE(msg, nullptr);
            ASSERT_EQ(msg->msgno, 0x10000 + round * 10000 + i);
            itc_free(&msg);
        }
    }
}

TEST_F(ItcQueue, GivesAMonitorsMessageBackThatAReceiveHasLookedPast)
{
    constexpr uint32_t NOBODY = 0x00FE0001;
    itc_msg *first = itc_alloc(4, OTHERS);
    const uint32_t taken_back = itc_monitor(NOBODY, &first);
    itc_msg *second = itc_alloc(4, WANTED);
    itc_monitor(NOBODY, &second);
    itc_msg *msg = receive(WANTED); // comes behind the first
    ASSERT_NE(msg, nullptr);
    itc_free(&msg);
    itc_unmonitor(taken_back);
    EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
}

} // namespace
