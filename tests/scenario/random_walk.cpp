// Random walks: clients come, ask, leave and die, the lower layers answer late, in any order, yes or no, ports go down
// and up, results of supervision arrive. Whatever happens, what is checked after every step must hold, and in the end
// nothing may be left: no link, no session, no procedure, no supervision, no VLAN that nobody took back.
#include <algorithm>
#include <random>

#include "iemli/iemli_session.hpp"
#include "support/daemon.hpp"

namespace
{

using namespace daemon_test;

constexpr int STEPS = 400;
const std::vector<uint32_t> CLIENTS = {CLIENT, OTHER_CLIENT, STRANGER};

class RandomWalk : public DaemonTest, public ::testing::WithParamInterface<int>
{
protected:
    std::mt19937 random{static_cast<unsigned>(GetParam())};
    std::map<uint32_t, uint32_t> sessions;                 // client -> its session
    std::vector<fake::Sent> outstanding;                   // requests to PMI and EMI without an answer
    std::map<std::pair<uint32_t, uint32_t>, int> answers;  // (client, procedure_ref) -> answers seen
    std::map<std::pair<uint32_t, uint32_t>, bool> asked;   // (client, procedure_ref) -> must it be answered
    std::map<std::pair<std::string, uint32_t>, int> vlans; // (port, vlan) -> enabled minus disabled
    std::set<std::pair<uint32_t, uint32_t>> alive;         // (client, session)
    uint32_t next_procedure_ref = 1;

    unsigned pick(unsigned n) { return std::uniform_int_distribution<unsigned>(0, n - 1)(random); }
    bool chance(unsigned percent) { return pick(100) < percent; }
    uint32_t some_client() { return CLIENTS[pick(static_cast<unsigned>(CLIENTS.size()))]; }
    uint32_t some_link_ref() { return 1 + pick(6); }

    void SetUp() override
    {
        DaemonTest::SetUp();
        pmi_answers = answer::never;
        emi_answers = answer::never;
        start();
    }

    // ---- What the daemon sent since the last look ----

    static bool is_answer(uint32_t msgno)
    {
        return msgno != IEMLI_INTER_ME_LINK_STATUS_IND && msgno != IEMLI_INTER_ME_LINK_RTT_IND;
    }

    void note_answer(const fake::Sent &message)
    {
        const auto key = std::make_pair(message.to, word(message.bytes, 1));
        ASSERT_TRUE(asked.count(key)) << "an answer to nothing: " << iemli_msg_to_string(message.msgno());
        ASSERT_EQ(++answers[key], 1) << "answered twice: " << iemli_msg_to_string(message.msgno());
        if (message.msgno() == IEMLI_INIT_SERVICE_CFM) {
            sessions[message.to] = word(message.bytes, 2);
        } else if (message.msgno() == IEMLI_TERM_SERVICE_CFM && word(message.bytes, 2) == sessions[message.to]) {
            sessions.erase(message.to);
        }
    }

    void note_sent()
    {
        for (const fake::Sent &message : fake::sent()) {
            if (message.to == PMI && message.msgno() == 0x1B100C) {
                --vlans[{reinterpret_cast<const char *>(&message.bytes[12]), net_word(message.bytes, 7)}];
            }
            if (message.to == PMI || message.to == EMI) {
                outstanding.push_back(message);
            } else if (std::count(CLIENTS.begin(), CLIENTS.end(), message.to) > 0 && is_answer(message.msgno())) {
                note_answer(message);
            }
        }
        fake::sent().clear();
        fake::traces().clear();
        note_ended_sessions();
    }

    // Whatever waited behind a term or a death was discarded with the session.
    void note_ended_sessions()
    {
        std::set<std::pair<uint32_t, uint32_t>> now;
        for (const IemliSession *s = iemli_session_first(); s != nullptr; s = s->next) {
            now.insert({s->client_mbox, s->server_conn_ref});
        }
        for (const auto &session : alive) {
            if (now.count(session) == 0) {
                forget_unanswered(session.first);
            }
        }
        alive = now;
    }

