// Services that come and go, and what the manager's state becomes.
#include "manager/manager_state.hpp"

#include <gmock/gmock.h>

#include <algorithm>

#include "support/daemon.hpp"

namespace
{

using daemon_test::Message;
using fake::Trace;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t SET_DEFAULT_ACTION = 0x1B0F58;
constexpr uint32_t CREATE_POLICER = 0x1B0F67;

class ManagerState : public daemon_test::DaemonTest
{
protected:
    // Port and action of every default action asked for.
    static std::vector<std::string> default_actions()
    {
        std::vector<std::string> found;
        for (const Message &message : messages_to(daemon_test::FMI)) {
            if (message.msgno() == SET_DEFAULT_ACTION) {
                found.push_back(message.text(16) + "=" + std::to_string(message.net_word(3)));
            }
        }
        return found;
    }
    // Port and committed rate of every policer asked for.
    static std::vector<std::string> policers()
    {
        std::vector<std::string> found;
        for (const Message &message : messages_to(daemon_test::FMI)) {
            if (message.msgno() == CREATE_POLICER) {
                found.push_back(message.text(32) + "=" + std::to_string(message.net_word(3)));
            }
        }
        return found;
    }
    static std::vector<Trace> state_traces()
    {
        std::vector<Trace> found;
        for (const Trace &trace : fake::traces()) {
            if (trace.level == 14 && trace.text.rfind("New state is", 0) == 0) {
                found.push_back(trace);
            }
        }
        return found;
    }
};

TEST_F(ManagerState, IsInitiatedAfterTheFourServicesInAnyOrder)
{
    std::vector<std::string> servers = {"endpoint_mgr", "flow-manager", "iepcsi-server", "pmi-server"};
    do {
        SetUp();
        vorn_manager_run();
        for (size_t i = 0; i < servers.size(); ++i) {
            EXPECT_EQ(manager_state(), KAP_VORN_INITIATING);
            start_server(servers[i]);
        }
        EXPECT_EQ(manager_state(), KAP_VORN_INITIATED) << testing::PrintToString(servers);
        EXPECT_EQ(manager_service_mask(), 15u);
        EXPECT_THAT(state_traces(), ElementsAre(Trace{14, "New state is: KAP_VORN_INITIATING"},
                                                Trace{14, "New state is: KAP_VORN_SERVICES_UP"},
                                                Trace{14, "New state is: KAP_VORN_INITIATED"}));
        EXPECT_TRUE(fake::traced(5, "KAP_VORN_PMI_SERVICE is added"));
        EXPECT_TRUE(fake::traced(5, "KAP_VORN_EMI_SERVICE is added"));
        EXPECT_TRUE(fake::traced(5, "KAP_VORN_FMI_SERVICE is added"));
        EXPECT_TRUE(fake::traced(5, "KAP_VORN_IEPCSI_SERVICE is added"));
    } while (std::next_permutation(servers.begin(), servers.end()));
}

TEST_F(ManagerState, DoesNotPublishBeforeAllFourAreUp)
{
    start({"flow-manager", "iepcsi-server", "pmi-server"});
    EXPECT_EQ(manager_state(), KAP_VORN_INITIATING);
    EXPECT_THAT(fake::calls(), testing::Not(testing::Contains(testing::StartsWith("ns_publish"))));
    start_server("endpoint_mgr");
    EXPECT_THAT(fake::calls(), testing::Contains("ns_publish(KAP_IEMLI_SERVICE_NAME,,65537,)"));
}

TEST_F(ManagerState, AsksForThePolicersOfEveryPortBeforeItPublishes)
{
    start({"iepcsi-server", "pmi-server", "endpoint_mgr"});
    set_port("IDLB1", 0, 0); // the state does not matter for policers
    forget_records();
    start_server("flow-manager");
    EXPECT_THAT(policers(),
                ElementsAre("DiPort_A1=10000000", "DiPort_A1=5000000", "DiPort_A1=1000000", "DiPort_B1=10000000",
                            "DiPort_B1=5000000", "DiPort_B1=1000000", "TNA=10000000", "TNA=5000000", "TNA=1000000"));
}

TEST_F(ManagerState, IsServicesUpWhileItAsksForPolicersAndPublishes)
{
    start({"iepcsi-server", "pmi-server", "endpoint_mgr"});
    start_server("flow-manager");
    std::vector<std::string> order;
    for (const Trace &trace : fake::traces()) {
        if (trace.text.rfind("New state is", 0) == 0 || trace.text == "Iemli server published") {
            order.push_back(trace.text);
        } else if (trace.level == 18 && trace.text.rfind("FMI_ACL_CREATE_POLICER_REQ", 0) == 0) {
            order.emplace_back("policer");
        }
    }
    order.erase(std::unique(order.begin(), order.end()), order.end());
    EXPECT_THAT(order, ElementsAre("New state is: KAP_VORN_SERVICES_UP", "policer", "Iemli server published",
                                   "New state is: KAP_VORN_INITIATED"));
}

TEST_F(ManagerState, AsksForThePolicersOfAnUnknownPortByItsFirst15Characters)
{
    ports = {{"0123456789abcdef", "02:00:00:00:00:01", "eth0", "ns"}};
    start({"iepcsi-server", "pmi-server", "endpoint_mgr"});
    start_server("flow-manager");
    EXPECT_THAT(policers(),
                ElementsAre("0123456789abcde=10000000", "0123456789abcde=5000000", "0123456789abcde=1000000"));
}

TEST_F(ManagerState, SetsTheDefaultActionsWhenTheSecondOfFmiAndIepcsiArrives)
{
    start({"iepcsi-server"});
    set_port("IDLB1", 0, 1);
    forget_records();
    start_server("flow-manager");
    EXPECT_THAT(default_actions(), ElementsAre("DiPort_A1=0", "TNA=1")) << "locked ports are left out";
    forget_records();
    start_server("pmi-server");
    EXPECT_THAT(default_actions(), IsEmpty());
}

TEST_F(ManagerState, SetsTheDefaultActionsAgainWhenIepcsiIsAddedTwice)
{
    start({"flow-manager", "iepcsi-server"});
    handle_service_event(IEPCSI_SERVICE_UP);
    EXPECT_THAT(default_actions(), ElementsAre("DiPort_A1=0", "DiPort_B1=0")) << "the TN port has its own already";
}

TEST_F(ManagerState, SetsNoDefaultActionWhileThePortStatesAreUnknown)
{
    vorn_manager_run();
    start_server("flow-manager");
    start_server("iepcsi-server");
    EXPECT_THAT(default_actions(), IsEmpty()) << "a port is locked until its state is told";
}

TEST_F(ManagerState, AsksOnceMoreWithAction1WhenADefaultActionIsRefused)
{
    start({"iepcsi-server"});
    fmi_refused.insert(SET_DEFAULT_ACTION);
    start_server("flow-manager");
    EXPECT_THAT(default_actions(),
                ElementsAre("DiPort_A1=0", "DiPort_A1=1", "DiPort_B1=0", "DiPort_B1=1", "TNA=1", "TNA=1"));
    forget_records();
    start_server("pmi-server");
    EXPECT_THAT(default_actions(), IsEmpty()) << "another service is no occasion to ask again";
}

TEST_F(ManagerState, GoesThroughServicesUpAgainWhenAServiceIsAddedTwice)
{
    start();
    fake::calls().clear();
    handle_service_event(PMI_SERVICE_UP);
    EXPECT_TRUE(fake::traced(1, "KAP_VORN_PMI_SERVICE is added twice"));
    EXPECT_FALSE(fake::traced(5, "KAP_VORN_PMI_SERVICE is added"));
    EXPECT_THAT(state_traces(), ElementsAre(Trace{14, "New state is: KAP_VORN_SERVICES_UP"},
                                            Trace{14, "New state is: KAP_VORN_INITIATED"}));
    EXPECT_TRUE(fake::traced(
        1, "Creating policer(type 0) on port DiPort_A1 that already have policer. Returning without action"));
    EXPECT_THAT(fake::calls(), testing::Contains("ns_publish(KAP_IEMLI_SERVICE_NAME,,65537,)"));
}

TEST_F(ManagerState, OnlyTracesASecondUpEventWhileOthersAreMissing)
{
    start({"pmi-server"});
    handle_service_event(PMI_SERVICE_UP);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "KAP_VORN_PMI_SERVICE is added twice"}));
    EXPECT_EQ(manager_state(), KAP_VORN_INITIATING);
}

