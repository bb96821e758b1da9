// Memory that runs out. Every allocation of every operation fails once, alone and with every one that comes after it,
// and what the daemon then traces, answers, starts and stops is compared whole with a table: one row for each
// allocation, in the order in which they are asked for. An operation that comes to ask for more memory, or for less,
// fails its test until its table is right again. After each shortage what must always hold holds, the same daemon
// serves a client as ever, and once its services are gone nothing is left of it in memory.
//
// Messages are not in these tables: itc_alloc gives a message or ends the process.
#include <functional>

#include "iemli/iemli_session.hpp"
#include "transcript.hpp"

namespace
{

using namespace transcript;

// What is seen when one allocation fails.
struct Shortage {
    const char *wanted_for;
    std::vector<std::string> errors; // traced at level 1, in order
    std::string happened;            // what was sent, started and stopped
};

// What is seen instead when every allocation after it fails too.
struct Lasting {
    size_t row; // counted from 1
    std::vector<std::string> errors;
    std::string happened;
};

const std::vector<AppLink> TWO = {APP_1, APP_2};

// More app links than are looked through one by one.
std::vector<AppLink> many_app_links()
{
    static std::vector<std::string> texts;
    if (texts.empty()) {
        for (int i = 0; i < 34; ++i) {
            char text[18];
            (void)snprintf(text, sizeof text, "02:00:00:00:%s:%02X", i % 2 == 0 ? "1A" : "1B", i / 2);
            texts.emplace_back(text);
        }
    }
    std::vector<AppLink> apps;
    for (size_t i = 0; i < texts.size(); i += 2) {
        apps.push_back({texts[i].c_str(), texts[i + 1].c_str()});
    }
    return apps;
}

class MemoryRunsOut : public Story
{
protected:
    const std::vector<Port> all_ports = ports;
    uint32_t a = 0; // A's session

    // The four services are up and A has a session.
    void begin()
    {
        start();
        a = open_session(CLIENT, 11);
    }

    void begin_with_link(const Link &link)
    {
        begin();
        create_link(a, link);
    }

    void start_over()
    {
        DaemonTest::TearDown();
        DaemonTest::SetUp();
        seen_sessions.clear();
        ports = all_ports;
        next_rule_id = 1;
        next_client_procedure = 1000;
        pmi_answers = answer::confirm;
        emi_answers = answer::confirm;
        fmi_answers = answer::confirm;
    }

    static std::vector<std::string> errors()
    {
        std::vector<std::string> found;
        for (const fake::Trace &trace : fake::traces()) {
            if (trace.level == 1) {
                found.push_back(trace.text);
            }
        }
        return found;
    }

    // ---- What must hold, whatever failed ----

    static void expect_consistent()
    {
        size_t sessions = 0;
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            EXPECT_NE(iemli_session_find(link->connection_ref), nullptr) << "a link without an owner";
            EXPECT_EQ(iml_link_look_up(link->link_ref), link);
            EXPECT_EQ(link->supervision_state == SUPERVISION_RUNNING, link->supervision_session_id != 0);
            sessions += (link->supervision_session_id != 0 ? 1 : 0) + link->keep_alive_count;
        }
        EXPECT_EQ(sessions, fake::sessions().size());
        EXPECT_EQ(iemli_session_any_busy(), link_procedure_count() > 0);
        EXPECT_EQ(fake::current_netns(), "");
        EXPECT_EQ(fake::open_netns_fds(), 0u);
    }

    // What A hears of a session of its own from its start to its end.
    std::string clients_story()
    {
        happened();
        a = open_session(CLIENT, 11);
        request(create_request(a, 5, {.port = "IDL_A1", .vlan = 100, .app_links = TWO}));
        const iml_link *link = iml_link_first();
        if (link == nullptr) {
            return "no link";
        }
        supervision(link->supervision_session_id, SUPERVISION_ANSWERED, 0, 3000);
        request(update_request(a, 6, 1, {APP_2, APP_3}));
        request(enable_rtt_request(a, 7, 1, 2, 1, 100));
        supervision(link->supervision_session_id, SUPERVISION_ANSWERED, 0, 3000);
        supervision(link->supervision_session_id, SUPERVISION_ANSWERED, 0, 5000);
        request(delete_request(a, 8, 1));
        request(term_request(a, 9));
        std::string heard;
        for (const fake::Sent &message : fake::sent()) {
            heard += message.to == CLIENT ? line_of(message) : "";
        }
        EXPECT_EQ(errors(), std::vector<std::string>{});
        happened();
        return heard;
    }