    // ---- Steps ----

    void ask(uint32_t client, const Bytes &bytes)
    {
        asked[{client, word(bytes, 1)}] = true;
        request(bytes, client);
    }

    uint32_t session_of(uint32_t client) { return sessions.count(client) > 0 ? sessions[client] : 1 + pick(3); }

    Link some_link()
    {
        static const std::vector<std::string> PORTS = {"IDL_A1", "IDL_B1", "TN_A", "TN_D", "IDL_C1"};
        static const std::vector<std::string> CPMS = {"02:00:00:00:0C:01", "02:00:00:00:0C:02", "02:00:00:00:00:A1"};
        Link link;
        link.port = PORTS[pick(100) < 90 ? pick(3) : pick(5)];
        link.cpm = CPMS[chance(95) ? pick(2) : 2];
        link.vlan = static_cast<uint16_t>(chance(97) ? 100 + pick(3) : 0);
        link.app_links = some_app_links();
        return link;
    }

    std::vector<AppLink> some_app_links()
    {
        std::vector<AppLink> apps;
        for (const AppLink &app : {APP_1, APP_2, APP_3}) {
            if (chance(40)) {
                apps.push_back(app);
            }
        }
        return apps;
    }

    void client_asks()
    {
        const uint32_t client = some_client();
        const uint32_t session = session_of(client);
        const uint32_t ref = next_procedure_ref++;
        switch (pick(8)) {
        case 0:
            return ask(client, Builder().u32(IEMLI_INIT_SERVICE_REQ).u32(ref).u32(client).u32(1).u32(0).u32(0));
        case 1:
        case 2:
        case 3:
            return ask(client, create_request(session, ref, some_link()));
        case 4:
            return ask(client, update_request(session, ref, some_link_ref(), some_app_links()));
        case 5:
            return ask(client, delete_request(session, ref, some_link_ref()));
        case 6:
            return ask(client, chance(50) ? enable_rtt_request(session, ref, some_link_ref(), 5, 1, 64)
                                          : disable_rtt_request(session, ref, some_link_ref()));
        default:
            return ask(
                client,
                Builder().u32(IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ).u32(ref).u32(session).u8(1).text("IDL_A1", 19));
        }
    }

    void client_leaves()
    {
        const uint32_t client = some_client();
        forget_unanswered(client);
        if (chance(50) && sessions.count(client) > 0) {
            fake::kill(client);
            sessions.erase(client);
            run();
        } else {
            ask(client, term_request(session_of(client), next_procedure_ref++));
        }
    }

    // What its session has queued is discarded when it terms or dies.
    void forget_unanswered(uint32_t client)
    {
        for (auto &request : asked) {
            if (request.first.first == client) {
                request.second = false;
            }
        }
    }

    void lower_layer_answers(bool yes)
    {
        if (outstanding.empty()) {
            return;
        }
        const size_t i = pick(static_cast<unsigned>(outstanding.size()));
        const fake::Sent message = outstanding[i];
        outstanding.erase(outstanding.begin() + static_cast<std::ptrdiff_t>(i));
        if (message.msgno() == 0x1B1009 && yes) {
            ++vlans[{reinterpret_cast<const char *>(&message.bytes[12]), net_word(message.bytes, 7)}];
        }
        answer_to(message, yes);
        run();
    }

    void supervision_reports()
    {
        if (!fake::sessions().empty()) {
            auto it = fake::sessions().begin();
            std::advance(it, pick(static_cast<unsigned>(fake::sessions().size())));
            supervision(it->first, pick(5), 0, 1000 * pick(1000));
        }
    }

    void port_changes()
    {
        const Port &port = ports[pick(static_cast<unsigned>(ports.size()))];
        set_port(port.name, 1, pick(2));
    }

    void step()
    {
        const unsigned what = pick(100);
        if (what < 40) {
            client_asks();
        } else if (what < 45) {
            client_leaves();
        } else if (what < 80) {
            lower_layer_answers(chance(80));
        } else if (what < 97) {
            supervision_reports();
        } else {
            port_changes();
        }
        note_sent();
    }