TEST_F(ManagerState, IsFaultyWhenTheServiceCannotBePublished)
{
    fake::set_ns_result("ns_publish", 17);
    start();
    EXPECT_EQ(manager_state(), KAP_VORN_FAULTY_STATE);
    fake::set_ns_result("ns_publish", 17);
    handle_service_event(PMI_SERVICE_UP);
    EXPECT_THAT(state_traces(), ElementsAre(Trace{14, "New state is: KAP_VORN_SERVICES_UP"},
                                            Trace{14, "New state is: KAP_VORN_FAULTY_STATE"}));
    const auto &traces = fake::traces();
    const auto failed = std::find(traces.begin(), traces.end(), Trace{1, "Iemli service init failed"});
    ASSERT_NE(failed, traces.end());
    EXPECT_EQ(failed[1], (Trace{14, "New state is: KAP_VORN_FAULTY_STATE"}));
}

TEST_F(ManagerState, WithdrawsTheServiceOnceWhenServicesAreLost)
{
    start();
    fake::calls().clear();
    handle_service_event(PMI_SERVICE_DOWN);
    EXPECT_EQ(manager_state(), KAP_VORN_FAULTY_STATE);
    EXPECT_EQ(manager_service_mask(), 14u);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{14, "New state is: KAP_VORN_FAULTY_STATE due to lost service "
                                                      "KAP_VORN_PMI_SERVICE"},
                                            Trace{5, "Iemli server unpublished"}));
    EXPECT_THAT(fake::calls(), ElementsAre("ns_unpublish(KAP_IEMLI_SERVICE_NAME,,65537,)"));
    forget_records();
    handle_service_event(EMI_SERVICE_DOWN);
    EXPECT_EQ(manager_service_mask(), 12u) << "only the bit is cleared";
    EXPECT_THAT(fake::traces(), IsEmpty());
    EXPECT_EQ(fake::calls().size(), 1u);
}

