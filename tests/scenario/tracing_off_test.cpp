// Tracing changes nothing. The same messages go to the daemon twice, once with every trace on and once with none:
// clients ask, services answer, refuse and die, and messages of every protocol come from anybody, cut short or with
// nonsense in them. What is sent, started and stopped has to be the same to the letter, and with tracing off nothing is
// traced.
#include <csignal>
#include <random>

#include "iemli/iemli_session.hpp"
#include "manager/links/link_paths.hpp"
#include "manager/links/rtt.hpp"
#include "support/message_windows.hpp"
#include "support/nobody.hpp"
#include "transcript.hpp"

namespace
{

using namespace transcript;

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
        const message_windows::window &protocol = message_windows::EVERY[pick(std::size(message_windows::EVERY))];
        Builder b;
        b.u32(protocol.number(pick(protocol.room)));
        for (uint32_t words = pick(40); words > 0; --words) {
            const uint32_t word = pick(8) == 0 ? 100 * (1 + pick(5)) : pick(4);
            pick(2) == 0 ? b.n32(word) : b.u32(word);
        }
        fake::push(MAILBOXES[pick(std::size(MAILBOXES))], b);
        run();
    }

    void client_asks()
    {
        static const std::vector<std::string> PORTS = {"IDL_A1", "IDL_B1", "TN_A", nobody::PORT};
        const uint32_t session = 1 + pick(3);
        const uint32_t client = pick(8) == 0 ? STRANGER : session == 2 ? OTHER_CLIENT : CLIENT;
        const uint32_t ref = next_ref++;
        const uint32_t link = 1 + pick(4);
        const std::vector<AppLink> apps =
            pick(2) == 0 ? std::vector<AppLink>{APP_1} : std::vector<AppLink>{APP_2, APP_3};
        switch (pick(16)) {
        case 0:
            return leave(client, session, ref);
        case 1:
        case 2:
            return request(Builder().u32(IEMLI_INIT_SERVICE_REQ).u32(ref).u32(client).u32(pick(3)).u32(0).u32(0),
                           client);
        case 3:
        case 4:
            return request(update_request(session, ref, link, apps), client);
        case 5:
        case 6:
            return request(delete_request(session, ref, link), client);
        case 7:
            return request(enable_rtt_request(session, ref, link, 2, 1, static_cast<uint16_t>(63 + pick(3))), client);
        case 8:
            return request(disable_rtt_request(session, ref, link), client);
        case 9:
            return request(get_mac(session, ref, PORTS[pick(4)]), client);
        default:
            return request(
                create_request(
                    session, ref,
                    {.port = PORTS[pick(4)], .vlan = static_cast<uint16_t>(99 + pick(3)), .app_links = apps}),
                client);
        }
    }

    static Bytes get_mac(uint32_t session, uint32_t ref, const std::string &port)
    {
        return Builder().u32(IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ).u32(ref).u32(session).u8(1).text(port, 19);
    }

    void leave(uint32_t client, uint32_t session, uint32_t ref)
    {
        if (pick(2) == 0) {
            request(term_request(session, ref), client);
        } else {
            fake::kill(client);
            run();
        }
    }

    void services_change()
    {
        const auto some_answer = [this] { return pick(4) == 0 ? answer::reject : answer::confirm; };
        const Port &port = ports[pick(static_cast<uint32_t>(ports.size()))];
        switch (pick(8)) {
        case 0:
            pmi_answers = some_answer();
            emi_answers = some_answer();
            break;
        case 1:
            fmi_answers = pick(4) == 0 ? answer::never : some_answer();
            break;
        case 2:
            fake::set_start_results({pick(3)});
            break;
        case 3:
            fake::set_stop_result(pick(3) == 0 ? pick(5) : 0);
            break;
        case 4:
            fake::set_setns_fails(static_cast<int>(pick(4)));
            break;
        case 5:
            pick(2) == 0 ? add_vlan("TNA", 100, "eth_tna.100", "ns_100") : remove_vlan("TNA", 100);
            break;
        default:
            set_port(port.name, pick(3) != 0 ? 1 : 0, pick(3) != 0 ? 1 : 0);
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
        const uint32_t what = pick(32);
        if (what == 0) {
            anything_from_anybody();
        } else if (what < 16) {
            client_asks();
        } else if (what < 20) {
            services_change();
        } else {
            supervision_reports();
        }
    }

    // A faulty daemon does nothing more until it is started again.
    void restart()
    {
        forget_all();
        fake::sessions().clear();
        seen_sessions.clear();
        begin();
    }

    void begin()
    {
        start();
        start_aasi();
        open_session(CLIENT, CLIENT);
        open_session(OTHER_CLIENT, OTHER_CLIENT);
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
        begin();
        size_t traced = 0;
        for (int i = 0; i < 600; ++i) {
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

class UntracedRefusals : public DaemonTest
{
};

TEST_P(TracingOff, ChangesNothing)
{
    const std::string with = walk(0xFFFFFFFF);
    EXPECT_GT(with.size(), 1000u);
    EXPECT_EQ(walk(0), with);
}

// What no message leads to.
TEST_F(UntracedRefusals, StayRefusals)
{
    start();
    fake::set_trace_mask(0);
    iml_link link = {};
    rtt_stats stats = {};
    rtt_sample_queue samples = {};
    const supervision_rtt rtt = {};
    rtt_record_sample(SUPERVISION_ANSWERED, nullptr, &link);
    rtt_record_sample(SUPERVISION_ANSWERED, &rtt, nullptr);
    EXPECT_EQ(link.rtt_samples.count, 0u);
    rtt_compute_stats(nullptr, 1, &stats);
    rtt_compute_stats(&samples, 1, nullptr);
    EXPECT_EQ(stats.rtt_validity, 0u);
    EXPECT_FALSE(iepcsi_add_port_vlan(nullptr, "eth", "ns", 1));
    EXPECT_FALSE(iepcsi_add_port_vlan("IDLA1", nullptr, "ns", 1));
    EXPECT_FALSE(iepcsi_add_port_vlan("IDLA1", "eth", nullptr, 1));
    EXPECT_FALSE(iepcsi_remove_port_vlan(nullptr, 1));
    fmi_create_policer(3, "DiPort_A1");
    fmi_create_policer(0, "DiPort_A1");
    set_aasi_service_up(true);
    iml_link_create_path(99);
    iml_link_update_path(99);
    set_aasi_service_up(false);
    iml_link_set_status(99, IML_LINK_ENABLED, IML_LINK_REASON_DOWN);
    iemli_send_link_status_ind(99, 1, IML_LINK_ENABLED, IML_LINK_REASON_DOWN);
    iemli_send_link_rtt_ind(99, 1, stats);
    for (const auto init : {fmi_client_init, iepcsi_client_init, pmi_client_init, emi_client_init, aasi_client_init}) {
        init(nullptr);
    }
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(manager_state(), KAP_VORN_INITIATED);
    handle_service_event(999);
    handle_service_event(FMI_SERVICE_UP);
    handle_service_event(AASI_SERVICE_DOWN);
    handle_service_event(AASI_SERVICE_UP);
    handle_service_event(AASI_SERVICE_UP);
    handle_signal(SIGHUP);
    handle_signal(SIGUSR1);
    client_event event = {};
    event.type = static_cast<decltype(event.type)>(99);
    client_event_cb(&event);
    EXPECT_EQ(fake::traces().size(), 0u);
}

TEST_F(UntracedRefusals, OfThePlatformStayRefusals)
{
    fake::set_trace_mask(0);
    fake::set_tri_init_result(1);
    fake::set_init_result(ENOENT);
    EXPECT_EQ(vorn_manager_run(), 1);
    fake::set_init_result(0);
    fake::set_create_result(ITC_NO_MBOX);
    EXPECT_EQ(vorn_manager_run(), 1);
    fake::set_create_result(fake::OWN_MBOX);
    fake::set_ns_result("ns_publish", 1);
    start();
    EXPECT_EQ(manager_state(), KAP_VORN_FAULTY_STATE);
    fake::set_ns_result("ns_publish", 0);
    fake::set_add_name_result(1);
    EXPECT_FALSE(iemli_publish());
    fake::set_ns_result("ns_unpublish", 1);
    iemli_unpublish();
    fake::set_current_mbox(ITC_NO_MBOX);
    for (const auto init : {fmi_client_init, iepcsi_client_init, pmi_client_init, emi_client_init, aasi_client_init}) {
        init(client_event_cb);
    }
    EXPECT_EQ(fake::traces().size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, TracingOff, ::testing::Range(1u, 31u));

} // namespace