    // ---- What must always hold ----

    static void check_link(const iml_link *link)
    {
        EXPECT_NE(iemli_session_find(link->connection_ref), nullptr) << "a link without an owner";
        EXPECT_EQ(link->supervision_state == SUPERVISION_RUNNING, link->supervision_session_id != 0);
        if (link->supervision_session_id != 0) {
            EXPECT_EQ(fake::sessions().count(link->supervision_session_id), 1u);
        }
        EXPECT_LE(link->rtt_samples.count, RTT_MAX_SAMPLES);
        EXPECT_TRUE(link->keep_alive_sessions == nullptr ||
                    link->keep_alive_count == link->link_data->numberOfAppLinks);
    }

    static size_t running_sessions()
    {
        size_t running = 0;
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            running += (link->supervision_session_id != 0 ? 1 : 0) + link->keep_alive_count;
        }
        return running;
    }

    static void check_everything()
    {
        uint32_t last_ref = 0;
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            EXPECT_GT(link->link_ref, last_ref);
            last_ref = link->link_ref;
            check_link(link);
        }
        EXPECT_EQ(running_sessions(), fake::sessions().size());
        if (iemli_session_any_busy()) {
            EXPECT_GE(link_procedure_count(), 1u) << "somebody waits for a procedure that is not there";
        }
        EXPECT_EQ(fake::current_netns(), "");
        EXPECT_EQ(fake::open_netns_fds(), 0u);
    }

    // ---- The end ----

    // Answers everything, and keeps something going while requests are queued: only a completion takes the next one.
    void answer_everything()
    {
        for (int round = 0; round < 2000 && (!outstanding.empty() || link_procedure_count() > 0); ++round) {
            lower_layer_answers(true);
            note_sent();
        }
        EXPECT_TRUE(outstanding.empty());
        EXPECT_EQ(link_procedure_count(), 0u);
    }

    static bool anything_queued()
    {
        for (const IemliSession *s = iemli_session_first(); s != nullptr; s = s->next) {
            if (s->queue_head != nullptr) {
                return true;
            }
        }
        return false;
    }

    void drain_queues()
    {
        Link poke;
        poke.vlan = 4000;
        for (int round = 0; round < 2000 && anything_queued(); ++round) {
            const IemliSession *session = iemli_session_first();
            poke.cpm = round % 2 == 0 ? "02:00:00:00:0D:01" : "02:00:00:00:0D:02";
            ask(session->client_mbox, create_request(session->server_conn_ref, next_procedure_ref++, poke));
            note_sent();
            answer_everything();
            poke.vlan = static_cast<uint16_t>(4000 + round % 90);
        }
        EXPECT_FALSE(anything_queued());
    }

    void end_all_sessions()
    {
        while (iemli_session_first() != nullptr) {
            const IemliSession *session = iemli_session_first();
            ask(session->client_mbox, term_request(session->server_conn_ref, next_procedure_ref++));
            note_sent();
            answer_everything();
        }
    }
};

TEST_P(RandomWalk, KeepsWhatMustHoldAndLeavesNothingBehind)
{
    for (int i = 0; i < STEPS && !HasFailure(); ++i) {
        step();
        check_everything();
    }
    answer_everything();
    drain_queues();
    for (const auto &request : asked) {
        if (request.second) {
            EXPECT_EQ(answers[request.first], 1) << "request " << request.first.second << " has no answer";
        }
    }
    end_all_sessions();
    EXPECT_EQ(iml_link_count(), 0u);
    EXPECT_EQ(link_procedure_count(), 0u);
    EXPECT_TRUE(fake::sessions().empty());
    for (const auto &vlan : vlans) {
        EXPECT_LE(vlan.second, 0) << "VLAN " << vlan.first.second << " on " << vlan.first.first
                                  << " was not taken back";
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomWalk, ::testing::Range(1, 61));

} // namespace