TEST_F(ManagerState, LosesEachServiceByItsOwnCode)
{
    const struct {
        uint32_t code;
        uint32_t mask;
        const char *name;
    } losses[] = {{2, 14, "KAP_VORN_PMI_SERVICE"},
                  {5, 11, "KAP_VORN_FMI_SERVICE"},
                  {8, 13, "KAP_VORN_EMI_SERVICE"},
                  {11, 7, "KAP_VORN_IEPCSI_SERVICE"}};
    for (const auto &loss : losses) {
        SetUp();
        start();
        handle_service_event(loss.code);
        EXPECT_EQ(manager_service_mask(), loss.mask);
        EXPECT_TRUE(
            fake::traced(14, std::string("New state is: KAP_VORN_FAULTY_STATE due to lost service ") + loss.name));
    }
}

TEST_F(ManagerState, TracesTheLossOfAServiceThatIsNotThere)
{
    start();
    handle_service_event(PMI_SERVICE_DOWN);
    forget_records();
    handle_service_event(PMI_SERVICE_DOWN);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "KAP_VORN_PMI_SERVICE is lost, but we already don't have it in "
                                                     "services"}));
    EXPECT_EQ(manager_service_mask(), 14u);
}

TEST_F(ManagerState, PublishesAgainWhenTheLostServiceIsBack)
{
    start();
    handle_service_event(PMI_SERVICE_DOWN);
    fake::calls().clear();
    handle_service_event(PMI_SERVICE_UP);
    EXPECT_EQ(manager_state(), KAP_VORN_INITIATED);
    EXPECT_THAT(fake::calls(), testing::Contains("ns_publish(KAP_IEMLI_SERVICE_NAME,,65537,)"));
}

TEST_F(ManagerState, LeavesLinksAndTheirSessionsWhenAServiceIsLostWithoutASession)
{
    start();
    iml_link *link = iml_link_alloc(daemon_test::make_link_data({}));
    iml_link_insert(link);
    handle_service_event(EMI_SERVICE_DOWN);
    EXPECT_EQ(iml_link_count(), 1u);
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(ManagerState, DeletesTheLinksOfTheSessionsThatTheLossEnds)
{
    start();
    const uint32_t session = open_session();
    ASSERT_EQ(create_link(session, {}), 1u);
    ASSERT_EQ(fake::sessions().size(), 2u);
    handle_service_event(FMI_SERVICE_DOWN);
    EXPECT_EQ(iml_link_count(), 0u);
    EXPECT_TRUE(fake::sessions().empty());
}

TEST_F(ManagerState, IsFaultyWithoutWithdrawingTheServiceWhenASetUpFails)
{
    for (uint32_t code : {3u, 6u, 9u, 12u}) {
        SetUp();
        start();
        fake::calls().clear();
        handle_service_event(code);
        EXPECT_EQ(manager_state(), KAP_VORN_FAULTY_STATE);
        EXPECT_EQ(manager_service_mask(), 15u);
        EXPECT_THAT(fake::traces(), IsEmpty());
        EXPECT_THAT(fake::calls(), IsEmpty());
    }
}

TEST_F(ManagerState, DoesNotWithdrawAServiceThatIsLostAfterItWasFaulty)
{
    start();
    handle_service_event(PMI_SERVICE_FAULTY);
    fake::calls().clear();
    handle_service_event(PMI_SERVICE_DOWN);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_EQ(manager_service_mask(), 14u);
}

TEST_F(ManagerState, TracksTheAutomationAgentApart)
{
    handle_service_event(AASI_SERVICE_UP);
    EXPECT_TRUE(is_aasi_service_up());
    handle_service_event(AASI_SERVICE_UP);
    handle_service_event(AASI_SERVICE_DOWN);
    EXPECT_FALSE(is_aasi_service_up());
    handle_service_event(AASI_SERVICE_DOWN);
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{5, "KAP_VORN_AASI_SERVICE is added"},
                            Trace{1, "KAP_VORN_AASI_SERVICE is added twice"},
                            Trace{5, "KAP_VORN_AASI_SERVICE is removed"},
                            Trace{1, "KAP_VORN_AASI_SERVICE is lost, but we already don't have it in services"}));
    EXPECT_EQ(manager_service_mask(), 0u);
    EXPECT_EQ(manager_state(), KAP_VORN_INIT);
}

