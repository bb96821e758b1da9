// Random walks: clients come, ask, leave and die, the lower layers answer late, in any order, yes, no or never,
// services are lost and come back, ports and VLANs go and come, results of supervision arrive. What must hold after
// every step stands in support/ledger.hpp; in the end nothing may be left.
//
// A walk that fails prints its seed and its last steps. One walk, with every step printed:
//
//   KAP_WALK_SEED=17 build/test/bin/scenario --gtest_filter='Steps/RandomWalk.*/0'
//
// KAP_WALK_STEPS gives the number of steps of all walks together (./soak walks: a million).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <random>

#include "support/ledger.hpp"
#include "support/nobody.hpp"

namespace
{

using namespace daemon_test;

constexpr unsigned WALKS = 50;          // tests, so that they run side by side
constexpr unsigned ALL_STEPS = 100'000; // of all of them
constexpr unsigned STEPS_OF_A_WALK = 500;
constexpr size_t STEPS_PRINTED = 40;

unsigned number_from_environment(const char *name, unsigned otherwise)
{
    const char *text = getenv(name);
    return text != nullptr && atoi(text) > 0 ? static_cast<unsigned>(atoi(text)) : otherwise;
}

class RandomWalk : public DaemonTest, public ::testing::WithParamInterface<unsigned>
{
protected:
    void SetUp() override {}    // each walk sets up for itself
    void TearDown() override {} // and takes down

    const std::vector<uint32_t> clients = {CLIENT, OTHER_CLIENT, STRANGER};
    const std::vector<uint32_t> services = {IEPCSI, PMI, EMI, FMI};

    const std::vector<Port> ports_at_first = ports;

    std::mt19937 random;
    std::unique_ptr<Ledger> ledger;
    std::deque<std::string> story;
    bool loud = false;
    unsigned trouble = 0;                         // of a walk: how many in a hundred answers are a no
    std::vector<fake::Sent> outstanding;          // requests to PMI and EMI without an answer
    std::vector<fake::Sent> never;                // and those that get none while it can be helped
    std::set<uint32_t> away;                      // services
    std::set<uint32_t> dead;                      // clients whose session has not ended yet
    std::map<uint32_t, std::set<uint16_t>> vlans; // of the TN port
    bool agent = false;
    uint32_t next_procedure_ref = 1;
    unsigned walking = 0;
    uint64_t steps_done = 0;
    std::map<std::string, uint64_t> seen;

    unsigned pick(unsigned n) { return static_cast<unsigned>(random() % n); }
    bool chance(unsigned percent) { return pick(100) < percent; }

    // ---- One walk ----

    void walk(unsigned seed, unsigned steps)
    {
        DaemonTest::SetUp();
        random.seed(seed);
        walking = seed;
        ports = ports_at_first;
        ledger = std::make_unique<Ledger>();
        story.clear();
        outstanding.clear();
        never.clear();
        away.clear();
        dead.clear();
        agent = false;
        next_procedure_ref = 1;
        trouble = seed % 3 == 0 ? 0 : 15;
        fmi_answers = answer::confirm;
        fake::set_trace_mask(seed % 16 == 0 ? 0xFFFFFFFFu : 0); // texts cost more than all the rest
        pmi_answers = answer::confirm;
        emi_answers = answer::confirm; // so that nothing is owed to the ports that are there at the start
        start();
        pmi_answers = answer::never;
        emi_answers = answer::never;
        for (unsigned i = 0; i < steps && ledger->broken().empty(); ++i) {
            step();
        }
        if (ledger->broken().empty()) {
            end_everything();
        }
        report(seed);
        ledger.reset();
        DaemonTest::TearDown();
    }

