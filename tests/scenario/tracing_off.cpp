// Tracing changes nothing. The same messages go to the daemon twice, once with every trace on and once with none:
// clients ask, services answer, refuse and die, and messages of every protocol come from anybody, cut short or with
// nonsense in them. What is sent, started and stopped has to be the same to the letter, and with tracing off nothing is
// traced.
#include <random>

#include "iemli/iemli_session.hpp"
#include "transcript.hpp"

namespace
{

using namespace transcript;

struct numbers {
    uint32_t first;
    uint32_t last;
};

constexpr numbers PROTOCOLS[] = {{0x1B0E00, 0x1B0E19}, {0x1B1041, 0x1B1068},   {0x1B1001, 0x1B100E},
                                 {0x1B10C0, 0x1B10CB}, {0x1B0F50, 0x1B0F69},   {0x1A004C0, 0x1A004C7},
                                 {0x1B0CE2, 0x1B0CE6}, {0x1900000, 0x1900002}, {0x1A00440, 0x1A00446}};
constexpr uint32_t MAILBOXES[] = {CLIENT, OTHER_CLIENT, STRANGER, IEPCSI, PMI, EMI, FMI, AASI};

class TracingOff : public Story, public ::testing::WithParamInterface<unsigned>
{
protected:
    const std::vector<Port> all_ports = ports;
    std::mt19937 random;
    uint32_t next_ref = 1;
    std::string told; // all that happened

    uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(random); }

    void tell() { told += happened(); }

    // Every word is small, or that of a message before, so that it may well mean something.
    void anything_from_anybody()
    {
        const numbers &protocol = PROTOCOLS[pick(std::size(PROTOCOLS))];
        Builder b;
        b.u32(protocol.first + pick(protocol.last - protocol.first + 1));
        for (uint32_t words = pick(40); words > 0; --words) {
            const uint32_t word = pick(8) == 0 ? 100 * (1 + pick(5)) : pick(4);
            pick(2) == 0 ? b.n32(word) : b.u32(word);
        }
        fake::push(MAILBOXES[pick(std::size(MAILBOXES))], b);
        run();
    }

    void client_asks()
    {
        static const std::vector<std::string> PORTS = {"IDL_A1", "IDL_B1", "TN_A", "IDL_C1"};
        const uint32_t client = pick(2) == 0 ? CLIENT : OTHER_CLIENT;
        const uint32_t session = 1 + pick(3);
        const uint32_t ref = next_ref++;
        const uint32_t link = 1 + pick(4);
        const std::vector<AppLink> apps =
            pick(2) == 0 ? std::vector<AppLink>{APP_1} : std::vector<AppLink>{APP_2, APP_3};
        switch (pick(8)) {
        case 0:
            return request(Builder().u32(IEMLI_INIT_SERVICE_REQ).u32(ref).u32(client).u32(pick(3)).u32(0).u32(0),
                           client);
        case 1:
        case 2:
            return request(
                create_request(
                    session, ref,
                    {.port = PORTS[pick(4)], .vlan = static_cast<uint16_t>(99 + pick(3)), .app_links = apps}),
                client);
        case 3:
            return request(update_request(session, ref, link, apps), client);
        case 4:
            return request(delete_request(session, ref, link), client);
        case 5:
            return request(enable_rtt_request(session, ref, link, 2, 1, static_cast<uint16_t>(63 + pick(3))), client);
        case 6:
            return request(disable_rtt_request(session, ref, link), client);
        default:
            return pick(4) == 0 ? request(term_request(session, ref), client) : fake::kill(client);
        }
    }

    void services_change()
    {
        const auto some_answer = [this] { return pick(3) == 0 ? answer::reject : answer::confirm; };
        const Port &port = ports[pick(static_cast<uint32_t>(ports.size()))];
        switch (pick(6)) {
        case 0:
            pmi_answers = some_answer();
            emi_answers = some_answer();
            break;
        case 1:
            fmi_answers = pick(4) == 0 ? answer::never : some_answer();
            break;
        case 2:
            fake::set_start_result(pick(2));
            fake::set_stop_result(pick(2) == 0 ? 0 : pick(5));
            break;
        case 3:
            set_port(port.name, pick(2), pick(2));
            break;
        case 4:
            pick(2) == 0 ? add_vlan("TNA", 100, "eth_tna.100", "ns_100") : remove_vlan("TNA", 100);
            break;
        default:
            fake::set_setns_fails(static_cast<int>(pick(3)));
            break;
        }
    }

    void supervision_reports()
    {
        if (!fake::sessions().empty()) {
            auto session = fake::sessions().begin();
            std::advance(session, pick(static_cast<uint32_t>(fake::sessions().size())));
            supervision(session->first, pick(5), 0, 1000);
        }
    }

    void step()
    {
        switch (pick(8)) {
        case 0:
        case 1:
            return anything_from_anybody();
        case 2:
        case 3:
        case 4:
            return client_asks();
        case 5:
            return services_change();
        default:
            return supervision_reports();
        }
    }

    // A faulty daemon does nothing more until it is started again.
    void restart()
    {
        forget_all();
        fake::sessions().clear();
        seen_sessions.clear();
        start();
        start_aasi();
    }

    // Everything that happened in a walk of that seed; with `mask` on, whether anything was traced.
    std::string walk(uint32_t mask)
    {
        DaemonTest::TearDown();
        DaemonTest::SetUp();
        seen_sessions.clear();
        ports = all_ports;
        next_rule_id = 1;
        next_ref = 1;
        pmi_answers = emi_answers = fmi_answers = answer::confirm;
        told.clear();
        random.seed(GetParam());
        fake::set_trace_mask(mask);
        start();
        start_aasi();
        size_t traced = 0;
        for (int i = 0; i < 300; ++i) {
            step();
            traced += fake::traces().size();
            tell();
            if (manager_state() == KAP_VORN_FAULTY_STATE) {
                restart();
            }
        }
        EXPECT_EQ(traced > 0, mask != 0);
        return told;
    }
};

TEST_P(TracingOff, ChangesNothing)
{
    const std::string with = walk(0xFFFFFFFF);
    EXPECT_GT(with.size(), 1000u);
    EXPECT_EQ(walk(0), with);
}

INSTANTIATE_TEST_SUITE_P(Seeds, TracingOff, ::testing::Range(1u, 31u));

} // namespace
