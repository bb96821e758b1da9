// The IEPCSI client's conversation: set-up, subscriptions, indications, every message in every state.
#include "clients/iepcsi_client.hpp"

#include "client_test.hpp"
#include "iepcsi_test.hpp"

using namespace client_test;
using namespace iepcsi_test;

namespace
{

class IepcsiClient : public ClientTest
{
protected:
    IepcsiClient() : ClientTest(IEPCSI) {}
};

TEST_F(IepcsiClient, LooksForItsServerMonitorsItAndAsksForTheService)
{
    iepcsi_client_init(record_event);
    EXPECT_EQ(fake::calls(), (std::vector<std::string>{"itc_locate_async(iepcsi-server,65537)"}));
    fake::name("iepcsi-server", SERVER);
    EXPECT_EQ(deliver_next(iepcsi_client_dispatch), Bytes(Builder().u32(0x1B1041).n32(1).zeros(4)));
    ASSERT_EQ(fake::monitors().size(), 1U);
    EXPECT_EQ(fake::monitors()[0].bytes, Bytes(Builder().u32(0x1B1042).n32(2).zeros(4)));
    EXPECT_EQ(fake::take_sent().bytes,
              Bytes(Builder().u32(0x1B1043).hex("00000003 00000064 00000001 00000001 00000001")));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {17, "IEPCSI_SERVER_UP_IND: connection_ref=0, procedure_ref=1"},
                  {18, "IEPCSI_INIT_SERVICE_REQ: connection_ref =100, procedure_ref=0x3, pv_first_wanted=1, "
                       "pv_second_wanted=1, pv_third_wanted=1"}}));
}

TEST_F(IepcsiClient, RefusesToStartWithoutAHandlerOrAMailbox)
{
    iepcsi_client_init(nullptr);
    EXPECT_TRUE(fake::traced(1, "CB event is NULL"));
    fake::set_current_mbox(ITC_NO_MBOX);
    iepcsi_client_init(record_event);
    EXPECT_TRUE(fake::traced(1, "Own mailbox is 0!"));
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_TRUE(events().empty());
}

TEST_F(IepcsiClient, AsksWhichPortsThereAre)
{
    client_.enter(1);
    EXPECT_TRUE(client_.receive(message(0x1B1044, 3, 0xABCD).n32(1)));
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B1048).hex("00000004 0000abcd")));
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{
                                  {17, "IEPCSI_INIT_SERVICE_CFM: connection_ref =0, procedure_ref=0x3, pv_selected=1"},
                                  {18, "IEPCSI_GET_ETH_PORT_SUPPORT_REQ: connection_ref =43981, procedure_ref=0x4"}}));
}

TEST_F(IepcsiClient, SubscribesForAllPortsAndIsUpWithoutWaiting)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(ports({{"IDLA1", 6}})));
    EXPECT_EQ(iepcsi_client_state(), 3U);
    ASSERT_EQ(raised(), (std::vector<uint32_t>{IEPCSI_SERVICE_UP}));
    EXPECT_EQ(events()[0].state, 3U);
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B1050).hex("00000005 00000055 00000002").zeros(16)));
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B1063).hex("00000006 00000055 00000002").zeros(16)));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {17, "IEPCSI_GET_ETH_PORT_SUPPORT_CFM: connection_ref =85, procedure_ref=0x21, number_of_ports=1"},
                  {7, "Port name IDLA1, capability=0x6, MAC address 02:aa:00:00:00:01"},
                  {7, "Inserting port IDLA1 to list"},
                  {18, "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ: connection_ref=85, procedure_ref=0x5, port_role=0x2, "
                       "port_name="},
                  {18, "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ: connection_ref=85, procedure_ref=0x6, port_role=0x2, "
                       "port_name="}}));
}