    void expect_service_as_ever()
    {
        fake::kill(CLIENT);
        run();
        EXPECT_EQ(iml_link_count(), 0u);
        EXPECT_EQ(link_procedure_count(), 0u);
        EXPECT_EQ(iemli_session_first(), nullptr);
        EXPECT_EQ(clients_story(), "A <- IEMLI_CREATE_INTER_ME_LINK_CFM 5 link 1\n"
                                   "A <- IEMLI_INTER_ME_LINK_STATUS_IND 5 link 1 disabled with reason no connectivity\n"
                                   "A <- IEMLI_INTER_ME_LINK_STATUS_IND 5 link 1 enabled\n"
                                   "A <- IEMLI_UPDATE_INTER_ME_LINK_CFM 6\n"
                                   "A <- IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM 7\n"
                                   "A <- IEMLI_INTER_ME_LINK_RTT_IND 6 link 1 min 3000 avg 4000 max 5000 valid 1\n"
                                   "A <- IEMLI_DELETE_INTER_ME_LINK_CFM 8\n"
                                   "A <- IEMLI_TERM_SERVICE_CFM 9\n");
        EXPECT_TRUE(fake::sessions().empty());
    }

    void expect_nothing_left() const
    {
        for (const uint32_t service : {FMI, IEPCSI, PMI, EMI}) {
            fake::kill(service);
        }
        run();
        EXPECT_LE(fake::live_allocations(), grown_tables);
    }

    void restart()
    {
        forget_all();
        start();
    }

    // ---- One operation ----

    std::function<void()> before = [this] { begin(); }; // brings the daemon to where the operation starts
    std::function<void()> recover = [] {};              // what has to come again once there is memory
    std::vector<Lasting> lasting;
    size_t grown_tables = 0; // of the indices; they stay as long as the process

    void run_short_of_memory(size_t row, bool for_good, const std::function<void()> &operation)
    {
        start_over();
        before();
        happened();
        const auto nth = static_cast<unsigned>(row);
        for_good ? fake::fail_allocations_from(nth) : fake::fail_allocation(nth);
        operation();
        fake::fail_allocation(0);
    }

    void expect_whole_again()
    {
        expect_consistent();
        recover();
        expect_service_as_ever();
        expect_nothing_left();
    }

    // With tracing off the shortage changes nothing else.
    void expect_the_same_untraced(size_t row, const std::function<void()> &operation)
    {
        run_short_of_memory(row, false, operation);
        const std::string traced = happened();
        start_over();
        before();
        happened();
        fake::set_trace_mask(0);
        fake::fail_allocation(static_cast<unsigned>(row));
        operation();
        fake::fail_allocation(0);
        EXPECT_TRUE(fake::traces().empty());
        EXPECT_EQ(happened(), traced);
        fake::set_trace_mask(0xFFFFFFFF);
        recover();
    }

    // Of the allocations of the operation exactly these may fail, one at a time, without anybody seeing it.
    void expect_unseen(const std::function<void()> &operation, const std::vector<unsigned> &rows)
    {
        start_over();
        before();
        happened();
        const unsigned asked_before = fake::allocations();
        operation();
        const unsigned asked = fake::allocations() - asked_before;
        const std::string complete = happened();
        std::vector<unsigned> unseen;
        for (unsigned row = 1; row <= asked; ++row) {
            SCOPED_TRACE("without memory for allocation " + std::to_string(row));
            run_short_of_memory(row, false, operation);
            if (errors().empty()) {
                unseen.push_back(row);
                EXPECT_EQ(happened(), complete);
            }
            expect_whole_again();
        }
        EXPECT_EQ(unseen, rows);
    }

    void expect(const std::function<void()> &operation, const std::vector<Shortage> &rows)
    {
        start_over();
        before();
        const unsigned asked_before = fake::allocations();
        operation();
        ASSERT_EQ(fake::allocations() - asked_before, rows.size()) << "allocations of this operation";
        for (size_t row = 1; row <= rows.size(); ++row) {
            const Shortage &alone = rows[row - 1];
            SCOPED_TRACE(std::string("without memory for ") + alone.wanted_for);
            run_short_of_memory(row, false, operation);
            EXPECT_EQ(fake::failed_allocations(), 1u);
            EXPECT_EQ(errors(), alone.errors);
            EXPECT_EQ(happened(), alone.happened);
            expect_whole_again();
            expect_the_same_untraced(row, operation);
        }
        for (size_t row = 1; row <= rows.size(); ++row) {
            Lasting from_then_on = {row, rows[row - 1].errors, rows[row - 1].happened};
            for (const Lasting &other : lasting) {
                from_then_on = other.row == row ? other : from_then_on;
            }
            SCOPED_TRACE(std::string("without any memory from that on for ") + rows[row - 1].wanted_for);
            run_short_of_memory(row, true, operation);
            EXPECT_GE(fake::failed_allocations(), 1u);
            EXPECT_EQ(errors(), from_then_on.errors);
            EXPECT_EQ(happened(), from_then_on.happened);
            expect_whole_again();
        }
    }
};