    void report(unsigned seed)
    {
        for (const auto &[what, count] : ledger->seen()) {
            seen[what] += count;
        }
        if (!ledger->broken().empty()) {
            std::string text;
            for (const std::string &line : story) {
                text += "  " + line + "\n";
            }
            ADD_FAILURE() << "KAP_WALK_SEED=" << seed << ": " << ledger->broken() << "\nThe last steps:\n" << text;
        }
    }

    // Has the ledger look on while something happens.
    template <class What> void as_step(const std::string &name, What what)
    {
        story.push_back(std::to_string(++steps_done) + " " + name);
        if (story.size() > STEPS_PRINTED) {
            story.pop_front();
        }
        if (loud) {
            printf("%s\n", story.back().c_str());
        }
        ledger->begin(name);
        what();
        run();
        note_sent();
        std::erase_if(dead, [](uint32_t client) { return session_of(client) == nullptr; });
    }

    void note_sent()
    {
        for (const fake::Sent &message : fake::sent()) {
            if (loud) {
                printf("    to 0x%x: 0x%x, procedure %u\n", message.to, message.msgno(), word(message.bytes, 1));
            }
            const bool asks_pmi = message.to == PMI && (message.msgno() == 0x1B1009 || message.msgno() == 0x1B100C);
            const bool asks_emi = message.to == EMI && (message.msgno() == 0x1B10C6 || message.msgno() == 0x1B10C9);
            if (asks_pmi || asks_emi) {
                (chance(trouble / 5) ? never : outstanding).push_back(message);
            }
        }
        ledger->end();
        fake::sent().clear();
        fake::traces().clear();
        fake::receive_timeouts().clear();
        fake::calls().clear();
    }

    void step()
    {
        const unsigned what = pick(1000);
        if (what < 330) {
            client_asks();
        } else if (what < 370) {
            client_leaves();
        } else if (what < 700) {
            lower_layer_answers();
        } else if (what < 900) {
            supervision_reports();
        } else if (what < 930) {
            port_changes();
        } else if (what < 957) {
            vlan_changes();
        } else if (what < 960) {
            service_goes();
        } else if (what < 990) {
            service_comes();
        } else if (what < 993) {
            agent_comes_and_goes();
        } else if (what < 996) {
            access_rules_change();
        } else {
            late_answers_come();
        }
    }

    // ---- Clients ----

    static const IemliSession *session_of(uint32_t client)
    {
        for (const IemliSession *s = iemli_session_first(); s != nullptr; s = s->next) {
            if (s->client_mbox == client) {
                return s;
            }
        }
        return nullptr;
    }

    // The reference of its session, or of none, or of somebody else's.
    uint32_t session_ref(uint32_t client)
    {
        const IemliSession *session = session_of(client);
        return session != nullptr && !chance(3) ? session->server_conn_ref : 1 + pick(3);
    }

    void ask(uint32_t client, const std::string &name, const Bytes &bytes, bool session_may_fail = false)
    {
        as_step(std::to_string(client >> 20) + " asks: " + name, [&] {
            const bool fails = session_may_fail && chance(trouble / 3);
            if (fails) {
                fake::set_start_results({7});
                ledger->supervision_restart_may_fail();
            }
            ledger->asks(client, bytes);
            request(bytes, client);
            fake::set_start_results({});
        });
    }

    void client_asks()
    {
        const uint32_t client = clients[pick(3)];
        if (dead.count(client) > 0) {
            return;
        }
        if (session_of(client) == nullptr && chance(70)) {
            return client_enters(client);
        }
        const uint32_t session = session_ref(client);
        const uint32_t ref = next_procedure_ref++;
        switch (pick(12)) {
        case 0:
            return client_enters(client);
        case 1:
        case 2:
        case 3:
            return ask(client, "create", create_request(session, ref, some_link()));
        case 4:
        case 5:
        case 10:
        case 11:
            return ask(client, "update", update_request(session, ref, some_link_ref(), some_app_links()));
        case 6:
            return ask(client, "delete", delete_request(session, ref, some_link_ref()));
        case 7:
            return client_asks_for_rtt(client, session, ref);
        case 8:
            return ask(client, "disable RTT", disable_rtt_request(session, ref, some_link_ref()), true);
        default:
            return ask(
                client, "get MAC",
                Builder().u32(IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ).u32(ref).u32(session).u8(1).text(some_port(), 19));
        }
    }