TEST_F(IepcsiClient, IsUpWithoutSubscribingWhenNoPortCarriesLinks)
{
    for (const auto &list : {std::vector<Port>{}, std::vector<Port>{{"IDLA1", 1}, {"IDLB1", 4}, {"TNA", 0}}}) {
        client_.enter(2);
        EXPECT_TRUE(client_.receive(ports(list)));
        EXPECT_EQ(iepcsi_client_state(), 3U);
        ASSERT_EQ(raised(), (std::vector<uint32_t>{IEPCSI_SERVICE_UP}));
        EXPECT_EQ(events()[0].state, 2U) << "with no port the event comes before the state";
        EXPECT_TRUE(fake::traced(5, "IEPCSI service is added"));
        EXPECT_TRUE(fake::sent().empty());
        EXPECT_EQ(iepcsi_get_port_list(), nullptr);
    }
}

TEST_F(IepcsiClient, FollowsItsTableInEveryState)
{
    const uint32_t down = IEPCSI_SERVICE_DOWN;
    const uint32_t faulty = IEPCSI_SERVICE_FAULTY;
    const std::vector<std::vector<uint32_t>> fault_but_in_faulty = {{faulty}, {faulty}, {faulty}, {faulty}, {}};
    const std::vector<uint32_t> to_faulty = {4, 4, 4, 4, 4};
    walk(IEPCSI, {
                     {"IEPCSI_SERVER_UP_IND",
                      message(0x1B1041),
                      {1, 4, 4, 4, 4},
                      {{}, {faulty}, {faulty}, {faulty}, {}},
                      1,
                      "IEPCSI_SERVER_UP_IND received in wrong state, state_=%s",
                      {1, 2, 3, 4}},
                     {"IEPCSI_SERVER_DOWN_IND",
                      message(0x1B1042),
                      {0, 0, 0, 0, 0},
                      {{down}, {down}, {down}, {down}, {down}},
                      4,
                      "IEPCSI service down received, state_=%s",
                      {0, 1, 2, 3, 4}},
                     {"IEPCSI_INIT_SERVICE_CFM",
                      message(0x1B1044).n32(1),
                      {4, 2, 4, 4, 4},
                      {{faulty}, {}, {faulty}, {faulty}, {}},
                      1,
                      "IEPCSI_INIT_SERVICE_CFM received in wrong state, state_=%s",
                      {0, 2, 3, 4}},
                     {"IEPCSI_INIT_SERVICE_REJ",
                      message(0x1B1045).n32(1),
                      to_faulty,
                      fault_but_in_faulty,
                      1,
                      "IEPCSI_INIT_SERVICE_REJ received, state_=%s",
                      {0, 1, 2, 3, 4}},
                     {"IEPCSI_TERM_SERVICE_CFM",
                      message(0x1B1047),
                      {0, 1, 2, 3, 4},
                      {{}, {}, {}, {}, {}},
                      4,
                      "WARNING: IEPCSI_TERM_SERVICE_CFM received without sending request, sender_mbox=0x20007",
                      {0, 1, 2, 3, 4}},
                     {"IEPCSI_GET_ETH_PORT_SUPPORT_CFM",
                      ports({{"IDLA1", 2}}),
                      {4, 4, 3, 4, 4},
                      {{faulty}, {faulty}, {IEPCSI_SERVICE_UP}, {faulty}, {}},
                      1,
                      "IEPCSI_GET_ETH_PORT_SUPPORT_CFM received in wrong state, state_=%s",
                      {0, 1, 3, 4}},
                     {"IEPCSI_GET_ETH_PORT_SUPPORT_REJ",
                      message(0x1B104A).n32(1),
                      to_faulty,
                      fault_but_in_faulty,
                      1,
                      "IEPCSI_GET_ETH_PORT_SUPPORT_REJ received, state_=%s",
                      {0, 1, 2, 3, 4}},
                     {"IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM",
                      message(0x1B1051).n32(1),
                      {4, 4, 4, 3, 4},
                      {{faulty}, {faulty}, {faulty}, {}, {}},
                      1,
                      "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM received in wrong state, state_=%s",
                      {0, 1, 2, 4}},
                     {"IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ",
                      message(0x1B1052).n32(1),
                      to_faulty,
                      fault_but_in_faulty,
                      1,
                      "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ received, state_=%s",
                      {0, 1, 2, 3, 4}},
                     {"IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM",
                      message(0x1B1064).n32(1),
                      {4, 4, 4, 3, 4},
                      {{faulty}, {faulty}, {faulty}, {}, {}},
                      1,
                      "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM received in wrong state, state=%s",
                      {0, 1, 2, 4}},
                     {"IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ",
                      message(0x1B1065).n32(1),
                      to_faulty,
                      fault_but_in_faulty,
                      1,
                      "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ received, state_=%s",
                      {0, 1, 2, 3, 4}},
                     {"IEPCSI_ETH_PORT_STATUS_IND",
                      status("IDLA1", 1, 1),
                      {0, 1, 2, 3, 4},
                      {{}, {}, {}, {203, 201}, {}},
                      1,
                      "IEPCSI_ETH_PORT_STATUS_IND received in wrong state, state = %s.",
                      {0, 1, 2, 4}},
                     {"IEPCSI_PORT_VLAN_STATUS_IND",
                      vlan("IDLA1", 100, 1),
                      {4, 4, 4, 3, 4},
                      {{faulty}, {faulty}, {faulty}, {205}, {}},
                      1,
                      "IEPCSI_PORT_VLAN_STATUS_IND received in wrong state, state=%s",
                      {0, 1, 2, 4}},
                 });
}