// What the tables have in common.
const std::string REJECTED = "A <- IEMLI_CREATE_INTER_ME_LINK_REJ 5 reason 99\n";
const std::string NOT_UPDATED = "A <- IEMLI_UPDATE_INTER_ME_LINK_REJ 6 reason 99\n";
const std::string UPDATED = "A <- IEMLI_UPDATE_INTER_ME_LINK_CFM 6\n";
const std::string DELETED = "A <- IEMLI_DELETE_INTER_ME_LINK_CFM 6\n";
const std::string CREATED = "A <- IEMLI_CREATE_INTER_ME_LINK_CFM 5 link 1\n"
                            "A <- IEMLI_INTER_ME_LINK_STATUS_IND 5 link 1 disabled with reason no connectivity\n";
const std::string NO_KEEP_ALIVES = "Memory error. App supervision not started.";

TEST_F(MemoryRunsOut, AndASessionIsRefused)
{
    before = [this] { start(); };
    const Bytes init = Builder().u32(IEMLI_INIT_SERVICE_REQ).u32(1).u32(11).u32(1).u32(0).u32(0);
    expect([&] { request(init); },
           {{"the session", {"Memory allocation failed"}, "A <- IEMLI_INIT_SERVICE_REJ 1 reason 99\n"}});
}

// Once the lower layers have agreed, a create that has no memory for its link is rejected and leaves what they have
// given where it is. Without memory for the MACs of a port its rule is left as it was or goes: none is ever half.
TEST_F(MemoryRunsOut, AndACreateIsRejectedOrItsLinkLacksKeepAlivesOrItsRule)
{
    const std::string asked = "pmi <- enable vlan 100 on IDLA1\nemi <- add 7 endpoints\n";
    const std::string began = "supervision 1 began: link every 1 s on eth_a1 in ns_a1\n";
    const std::string kept_alive = "supervision 2 began: keep-alive every 5 s on eth_a1 in ns_a1\n"
                                   "supervision 3 began: keep-alive every 5 s on eth_a1 in ns_a1\n";
    const std::string rule = "fmi <- append rule of 3 entries on DiPort_A1\n";
    const std::string no_rule = "fmi <- append rule of 1 entries on DiPort_A1\n";
    lasting = {{8, {NO_KEEP_ALIVES, "Out of memory"}, asked + no_rule + CREATED + began},
               {9, {"Out of memory"}, asked + no_rule + CREATED + began + kept_alive}};
    const Bytes create = create_request(1, 5, {.port = "IDL_A1", .vlan = 100, .app_links = TWO});
    expect([&] { request(create); },
           {
               {"what is pending", {"Memory allocation failed"}, REJECTED},
               {"the procedure", {"Memory error"}, REJECTED},
               {"its parameters", {"Memory error"}, REJECTED},
               {"its endpoints", {"Out of memory", "Memory error"}, REJECTED},
               {"the link's data", {"Memory error"}, asked + REJECTED},
               {"the link", {"Memory error"}, asked + REJECTED},
               {"the places of its app links", {"Memory error"}, asked + REJECTED},
               {"the keep-alives", {NO_KEEP_ALIVES}, asked + rule + CREATED + began},
               {"the MACs of the port", {}, asked + rule + CREATED + began + kept_alive}, // they are collected instead
               {"the first MAC of the rule", {"Out of memory"}, asked + no_rule + CREATED + began + kept_alive},
               {"the second MAC of the rule", {"Out of memory"}, asked + no_rule + CREATED + began + kept_alive},
           });
}