    void client_enters(uint32_t client)
    {
        const uint32_t version = chance(95) ? 1 : 2;
        ask(client, "init",
            Builder()
                .u32(IEMLI_INIT_SERVICE_REQ)
                .u32(next_procedure_ref++)
                .u32((client >> 20) + (chance(95) ? 0 : 1000)) // now and then a second session
                .u32(version)
                .u32(0)
                .u32(0));
    }

    void client_asks_for_rtt(uint32_t client, uint32_t session, uint32_t ref)
    {
        static constexpr uint16_t SETTINGS[][3] = {{5, 1, 64},  {2, 1, 1500}, {4, 15, 100}, {60, 1, 64},
                                                   {7, 8, 64},  {1, 1, 64},   {5, 0, 64},   {5, 1, 63},
                                                   {30, 2, 64}, {2, 30, 64},  {5, 1, 1501}, {3, 4, 1000}};
        const auto &[batch, interval, size] = SETTINGS[pick(std::size(SETTINGS))];
        ask(client, "enable RTT", enable_rtt_request(session, ref, some_link_ref(), batch, interval, size), true);
    }

    std::string some_port()
    {
        static const char *const PORTS[] = {"IDL_A1", "IDL_B1", "TN_A", "TN_D", nobody::PORT};
        return PORTS[chance(92) ? pick(3) : pick(5)];
    }
    static uint32_t highest_ref()
    {
        uint32_t ref = 0;
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            ref = link->link_ref;
        }
        return ref;
    }
    uint32_t some_link_ref() { return 1 + pick(highest_ref() + 1); }

    Link some_link()
    {
        static const char *const CPMS[] = {"02:00:00:00:0C:01", "02:00:00:00:0C:02", "02:00:00:00:0C:03",
                                           "02:00:00:00:00:A1"};
        Link link;
        link.port = some_port();
        link.cpm = CPMS[chance(96) ? pick(3) : 3];
        link.mp_id = static_cast<uint8_t>(chance(98) ? 1 + pick(2) : 0);
        link.vlan = static_cast<uint16_t>(chance(98) ? 100 + pick(3) : 0);
        link.app_links = some_app_links();
        return link;
    }

    std::vector<AppLink> some_app_links()
    {
        std::vector<AppLink> apps;
        for (const AppLink &app : {APP_1, APP_2, APP_3}) {
            if (chance(30)) {
                apps.push_back(app);
            }
        }
        return apps;
    }

    void client_leaves()
    {
        const uint32_t client = clients[pick(3)];
        if (dead.count(client) > 0) {
            return;
        }
        if (chance(50)) {
            return ask(client, "term", term_request(session_ref(client), next_procedure_ref++));
        }
        as_step(std::to_string(client >> 20) + " dies", [&] {
            ledger->dies(client);
            dead.insert(client);
            fake::kill(client);
        });
    }

    // ---- The lower layers ----

    void answer_one(std::vector<fake::Sent> *from, bool yes)
    {
        const size_t i = pick(static_cast<unsigned>(from->size()));
        const fake::Sent message = (*from)[i];
        from->erase(from->begin() + static_cast<std::ptrdiff_t>(i));
        const std::string name = std::string(message.to == PMI ? "PMI" : "EMI") + (yes ? " confirms " : " rejects ");
        as_step(name + std::to_string(net_word(message.bytes, 1)), [&] {
            if (chance(trouble / 3)) {
                fake::set_start_results({7});
                ledger->supervision_start_may_fail();
            }
            ledger->answers(message, yes);
            answer_to(message, yes);
            run();
            fake::set_start_results({});
        });
    }