TEST_F(IepcsiClient, DropsEveryMessageThatIsTooShort)
{
    Bytes bare_status = status("IDLA1", 1, 1);
    bare_status.resize(36);
    Bytes bare_vlan = vlan("IDLA1", 100, 1);
    bare_vlan.resize(56);
    shorten(IEPCSI, {{"IEPCSI_SERVER_UP_IND", message(0x1B1041), 0},
                     {"IEPCSI_SERVER_DOWN_IND", message(0x1B1042), 3},
                     {"IEPCSI_INIT_SERVICE_CFM", message(0x1B1044).n32(1), 1},
                     {"IEPCSI_INIT_SERVICE_REJ", message(0x1B1045).n32(1), 1},
                     {"IEPCSI_TERM_SERVICE_CFM", message(0x1B1047), 3},
                     {"IEPCSI_GET_ETH_PORT_SUPPORT_CFM", ports({{"IDLA1", 2}, {"IDLB1", 2}}), 2},
                     {"IEPCSI_GET_ETH_PORT_SUPPORT_REJ", message(0x1B104A).n32(1), 2},
                     {"IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM", message(0x1B1051).n32(1), 3},
                     {"IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ", message(0x1B1052).n32(1), 3},
                     {"IEPCSI_ETH_PORT_STATUS_IND", bare_status, 3},
                     {"IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM", message(0x1B1064).n32(1), 3},
                     {"IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ", message(0x1B1065).n32(1), 3},
                     {"IEPCSI_PORT_VLAN_STATUS_IND", bare_vlan, 3}});
}