TEST_F(MemoryRunsOut, AndACreateOnATnPortIsRejectedOrItsLinkLacksKeepAlivesOrItsRule)
{
    before = [this] {
        begin();
        add_vlan("TNA", 200, "eth_tna.200", "ns_200");
    };
    const std::string asked = "emi <- add 6 endpoints\n";
    const std::string began = "supervision 1 began: link every 1 s on eth_tna.200 in ns_200\n";
    const std::string kept_alive = "supervision 2 began: keep-alive every 5 s on eth_tna.200 in ns_200\n";
    const std::string rule = "fmi <- append rule of 2 entries on TNA\n";
    const std::string no_rule = "fmi <- append rule of 1 entries on TNA\n";
    lasting = {{8, {NO_KEEP_ALIVES, "Out of memory"}, asked + no_rule + CREATED + began},
               {9, {"Out of memory"}, asked + no_rule + CREATED + began + kept_alive}};
    const Bytes create = create_request(1, 5, {.port = "TN_A", .vlan = 200, .app_links = {APP_1}});
    expect([&] { request(create); },
           {
               {"what is pending", {"Memory allocation failed"}, REJECTED},
               {"the procedure", {"Memory error"}, REJECTED},
               {"its parameters", {"Memory error"}, REJECTED},
               {"its endpoints", {"Out of memory", "Memory error"}, REJECTED},
               {"the link's data", {"Memory error"}, asked + REJECTED},
               {"the link", {"Memory error"}, asked + REJECTED},
               {"the places of its app links", {"Memory error"}, asked + REJECTED},
               {"the keep-alives", {NO_KEEP_ALIVES}, asked + rule + CREATED + began},
               {"the MACs of the port", {}, asked + rule + CREATED + began + kept_alive}, // they are collected instead
               {"the MAC of the rule", {"Out of memory"}, asked + no_rule + CREATED + began + kept_alive},
           });
}

// The lower layers are asked for the difference only; without memory for it they are not asked, and the update goes on.
TEST_F(MemoryRunsOut, AndAnUpdateIsRejectedOrGoesOnWithoutTheDifferenceTheRuleOrTheKeepAlives)
{
    before = [this] { begin_with_link({.app_links = {APP_1}}); };
    const std::string remove = "emi <- remove 2 endpoints\n";
    const std::string add = "emi <- add 4 endpoints\n";
    const std::string rule = "fmi <- append rule of 3 entries on DiPort_A1\nfmi <- remove rule 25 on DiPort_A1\n";
    const std::string no_rule = "fmi <- remove rule 25 on DiPort_A1\n";
    const std::string ended = "supervision 2 ended\n";
    const std::string began = "supervision 3 began: keep-alive every 5 s on eth_a1 in ns_a1\n"
                              "supervision 4 began: keep-alive every 5 s on eth_a1 in ns_a1\n";
    lasting = {
        {5, {"Memory realloc failed", "Memory realloc failed", "Memory error"}, NOT_UPDATED},
        {6, {"Memory realloc failed", "Memory error"}, remove + NOT_UPDATED},
        {7, {"Memory realloc failed", "Memory error"}, remove + NOT_UPDATED},
        {10, {"Out of memory", NO_KEEP_ALIVES}, remove + add + no_rule + UPDATED + ended},
        {11, {"Out of memory", NO_KEEP_ALIVES}, remove + add + no_rule + UPDATED + ended},
        {12, {"Out of memory", NO_KEEP_ALIVES}, remove + add + no_rule + UPDATED + ended},
    };
    const Bytes update = update_request(1, 6, 1, {APP_2, APP_3});
    expect(
        [&] { request(update); },
        {
            {"the link as it would be", {"Memory allocation failed"}, NOT_UPDATED},
            {"what is pending", {"Memory allocation failed"}, NOT_UPDATED},
            {"the procedure", {"Memory error"}, NOT_UPDATED},
            {"its parameters", {"Memory error"}, NOT_UPDATED},
            {"what is to go", {"Memory realloc failed"}, add + rule + UPDATED + ended + began},
            {"what is to come", {"Memory realloc failed"}, remove + rule + UPDATED + ended + began},
            {"more that is to come", {"Memory realloc failed"}, remove + rule + UPDATED + ended + began},
            {"more app links in the link", {"Memory error"}, remove + add + NOT_UPDATED},
            {"their places", {"Memory error"}, remove + add + NOT_UPDATED},
            {"the MACs of the port", {}, remove + add + rule + UPDATED + ended + began}, // they are collected instead
            {"the first MAC of the rule", {"Out of memory"}, remove + add + no_rule + UPDATED + ended + began},
            {"the second MAC of the rule", {"Out of memory"}, remove + add + no_rule + UPDATED + ended + began},
            {"the keep-alives", {NO_KEEP_ALIVES}, remove + add + rule + UPDATED + ended},
        });
}

TEST_F(MemoryRunsOut, AndADeleteIsConfirmedAllTheSame)
{
    before = [this] { begin_with_link({.app_links = TWO}); };
    const std::string ended = "supervision 1 ended\nsupervision 2 ended\nsupervision 3 ended\n";
    const Bytes remove = delete_request(1, 6, 1);
    expect([&] { request(remove); },
           {
               {"what is pending", {"Memory allocation failed"}, DELETED}, // and the link stays
               {"the procedure", {"Memory error"}, DELETED + ended},
               {"its endpoints", {"Out of memory", "Memory error"}, DELETED + ended},
           });
}