    void lower_layer_answers()
    {
        if (!outstanding.empty()) {
            answer_one(&outstanding, !chance(trouble));
        }
    }

    // What was to be never comes after all, much too late.
    void late_answers_come()
    {
        while (!never.empty() && ledger->broken().empty()) {
            answer_one(&never, !chance(trouble));
        }
    }

    void supervision_reports()
    {
        if (fake::sessions().empty()) {
            return;
        }
        auto it = fake::sessions().begin();
        std::advance(it, pick(static_cast<unsigned>(fake::sessions().size())));
        const uint32_t id = it->first;
        const unsigned times = chance(20) ? 7 : 1; // enough to lose a link
        const uint32_t result = chance(97) ? pick(4) : 4;
        as_step("supervision " + std::to_string(id) + ": " + std::to_string(times) + " times " + std::to_string(result),
                [&] {
                    for (unsigned i = 0; i < times; ++i) {
                        supervision(id, result, 0, 1000 * pick(1000));
                    }
                });
    }

    void port_changes()
    {
        if (away.count(IEPCSI) > 0) {
            return;
        }
        Port &port = ports[pick(static_cast<unsigned>(ports.size()))];
        const uint32_t adm = chance(70) ? port.adm_state : pick(2);
        const uint32_t oper = pick(2);
        as_step("port " + port.name + (adm != 0 ? " unlocked" : " locked") + (oper != 0 ? ", up" : ", down"), [&] {
            if (chance(trouble / 3)) {
                fake::set_start_results({7});
            }
            set_port(port.name, adm, oper);
            fake::set_start_results({});
        });
    }

    // An announcement may come twice.
    void vlan_changes()
    {
        if (away.count(IEPCSI) > 0) {
            return;
        }
        const Port &port = ports[pick(static_cast<unsigned>(ports.size()))];
        const auto vlan = static_cast<uint16_t>(100 + pick(3));
        const bool comes = chance(60);
        as_step("VLAN " + std::to_string(vlan) + " of " + port.name + (comes ? " comes" : " goes"), [&] {
            if (chance(trouble / 3)) {
                fake::set_start_results({7});
            }
            if (comes) {
                add_vlan(port.name, vlan, port.if_name + "." + std::to_string(vlan), port.name_space);
            } else {
                remove_vlan(port.name, vlan);
            }
            fake::set_start_results({});
        });
    }

    void access_rules_change()
    {
        fmi_answers = std::vector<answer>{answer::confirm, answer::confirm, answer::reject, answer::never}[pick(4)];
    }

    // ---- Services ----

    static const char *name_of(uint32_t service)
    {
        return service == IEPCSI ? "IEPCSI" : service == PMI ? "PMI" : service == EMI ? "EMI" : "FMI";
    }

    // What EMI owes ports it still says: an answer that is owed for ever would take the place of a later one, because
    // the references start anew.
    void service_goes()
    {
        const uint32_t service = services[pick(4)];
        if (away.count(service) > 0) {
            return;
        }
        if (service == EMI) {
            for (std::vector<fake::Sent> *from : {&outstanding, &never}) {
                while (!from->empty() && ledger->broken().empty()) {
                    answer_one(from, true);
                }
            }
        }
        as_step(std::string(name_of(service)) + " is lost", [&] {
            for (std::vector<fake::Sent> *from : {&outstanding, &never}) {
                for (const fake::Sent &message : *from) {
                    if (message.to == service) {
                        ledger->loses(message);
                    }
                }
                std::erase_if(*from, [=](const fake::Sent &message) { return message.to == service; });
            }
            ledger->loses_service(service);
            fake::kill(service);
        });
        away.insert(service);
    }