TEST_F(IepcsiClient, TracesWithEveryRejectItsReason)
{
    const char *texts[] = {
        "IEPCSI_REJ_INTERNAL_REASON",  "IEPCSI_REJ_SERVICE_INVALID_PV", "IEPCSI_REJ_INVALID_PORTREF",
        "IEPCSI_REJ_INVALID_PORTNAME", "IEPCSI_REJ_INVALID_PORTSTATE",  "IEPCSI_REJ_INVALID_PORTROLE",
        "IEPCSI_REJ_PORT_RESERVED",    "IEPCSI_REJ_PORT_NOT_RESERVED",  "UNKNOWN_REJECT_REASON"};
    const std::vector<std::pair<uint32_t, std::string>> rejects = {{0x1B1045, "IEPCSI_INIT_SERVICE_REJ"},
                                                                   {0x1B104A, "IEPCSI_GET_ETH_PORT_SUPPORT_REJ"},
                                                                   {0x1B1052, "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ"}};
    ASSERT_EQ(std::size(texts), 1 + CLIENT_TEST_ENTRIES(IEPCSI_REJECT_REASONS));
    client_.enter(3);
    for (const auto &[number, name] : rejects) {
        for (uint32_t reason = 0; reason < std::size(texts); ++reason) {
            EXPECT_TRUE(client_.receive(message(number, 0x1F, 9).n32(reason)));
            EXPECT_TRUE(fake::traced(17, name + ": connection_ref =9, procedure_ref=0x1f, reason=" + texts[reason]));
        }
    }
}

TEST_F(IepcsiClient, TracesTheReasonOfAVlanSubscribeRejectUnconverted)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B1065, 0x1F, 9).u32(3)));
    EXPECT_TRUE(fake::traced(17, "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ: connection_ref=9procedure_ref=0x1f, "
                                 "reason=IEPCSI_REJ_INVALID_PORTNAME"));
}

TEST_F(IepcsiClient, TracesTheSubscriptions)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B1051, 5).n32(8)));
    EXPECT_TRUE(client_.receive(message(0x1B1064, 6).n32(9)));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {17, "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM: connection_ref =85, procedure_ref=0x5, subscribe_ref=8"},
                  {17, "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM: connection_ref=85, procedure_ref=0x6, "
                       "subscribe_ref=9"}}));
}

eth_port seen_port;
std::vector<std::string> seen_namespaces; // of the port, one per event

void look_at_port(const client_event *event)
{
    record_event(event);
    if (event->type == IEPCSI_EVENT) {
        ASSERT_TRUE(iepcsi_fetch_port_data("IDLA1", &seen_port));
        events().back().state = seen_port.adm_state * 10 + seen_port.oper_state;
        seen_namespaces.emplace_back(seen_port.name_space);
    }
}

TEST_F(IepcsiClient, ReportsTheAdminStateFirstAndTheOperStateBeforeItIsStored)
{
    iepcsi_client_init(look_at_port);
    fake::name("iepcsi-server", SERVER);
    deliver_next(iepcsi_client_dispatch);
    EXPECT_TRUE(client_.receive(message(0x1B1044).n32(1)));
    EXPECT_TRUE(client_.receive(ports({{"IDLA1", 2}})));
    Client::forget_records();
    seen_namespaces.clear();
    EXPECT_TRUE(client_.receive(status("IDLA1", 1, 1, "nsA")));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{203, 201}));
    EXPECT_EQ(events()[0].state, 10U) << "the new admin state, the old oper state";
    EXPECT_EQ(events()[1].state, 10U) << "still the old oper state";
    EXPECT_EQ(seen_namespaces, (std::vector<std::string>{"", "nsA"})) << "stored between the two events";
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {17, "IEPCSI_ETH_PORT_STATUS_IND: connection_ref =85, procedure_ref=0x21, port_name=IDLA1, "
                       "port_adm_state=1, port_oper_state=1, name_space=nsA"},
                  {7, "Port admin state updated for port IDLA1, adm_state=1, event= 3"},
                  {7, "Port oper state updated for port IDLA1, oper_state=1, event= 1"}}));
    ASSERT_TRUE(iepcsi_fetch_port_data("IDLA1", &seen_port));
    EXPECT_EQ(seen_port.oper_state, 1U);
    EXPECT_STREQ(seen_port.name_space, "nsA");
}