TEST_F(MemoryRunsOut, AndADeleteLeavesTheOtherLinksOfThePortTheirRuleOrTakesIt)
{
    before = [this] {
        begin_with_link({.app_links = {APP_1}});
        create_link(a, {.vlan = 101, .app_links = TWO});
    };
    const std::string rule = "fmi <- append rule of 3 entries on eth_a1\n";
    const std::string taken_back = "pmi <- disable vlan 100 on IDLA1\nemi <- remove 5 endpoints\n";
    const std::string ended = "supervision 1 ended\nsupervision 2 ended\n";
    lasting = {
        {2, {"Out of memory", "Memory error"}, DELETED + ended},
        {3, {"Out of memory", "Memory error"}, DELETED + ended},
        {4, {"Out of memory", "Memory error"}, rule + DELETED + ended},
    };
    const Bytes remove = delete_request(1, 6, 1);
    expect([&] { request(remove); },
           {
               {"what is pending", {"Memory allocation failed"}, DELETED},
               {"the first MAC that stays", {"Out of memory"}, taken_back + DELETED + ended},
               {"the second MAC that stays", {"Out of memory"}, taken_back + DELETED + ended},
               {"the record of the rule", {"Out of memory"}, rule + taken_back + DELETED + ended},
               {"the procedure", {"Memory error"}, rule + DELETED + ended},
               {"its endpoints", {"Out of memory", "Memory error"}, rule + DELETED + ended},
           });
}

TEST_F(MemoryRunsOut, AndTheLinksOfADeadClientGoAllTheSame)
{
    before = [this] { begin_with_link({.app_links = {APP_1}}); };
    const auto client_dies = [] {
        fake::kill(CLIENT);
        run();
    };
    const std::string ended = "supervision 1 ended\nsupervision 2 ended\n";
    expect(client_dies, {
                            {"the procedure", {"Memory error"}, ended},
                            {"its endpoints", {"Out of memory", "Memory error"}, ended},
                        });
}

TEST_F(MemoryRunsOut, AndTheLinksOfASessionThatEndsGoAllTheSame)
{
    before = [this] { begin_with_link({.app_links = {APP_1}}); };
    const std::string ended = "A <- IEMLI_TERM_SERVICE_CFM 6\nsupervision 1 ended\nsupervision 2 ended\n";
    const Bytes term = term_request(1, 6);
    expect([&] { request(term); }, {
                                       {"the procedure", {"Memory error"}, ended},
                                       {"its endpoints", {"Out of memory", "Memory error"}, ended},
                                   });
}

TEST_F(MemoryRunsOut, AndACreateThatFailedIsRejectedAllTheSame)
{
    before = [this] {
        begin();
        pmi_answers = answer::reject;
    };
    recover = [this] { pmi_answers = answer::confirm; };
    const Bytes create = create_request(1, 5, {});
    expect([&] { request(create); }, {
                                         {"what is pending", {"Memory allocation failed"}, REJECTED},
                                         {"the procedure", {"Memory error"}, REJECTED},
                                         {"its parameters", {"Memory error"}, REJECTED},
                                         {"its endpoints", {"Out of memory", "Memory error"}, REJECTED},
                                         {"the endpoints to take back",
                                          {"Add vlan 100 on port IDL_A1 FAILED", "Out of memory", "Memory error"},
                                          "pmi <- enable vlan 100 on IDLA1\nemi <- add 5 endpoints\n" + REJECTED},
                                     });
}