    // The daemon looks for a service once; here it looks again.
    void service_comes()
    {
        if (away.empty()) {
            return;
        }
        const uint32_t service = *std::next(away.begin(), pick(static_cast<unsigned>(away.size())));
        away.erase(service);
        as_step(std::string(name_of(service)) + " is back", [&] {
            ledger->gets_service();
            switch (service) {
            case IEPCSI:
                iepcsi_client_init(client_event_cb);
                break;
            case PMI:
                pmi_client_init(client_event_cb);
                break;
            case EMI:
                emi_client_init(client_event_cb);
                break;
            default:
                fmi_client_init(client_event_cb);
                break;
            }
            run();
            if (service == IEPCSI) {
                for (const Port &port : ports) {
                    port_status(port);
                }
            }
        });
    }

    void agent_comes_and_goes()
    {
        as_step(agent ? "the agent goes" : "the agent comes", [&] {
            if (agent) {
                fake::push(ITC_NO_MBOX,
                           Builder().u32(0x1900002).u32(9).u32(AASI).zeros(8).text("automationagentsi", 18));
            } else {
                start_aasi();
            }
            agent = !agent;
        });
    }

    // ---- The end ----

    void answer_everything()
    {
        for (unsigned round = 0; round < 5000 && ledger->broken().empty() && !(outstanding.empty() && never.empty());
             ++round) {
            answer_one(outstanding.empty() ? &never : &outstanding, true);
        }
    }

    static bool anything_queued()
    {
        const IemliSession *s = iemli_session_first();
        while (s != nullptr && s->queue_head == nullptr) {
            s = s->next;
        }
        return s != nullptr;
    }

    // Only a completion takes the next request out of a queue, so something is kept going while there are any.
    void drain_queues()
    {
        for (unsigned round = 0; round < 2000 && anything_queued() && ledger->broken().empty(); ++round) {
            const IemliSession *session = iemli_session_first();
            Link poke;
            poke.port = "IDL_A1";
            poke.vlan = static_cast<uint16_t>(2000 + round);
            ask(session->client_mbox, "create, to keep things going",
                create_request(session->server_conn_ref, next_procedure_ref++, poke));
            answer_everything();
        }
        EXPECT_FALSE(anything_queued()) << "KAP_WALK_SEED=" << walking;
    }

    void end_everything()
    {
        trouble = 0;
        fmi_answers = answer::confirm;
        while (!away.empty() && ledger->broken().empty()) {
            service_comes();
        }
        answer_everything();
        drain_queues();
        for (unsigned round = 0; round < 10 && iemli_session_first() != nullptr && ledger->broken().empty(); ++round) {
            const IemliSession *session = iemli_session_first();
            ask(session->client_mbox, "term, at the end", term_request(session->server_conn_ref, next_procedure_ref++));
            answer_everything();
        }
        if (ledger->broken().empty()) {
            EXPECT_EQ(iemli_session_first(), nullptr) << "KAP_WALK_SEED=" << walking;
            EXPECT_TRUE(outstanding.empty()) << "KAP_WALK_SEED=" << walking;
        }
    }
};

TEST_P(RandomWalk, KeepsWhatMustHold)
{
    const unsigned only = number_from_environment("KAP_WALK_SEED", 0);
    if (only != 0) {
        loud = true;
        walk(only, STEPS_OF_A_WALK);
        return;
    }
    const unsigned mine = number_from_environment("KAP_WALK_STEPS", ALL_STEPS) / WALKS;
    for (unsigned seed = GetParam() + 1; steps_done < mine && !HasFailure(); seed += WALKS) {
        walk(seed, STEPS_OF_A_WALK);
    }
    for (const auto &[what, count] : seen) {
        RecordProperty(what, std::to_string(count));
    }
    if (getenv("KAP_WALK_SHOW") != nullptr) {
        for (const auto &[what, count] : seen) {
            printf("%10lu %s\n", static_cast<unsigned long>(count), what.c_str());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Steps, RandomWalk, ::testing::Range(0u, WALKS));

} // namespace