TEST_F(IepcsiClient, LaysThePortNameIntoThePortEvent)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(status("IDLA1", 0, 1)));
    ASSERT_EQ(events().size(), 1U);
    const auto *bytes = reinterpret_cast<const uint8_t *>(&events()[0].event);
    EXPECT_EQ(Bytes(bytes, bytes + 24), Bytes(Builder().u32(2).u32(1).text("IDLA1", 16)));
}

TEST_F(IepcsiClient, LaysVlanIdAndPortNameIntoTheVlanEvent)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(vlan("IDLA1", 0x0FFE, 1)));
    ASSERT_EQ(events().size(), 1U);
    const auto *bytes = reinterpret_cast<const uint8_t *>(&events()[0].event);
    EXPECT_EQ(Bytes(bytes, bytes + 26), Bytes(Builder().u32(2).u32(5).u16(0x0FFE).text("IDLA1", 16)));
}

TEST_F(IepcsiClient, ReportsEveryOtherStateAsLockedAndDown)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(status("IDLA1", 7, 9)));
    EXPECT_TRUE(client_.receive(status("IDLA1", 0, 0)));
    EXPECT_TRUE(client_.receive(status("IDLA1", 0, 0)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{204, 202, 204, 202}));
}

TEST_F(IepcsiClient, IgnoresTheStatusOfAPortItDoesNotKeep)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(status("IDLB9", 1, 1)));
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(fake::traces().size(), 1U) << "only that it was received";
}

TEST_F(IepcsiClient, CopiesTheNamespaceWithEveryStatusAsAFormat)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(status("IDLA1", 0, 0, "n%%s%d1")));
    EXPECT_STREQ(iepcsi_get_port_list()->name_space, "n%s1");
    EXPECT_TRUE(client_.receive(status("IDLA1", 0, 0, std::string(300, 'n'))));
    EXPECT_EQ(std::string(iepcsi_get_port_list()->name_space), std::string(255, 'n'));
    // A name that the message's end cuts, and none at all.
    Bytes cut = status("IDLA1", 0, 0, "abcdef");
    cut.resize(36 + 3);
    EXPECT_TRUE(client_.receive(cut));
    EXPECT_STREQ(iepcsi_get_port_list()->name_space, "abc");
    cut.resize(36);
    EXPECT_TRUE(client_.receive(cut));
    EXPECT_STREQ(iepcsi_get_port_list()->name_space, "");
}

TEST_F(IepcsiClient, ReportsAVlanAddedTwiceTwiceAndKeepsOneEntry)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(vlan("IDLA1", 100, 1)));
    EXPECT_TRUE(client_.receive(vlan("IDLA1", 100, 1)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{205, 205}));
    EXPECT_TRUE(fake::traced(4, "Warning:Vlan 100 already added on port name IDLA1."));
    const eth_port *port = iepcsi_get_port_list();
    ASSERT_NE(port->vlans, nullptr);
    EXPECT_EQ(port->vlans->next, nullptr);
    EXPECT_TRUE(fake::traced(17, "IEPCSI_PORT_VLAN_STATUS_IND: connection_ref=85, procedure_ref=0x21, vlan_id=100, "
                                 "vlan_action=1, port_role=2, if_name=veth.100, port_name=IDLA1, namespace=ns"));
}

TEST_F(IepcsiClient, ReportsTheRemovalOfAnUnknownVlan)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(vlan("IDLA1", 100, 2)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{206}));
    EXPECT_TRUE(fake::traced(4, "Warning:Vlan 100 for port name IDLA1 not found."));
}

TEST_F(IepcsiClient, RaisesNothingForAVlanOnAnUnknownPort)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(vlan("IDLB9", 100, 1)));
    EXPECT_TRUE(client_.receive(vlan("IDLB9", 100, 2)));
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(fake::count_traced(1, "Warning: No port found for port_name=IDLB9"), 2U);
    EXPECT_TRUE(fake::traced(1, "Failed to add vlan on port. vlan_id=100, port=IDLB9"));
    EXPECT_TRUE(fake::traced(1, "Failed to remove vlan on port. vlan_id=100, port=IDLB9"));
}