TEST_F(MemoryRunsOut, AndAnUpdateThatFailedIsRejectedAllTheSame)
{
    before = [this] { begin_with_link({.app_links = {APP_1}}); };
    const Bytes update = update_request(1, 6, 1, {APP_2});
    const auto additions_succeed_and_removals_fail = [&] {
        emi_answers = answer::never;
        request(update);
        const std::vector<Message> asked = messages_to(EMI);
        emi_answers = answer::confirm;
        for (const Message &message : asked) {
            message.msgno() == 0x1B10C6 ? confirm(message) : reject(message);
        }
    };
    const std::string remove = "emi <- remove 2 endpoints\n";
    const std::string add = "emi <- add 2 endpoints\n";
    const std::string rule = "fmi <- append rule of 2 entries on DiPort_A1\nfmi <- remove rule 25 on DiPort_A1\n";
    const std::string again = "supervision 2 ended\nsupervision 3 began: keep-alive every 5 s on eth_a1 in ns_a1\n";
    const std::string not_removed = "Endpoint not removed successfuly";
    lasting = {{5,
                {"Memory realloc failed", "Memory realloc failed", "Out of memory", NO_KEEP_ALIVES},
                "fmi <- remove rule 25 on DiPort_A1\n" + UPDATED + "supervision 2 ended\n"}};
    expect(additions_succeed_and_removals_fail,
           {
               {"the link as it would be", {"Memory allocation failed"}, NOT_UPDATED},
               {"what is pending", {"Memory allocation failed"}, NOT_UPDATED},
               {"the procedure", {"Memory error"}, NOT_UPDATED},
               {"its parameters", {"Memory error"}, NOT_UPDATED},
               {"what is to go", {"Memory realloc failed"}, add + rule + UPDATED + again},
               {"what is to come", {"Memory realloc failed", not_removed}, remove + NOT_UPDATED},
               {"what is to be taken back", {not_removed, "Memory realloc failed"}, remove + add + NOT_UPDATED},
           });
}

TEST_F(MemoryRunsOut, AndARequestThatWouldHaveToWaitIsDropped)
{
    std::vector<Message> asked;
    before = [&] {
        begin_with_link({.app_links = {}});
        fake::sent().clear();
        emi_answers = answer::never;
        request(create_request(a, 5, {.vlan = 102, .app_links = {}}));
        emi_answers = answer::confirm;
        asked = messages_to(EMI);
    };
    recover = [&] { confirm(asked.at(0)); };
    const Bytes remove = delete_request(1, 6, 1);
    expect([&] { request(remove); }, {{"its place in the queue", {"Out of memory"}, ""}});
}

TEST_F(MemoryRunsOut, AndASampleIsNotRecorded)
{
    before = [this] {
        begin_with_link({.app_links = {}});
        request(enable_rtt_request(a, 7, 1, 2, 1, 100));
    };
    const auto answered_twice = [&] {
        supervision(2, SUPERVISION_ANSWERED, 0, 3000);
        supervision(2, SUPERVISION_ANSWERED, 0, 5000);
    };
    const std::string enabled = "A <- IEMLI_INTER_ME_LINK_STATUS_IND 1000 link 1 enabled\n";
    lasting = {{1, {"Memory error", "Memory error"}, enabled}};
    expect(answered_twice, {{"the samples", {"Memory error"}, enabled}}); // the second has its memory, and is alone
}

TEST_F(MemoryRunsOut, AndAPortThatComesUpStartsItsLinksWithoutKeepAlives)
{
    before = [this] {
        begin_with_link({.app_links = {APP_1}});
        set_port("IDLA1", 1, 0);
    };
    expect([&] { set_port("IDLA1", 1, 1); },
           {{"the keep-alives",
             {NO_KEEP_ALIVES},
             "A <- IEMLI_INTER_ME_LINK_STATUS_IND 1000 link 1 disabled with reason no connectivity\n"
             "supervision 3 began: link every 1 s on eth_a1 in ns_a1\n"}});
}

TEST_F(MemoryRunsOut, AndAVlanThatComesUpIsNotKnownOrItsLinksHaveNoKeepAlives)
{
    before = [this] {
        begin();
        request(create_request(a, 5, {.port = "TN_A", .vlan = 200, .app_links = {APP_1}}));
    };
    expect([&] { add_vlan("TNA", 200, "eth_tna.200", "ns_200"); },
           {
               {"the VLAN", {"Memory error", "Failed to add vlan on port. vlan_id=200, port=TNA"}, ""},
               {"the keep-alives", {NO_KEEP_ALIVES}, "supervision 1 began: link every 1 s on eth_tna.200 in ns_200\n"},
           });
}

TEST_F(MemoryRunsOut, AndAVlanThatComesAgainLeavesTheKeepAlivesAsTheyAre)
{
    before = [this] {
        begin();
        add_vlan("TNA", 200, "eth_tna.200", "ns_200");
        request(create_request(a, 5, {.port = "TN_A", .vlan = 200, .app_links = {APP_1}}));
    };
    expect([&] { add_vlan("TNA", 200, "eth_tna.200", "ns_200"); },
           {{"the keep-alives",
             {NO_KEEP_ALIVES},
             "supervision 1 ended\nsupervision 3 began: link every 1 s on eth_tna.200 in ns_200\n"}});
}