TEST_F(ManagerState, CountsAFaultyAutomationAgentAsDown)
{
    handle_service_event(AASI_SERVICE_UP);
    forget_records();
    handle_service_event(AASI_SERVICE_FAULTY);
    EXPECT_FALSE(is_aasi_service_up());
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "KAP_VORN_AASI_SERVICE can't be initialized"}));
    EXPECT_EQ(manager_state(), KAP_VORN_INIT);
}

TEST_F(ManagerState, TracesACodeThatNoServiceHas)
{
    for (uint32_t code : {0u, 16u, 4294967295u}) {
        handle_service_event(code);
    }
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "This shouldn't happen. Unexpected service_id 0"},
                                            Trace{1, "This shouldn't happen. Unexpected service_id 16"},
                                            Trace{1, "This shouldn't happen. Unexpected service_id 4294967295"}));
}

TEST_F(ManagerState, TakesEventsByTheirType)
{
    client_event event = {};
    event.type = SERVICE_EVENT;
    event.service.id = AASI_SERVICE_UP;
    client_event_cb(&event);
    EXPECT_TRUE(is_aasi_service_up());
    forget_records();
    event.type = PROCEDURE_RESULT_EVENT;
    event.result.code = 0;
    client_event_cb(&event);
    event.type = IEPCSI_EVENT;
    event.port.id = 7;
    client_event_cb(&event);
    event.type = static_cast<client_event_type>(4);
    client_event_cb(&event);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Unknown link event 0 or NO_LINK_EVENT received"},
                                            Trace{1, "Unknown link event 7 or NO__PORT_EVENT received"},
                                            Trace{1, "Unknown event type 4"}));
}

TEST_F(ManagerState, HasATextForEveryState)
{
    EXPECT_STREQ(manager_state_to_string(0), "KAP_VORN_INIT");
    EXPECT_STREQ(manager_state_to_string(1), "KAP_VORN_INITIATING");
    EXPECT_STREQ(manager_state_to_string(2), "KAP_VORN_SERVICES_UP");
    EXPECT_STREQ(manager_state_to_string(3), "KAP_VORN_INITIATED");
    EXPECT_STREQ(manager_state_to_string(4), "KAP_VORN_FAULTY_STATE");
    EXPECT_STREQ(manager_state_to_string(5), "UNKNOWN_STATE");
}

TEST_F(ManagerState, HasATextForEveryService)
{
    EXPECT_STREQ(service_to_string(0), "KAP_VORN_NO_SERVICE");
    EXPECT_STREQ(service_to_string(1), "KAP_VORN_PMI_SERVICE");
    EXPECT_STREQ(service_to_string(2), "KAP_VORN_EMI_SERVICE");
    EXPECT_STREQ(service_to_string(4), "KAP_VORN_FMI_SERVICE");
    EXPECT_STREQ(service_to_string(8), "KAP_VORN_IEPCSI_SERVICE");
    EXPECT_STREQ(service_to_string(15), "KAP_VORN_ALL_SERVICES_UP");
    EXPECT_STREQ(service_to_string(3), "UNKNOWN_SERVICE");
}

TEST_F(ManagerState, NamesALostServiceThatIsNoneAsUnknown)
{
    service_lost(static_cast<kap_vorn_service>(16));
    EXPECT_TRUE(fake::traced(1, "UNKNOWN_SERVICE is lost, but we already don't have it in services"));
}

TEST_F(ManagerState, HasATextForEveryLinkStatus)
{
    EXPECT_STREQ(iml_link_status_text(1, 0), "enabled");
    EXPECT_STREQ(iml_link_status_text(1, 4), "enabled");
    EXPECT_STREQ(iml_link_status_text(0, 2), "disabled with reason down");
    EXPECT_STREQ(iml_link_status_text(0, 3), "disabled with reason locked");
    EXPECT_STREQ(iml_link_status_text(0, 4), "disabled with reason no connectivity");
    EXPECT_STREQ(iml_link_status_text(0, 0), "disabled with invalid reason");
    EXPECT_STREQ(iml_link_status_text(0, 5), "disabled with invalid reason");
    EXPECT_STREQ(iml_link_status_text(2, 2), "unknown");
}

} // namespace