TEST_F(IepcsiClient, RaisesNothingForAnUnknownVlanAction)
{
    client_.enter(3);
    for (uint32_t action : {0U, 3U}) {
        EXPECT_TRUE(client_.receive(vlan("IDLA1", 100, action)));
        EXPECT_TRUE(
            fake::traced(1, "Received IEPCSI_PORT_VLAN_STATUS_IND with unknown vlan_action=" + std::to_string(action)));
    }
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(iepcsi_get_port_list()->vlans, nullptr);
}

TEST_F(IepcsiClient, RaisesNothingForAVlanThatMemoryHasNoRoomFor)
{
    client_.enter(3);
    fake::fail_allocation(1);
    EXPECT_TRUE(client_.receive(vlan("IDLA1", 100, 1)));
    EXPECT_TRUE(events().empty());
    EXPECT_TRUE(fake::traced(1, "Memory error"));
    EXPECT_TRUE(fake::traced(1, "Failed to add vlan on port. vlan_id=100, port=IDLA1"));
}

TEST_F(IepcsiClient, SkipsAPortThatMemoryHasNoRoomFor)
{
    client_.enter(2);
    fake::fail_allocation(1);
    EXPECT_TRUE(client_.receive(ports({{"IDLA1", 2}, {"IDLB1", 2}})));
    EXPECT_TRUE(fake::traced(1, "Memory error. Calloc failed."));
    EXPECT_STREQ(iepcsi_get_port_list()->port_name, "IDLB1");
    EXPECT_EQ(iepcsi_get_port_list()->next, nullptr);
}

TEST_F(IepcsiClient, ForgetsEveryPortAndVlanWhenItsServerIsGone)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(vlan("IDLA1", 100, 1)));
    EXPECT_TRUE(client_.receive(vlan("IDLA1", 101, 1)));
    Client::forget_records();
    fake::kill(SERVER);
    deliver_next(iepcsi_client_dispatch);
    EXPECT_TRUE(client_.receive(message(0x1B1042)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{IEPCSI_SERVICE_DOWN}));
    EXPECT_EQ(fake::traces()[0], (fake::Trace{17, "IEPCSI_SERVER_DOWN_IND: connection_ref=0, procedure_ref=2"}));
    EXPECT_EQ(fake::traces()[1], (fake::Trace{4, "IEPCSI service down received, state_=INITIATED"}));
    EXPECT_EQ(iepcsi_get_port_list(), nullptr);
    eth_port port;
    EXPECT_FALSE(iepcsi_fetch_port_data("IDLA1", &port));
}

TEST_F(IepcsiClient, StartsAnewWhenInitialisedInAnyOtherState)
{
    for (uint32_t state = 1; state < 5; ++state) {
        client_.enter(state);
        iepcsi_client_init(record_event);
        EXPECT_EQ(iepcsi_client_state(), 0U);
        EXPECT_TRUE(fake::traced(4, "WARNING: Client in wrong state"));
        EXPECT_EQ(fake::calls(),
                  (std::vector<std::string>{"itc_unmonitor(1)", "itc_locate_async(iepcsi-server,65537)"}));
        EXPECT_EQ(iepcsi_get_port_list(), nullptr);
        deliver_next(iepcsi_client_dispatch);
    }
}

TEST_F(IepcsiClient, RaisesEventsOfTheSameTypesWhenItIsUpAgain)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B1042)));
    Client::forget_records();
    drive(3);
    EXPECT_TRUE(client_.receive(status("IDLA1", 0, 1)));
    EXPECT_TRUE(client_.receive(vlan("IDLA1", 7, 1)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{IEPCSI_SERVICE_UP, 201, 205}));
    EXPECT_EQ(events()[0].event.type, SERVICE_EVENT);
    EXPECT_EQ(events()[1].event.type, IEPCSI_EVENT);
}