TEST_F(MemoryRunsOut, AndAPortIsUnlockedWithoutItsEndpointsOrItsRules)
{
    before = [this] {
        begin_with_link({.app_links = TWO});
        set_port("IDLA1", 0, 1);
    };
    recover = [this] {
        set_port("IDLA1", 0, 1);
        set_port("IDLA1", 1, 1);
    };
    const std::string endpoints = "emi <- add 2 endpoints\nemi <- add 1 endpoints\n";
    const std::string action = "fmi <- default action 0 on DiPort_A1\n";
    const std::string fallen_back = endpoints + action + "fmi <- default action 1 on DiPort_A1\n";
    const std::string static_rule = "fmi <- append static rule on DiPort_A1\n";
    const std::string emca = "fmi <- append rule of 3 entries on DiPort_A1\n";
    const std::string ptp_and_lldp =
        "fmi <- append rule of 3 entries on DiPort_A1\nfmi <- append rule of 2 entries on DiPort_A1\n";
    const std::string supervision = "fmi <- append rule of 4 entries on DiPort_A1\n"
                                    "fmi <- append rule of 4 entries on DiPort_B1\n"
                                    "fmi <- remove rule 28 on DiPort_B1\n"
                                    "fmi <- append rule of 4 entries on TNA\n"
                                    "fmi <- remove rule 29 on TNA\n";
    const std::string without_emca = endpoints + action + static_rule + ptp_and_lldp + supervision;
    const std::string without_supervision = endpoints + action + static_rule + emca + ptp_and_lldp;
    const auto times = [](size_t n) { return std::vector<std::string>(n, "Out of memory"); };
    lasting = {{5, times(4), fallen_back}, // all MACs of links, the first of the ports, the record, and once more
               {6, times(4), fallen_back}, {7, times(3), fallen_back}, {8, times(3), fallen_back},
               {9, times(3), fallen_back}, {10, times(2), fallen_back}};
    expect([&] { set_port("IDLA1", 1, 1); },
           {
               {"the PTP request", {"Out of memory"}, ""},
               {"the LLDP request", {"Out of memory"}, ""},
               {"the PTP endpoints", {"Memory error"}, ""},
               {"the LLDP endpoint", {"Memory error"}, ""},
               {"the first MAC of the links", {"Out of memory"}, without_emca},
               {"the second MAC of the links", {"Out of memory"}, without_emca},
               {"the first MAC of the ports", {"Out of memory"}, without_supervision},
               {"the second MAC of the ports", {"Out of memory"}, without_supervision},
               {"the third MAC of the ports", {"Out of memory"}, without_supervision},
               {"the record of the port's rules", {"Out of memory"}, fallen_back},
           });
}

TEST_F(MemoryRunsOut, AndAPortIsLockedWithoutItsEndpointsBeingTakenBack)
{
    before = [this] { begin_with_link({.app_links = {APP_1}}); };
    recover = [this] { set_port("IDLA1", 1, 1); };
    const std::string endpoints = "emi <- remove 2 endpoints\nemi <- remove 1 endpoints\n";
    const std::string port_rules = "fmi <- remove static rule on DiPort_A1\n"
                                   "fmi <- remove rule 22 on DiPort_A1\n"
                                   "fmi <- remove rule 25 on DiPort_A1\n"
                                   "fmi <- remove rule 11 on DiPort_A1\n"
                                   "fmi <- remove rule 12 on DiPort_A1\n";
    // The rules for supervision, made anew on each port that is unlocked: once after each of the two removals.
    const auto rules = [](const std::string &entries, int old_rule) {
        std::string text;
        for (const char *port : {"DiPort_B1", "TNA"}) {
            text += "fmi <- append rule of " + entries + " entries on " + port + "\n";
            text += "fmi <- remove rule " + std::to_string(old_rule++) + " on " + port + "\n";
        }
        return text;
    };
    const std::string emptied_first = endpoints + rules("1", 23) + port_rules + rules("3", 26);
    const std::string emptied_last = endpoints + rules("3", 23) + port_rules + rules("1", 26);
    const std::string emptied = endpoints + rules("1", 23) + port_rules + rules("1", 26);
    lasting = {{5, {"Out of memory", "Out of memory"}, emptied}, {6, {"Out of memory", "Out of memory"}, emptied}};
    expect([&] { set_port("IDLA1", 0, 1); },
           {
               {"the PTP request", {"Out of memory"}, ""},
               {"the LLDP request", {"Out of memory"}, ""},
               {"the PTP endpoints", {"Memory error"}, ""},
               {"the LLDP endpoint", {"Memory error"}, ""},
               {"the first MAC of the ports", {"Out of memory"}, emptied_first},
               {"the second MAC of the ports", {"Out of memory"}, emptied_first},
               {"the first MAC of the ports, again", {"Out of memory"}, emptied_last},
               {"the second MAC of the ports, again", {"Out of memory"}, emptied_last},
           });
}

TEST_F(MemoryRunsOut, AndTheLinksOfALostServiceGoAllTheSame)
{
    before = [this] { begin_with_link({.app_links = {APP_1}}); };
    recover = [this] { restart(); };
    const auto service_is_lost = [] {
        fake::kill(PMI);
        run();
    };
    const std::string ended = "supervision 1 ended\nsupervision 2 ended\n";
    expect(service_is_lost, {
                                {"the procedure", {"Memory error"}, ended},
                                {"its endpoints", {"Out of memory", "Memory error"}, ended},
                            });
}

TEST_F(MemoryRunsOut, AndADaemonThatStartsMissesAPortARecordOrAPolicer)
{
    before = [] {};
    recover = [this] { restart(); };
    const auto services_are_found = [] {
        for (const auto &[name, mailbox] : std::map<std::string, uint32_t>{
                 {"iepcsi-server", IEPCSI}, {"flow-manager", FMI}, {"pmi-server", PMI}, {"endpoint_mgr", EMI}}) {
            fake::name(name, mailbox);
        }
        vorn_manager_run();
    };
    const std::string connected = "fmi <- 0x1b0f50\niepcsi <- 0x1b1043\npmi <- 0x1b1003\nemi <- 0x1b10c0\n"
                                  "fmi <- 0x1b0f53\niepcsi <- 0x1b1048\npmi <- 0x1b1006\nemi <- 0x1b10c3\n";
    const std::string subscribed = "iepcsi <- 0x1b1050\niepcsi <- 0x1b1063\n";
    const auto policers = [](const std::vector<std::string> &on) {
        std::string text;
        for (const std::string &port : on) {
            for (int type = 0; type < 3; ++type) {
                text += "fmi <- create policer on " + port + "\n";
            }
        }
        return text;
    };
    const std::vector<std::string> no_port = {"Memory error. Calloc failed."};
    const std::vector<std::string> no_policer = {"Out of memory."};
    const std::string complete = connected + subscribed + policers({"DiPort_A1", "DiPort_B1", "TNA"});
    std::vector<Shortage> rows = {
        {"port TNA", no_port, connected + subscribed + policers({"DiPort_A1", "DiPort_B1"})},
        {"port IDLB1", no_port, connected + subscribed + policers({"DiPort_A1", "TNA"})},
        {"port IDLA1", no_port, connected + subscribed + policers({"DiPort_B1", "TNA"})},
    };
    lasting = {
        {1, std::vector<std::string>(3, no_port[0]), connected}, // an element without ports is faulty
        {2, {no_port[0], no_port[0]}, connected + subscribed + policers({"TNA"})},
        {3, {no_port[0]}, connected + subscribed + policers({"DiPort_B1", "TNA"})},
    };
    lasting[1].errors.insert(lasting[1].errors.end(), 3, no_policer[0]);
    lasting[2].errors.insert(lasting[2].errors.end(), 6, no_policer[0]);
    for (size_t policer = 0; policer < 9; ++policer) {
        rows.push_back({"a policer", no_policer, complete});
        lasting.push_back({4 + policer, std::vector<std::string>(9 - policer, no_policer[0]), complete});
    }
    expect(services_are_found, rows);
}

// What is sorted to be found fast is found without that too.
TEST_F(MemoryRunsOut, AndManyAppLinksAreComparedOneByOne)
{
    before = [this] { begin_with_link({.app_links = many_app_links()}); };
    grown_tables = 1;
    std::vector<AppLink> more = many_app_links();
    more.push_back(APP_1);
    const Bytes update = update_request(1, 6, 1, more);
    expect_unseen([&] { request(update); },
                  {1, 6, 7, 11}); // the check, what is to go, what is to come, the MACs of the port
}

TEST_F(MemoryRunsOut, AndManyLinksAreFoundMoreSlowly)
{
    before = [this] {
        begin();
        for (uint16_t vlan = 1; vlan <= 16; ++vlan) {
            create_link(a, {.vlan = vlan, .app_links = {APP_1}});
        }
    };
    grown_tables = 5;
    const Bytes create = create_request(1, 5, {.vlan = 17, .app_links = {APP_2}});
    expect_unseen([&] { request(create); }, {9, 10, 11, 12}); // the index of links, the MACs of the port, the
                                                              // indices of sessions and of keep-alives
}

} // namespace