TEST_F(IepcsiClient, ForgetsTheEventRaisedLastWhenItsServerIsGone)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(ports({{"fifteen_letters", 2}})));
    EXPECT_TRUE(client_.receive(vlan("fifteen_letters", 7, 1)));
    EXPECT_NE(events().back().event.word[5], 0U) << "a VLAN event's name reaches further than a port event's";
    EXPECT_TRUE(client_.receive(message(0x1B1042)));
    drive(3);
    EXPECT_TRUE(client_.receive(status("IDLA1", 0, 1)));
    EXPECT_EQ(events().back().event.word[5], 0U);
}

TEST_F(IepcsiClient, ReadsNoNameOfAnIndicationBehindItsField)
{
    const std::string name = "0123456789abcdef";
    client_.enter(3);
    EXPECT_TRUE(client_.receive(status(name, 1, 1, "X")));
    EXPECT_TRUE(client_.receive(vlan(name, 7, 1, "X", "fedcba9876543210")));
    EXPECT_TRUE(fake::traced(17, "IEPCSI_ETH_PORT_STATUS_IND: connection_ref =85, procedure_ref=0x21, port_name=" +
                                     name + ", port_adm_state=1, port_oper_state=1, name_space=X"));
    EXPECT_TRUE(fake::traced(17, "IEPCSI_PORT_VLAN_STATUS_IND: connection_ref=85, procedure_ref=0x21, vlan_id=7, "
                                 "vlan_action=1, port_role=2, if_name=fedcba9876543210, port_name=" +
                                     name + ", namespace=X"));
    EXPECT_TRUE(events().empty());
}

TEST_F(IepcsiClient, RaisesNoPortEventWithoutAHandlerANameOrAKnownId)
{
    iepcsi_raise_port_event(PORT_OPER_UP, "IDLA1");
    iepcsi_raise_vlan_event(PORT_VLAN_ADDED, 1, "IDLA1");
    EXPECT_EQ(fake::count_traced(1, "ABN:Event handler is NULL"), 2U);
    client_.enter(3);
    iepcsi_raise_port_event(PORT_OPER_UP, nullptr);
    iepcsi_raise_vlan_event(PORT_VLAN_ADDED, 1, nullptr);
    EXPECT_EQ(fake::count_traced(1, "ABN:Port name is NULL"), 2U);
    for (uint32_t id : {0U, 5U}) {
        iepcsi_raise_port_event(id, "IDLA1");
        EXPECT_TRUE(fake::traced(4, "WARNING:Unknown or unexpected event received, event_id=" + std::to_string(id)));
    }
    for (uint32_t id : {4U, 7U}) {
        iepcsi_raise_vlan_event(id, 1, "IDLA1");
        EXPECT_TRUE(fake::traced(4, "Warning: Unknown vlan event received, event_id=" + std::to_string(id)));
    }
    EXPECT_TRUE(events().empty());
}

TEST_F(IepcsiClient, DeclinesRequestsAndNumbersThatAreNotItsOwn)
{
    for (uint32_t number : {0x1B1040U, 0x1B1043U, 0x1B1046U, 0x1B1048U, 0x1B1050U, 0x1B1063U, 0x1B1069U}) {
        EXPECT_FALSE(client_.receive(message(number).zeros(64))) << number;
    }
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(IepcsiClient, NamesItsStatesAndMessages)
{
    const char *texts[] = {"INIT", "INITIATING", "GET_PORT_CAP", "INITIATED", "FAULTY", "UNKNOWN_STATE"};
    for (uint32_t state = 0; state < 6; ++state) {
        EXPECT_STREQ(iepcsi_client_state_to_string(state), texts[state]);
    }
    EXPECT_STREQ(iepcsi_msg_to_string(0x1B1063), "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ");
    EXPECT_STREQ(iepcsi_msg_to_string(0), "<Unknown>");
}

} // namespace
