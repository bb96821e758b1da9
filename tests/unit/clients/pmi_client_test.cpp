// The PMI client, the model of the pattern: set-up, VLAN requests, every message in every state.
#include "clients/pmi_client.hpp"

#include "client_test.hpp"

using namespace client_test;

namespace
{

Bytes conn_cfm() { return message(0x1B1004).n32(1); }
Bytes caps() { return message(0x1B1007).n32(0); }

void drive(uint32_t state)
{
    pmi_client_init(record_event);
    if (state >= 1) {
        fake::name("pmi-server", SERVER);
        deliver_next(pmi_client_dispatch);
    }
    if (state >= 2) {
        fake::dispatch(pmi_client_dispatch, SERVER, conn_cfm());
    }
    if (state >= 3) {
        fake::dispatch(pmi_client_dispatch, SERVER, caps());
    }
    if (state >= 4) {
        fake::dispatch(pmi_client_dispatch, SERVER, message(0x1B1008).n32(0));
    }
}

const Client PMI = {pmi_client_init,
                    pmi_client_dispatch,
                    pmi_client_state,
                    pmi_client_state_to_string,
                    pmi_client_forget_all,
                    drive,
                    5,
                    {PMI_MESSAGES(CLIENT_TEST_NUMBER)}};

class PmiClient : public ClientTest
{
protected:
    PmiClient() : ClientTest(PMI) {}
};

TEST_F(PmiClient, LooksForItsServerByName)
{
    pmi_client_init(record_event);
    EXPECT_EQ(fake::calls(), (std::vector<std::string>{"itc_locate_async(pmi-server,65537)"}));
    EXPECT_EQ(pmi_client_state(), 0U);
    EXPECT_TRUE(fake::traces().empty());
    fake::name("pmi-server", SERVER);
    // The locate message carries the first procedure_ref.
    EXPECT_EQ(deliver_next(pmi_client_dispatch), Bytes(Builder().u32(0x1B1001).n32(1).zeros(4)));
}

TEST_F(PmiClient, RefusesToStartWithoutAHandler)
{
    pmi_client_init(nullptr);
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{1, "CB event is NULL"}}));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(PmiClient, StaysInInitWithoutAMailbox)
{
    fake::set_current_mbox(ITC_NO_MBOX);
    pmi_client_init(record_event);
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{1, "Own mailbox is 0!"}}));
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_EQ(pmi_client_state(), 0U);
    EXPECT_TRUE(events().empty());
}

TEST_F(PmiClient, MonitorsItsServerAndAsksForAConnection)
{
    client_.enter(0);
    fake::name("pmi-server", SERVER);
    deliver_next(pmi_client_dispatch);
    EXPECT_EQ(pmi_client_state(), 1U);
    ASSERT_EQ(fake::monitors().size(), 1U);
    EXPECT_EQ(fake::monitors()[0].mbox, SERVER);
    EXPECT_EQ(fake::monitors()[0].bytes, Bytes(Builder().u32(0x1B1002).n32(2).zeros(4)));
    const fake::Sent req = fake::take_sent();
    EXPECT_EQ(req.to, SERVER);
    EXPECT_EQ(req.from, fake::OWN_MBOX);
    EXPECT_EQ(req.bytes, Bytes(Builder().u32(0x1B1003).hex("00000003 000000c8 00000001 00000001")));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {17, "PMI_SERVER_UP_IND: connection_ref=0, procedure_ref=1"},
                  {18, "PMI_CONN_ESTABLISH_REQ: connection_ref =200, procedure_ref=0x3, num_pvs=1, pv[0]=1"}}));
}

TEST_F(PmiClient, AsksForCapabilitiesWithTheServersConnectionRef)
{
    client_.enter(1);
    EXPECT_TRUE(client_.receive(message(0x1B1004, 3, 0xABCD).n32(1)));
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B1006).hex("00000004 0000abcd")));
    // The confirm's trace prints the connection_ref kept so far.
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{
                                  {17, "PMI_CONN_ESTABLISH_CFM: connection_ref =0, procedure_ref=0x3, pv_selected=1"},
                                  {18, "PMI_GET_CAPABILITY_REQ:proc_ref: 4, conn_ref: 43981"}}));
}

TEST_F(PmiClient, IsUpWithAnyCapabilityList)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(message(0x1B1007, 4).n32(9)));
    ASSERT_EQ(raised(), (std::vector<uint32_t>{PMI_SERVICE_UP}));
    EXPECT_EQ(events()[0].state, 3U) << "the client is initiated before it says so";
    EXPECT_EQ(events()[0].event.type, SERVICE_EVENT);
    for (int word = 1; word < 6; ++word) {
        EXPECT_EQ(events()[0].event.word[word], 0U);
    }
    EXPECT_TRUE(fake::traced(17, "PMI_GET_CAPABILITY_CFM: connection_ref =85, procedure_ref=0x4, num_caps=9"));
}

TEST_F(PmiClient, FollowsItsTableInEveryState)
{
    const uint32_t down = PMI_SERVICE_DOWN;
    const uint32_t faulty = PMI_SERVICE_FAULTY;
    walk(PMI, {
                  {"PMI_SERVER_UP_IND",
                   message(0x1B1001),
                   {1, 4, 4, 4, 4},
                   {{}, {faulty}, {faulty}, {faulty}, {}},
                   1,
                   "PMI_SERVER_UP_IND received in wrong state, state_=%s",
                   {1, 2, 3, 4}},
                  {"PMI_SERVER_DOWN_IND",
                   message(0x1B1002),
                   {0, 0, 0, 0, 0},
                   {{down}, {down}, {down}, {down}, {down}},
                   17,
                   "PMI_SERVER_DOWN_IND: connection_ref=85, procedure_ref=33",
                   {0, 1, 2, 3, 4}},
                  {"PMI_CONN_ESTABLISH_CFM",
                   conn_cfm(),
                   {4, 2, 4, 4, 4},
                   {{faulty}, {}, {faulty}, {faulty}, {}},
                   1,
                   "PMI_CONN_ESTABLISH_CFM received in wrong state, state_=%s",
                   {0, 2, 3, 4}},
                  {"PMI_CONN_ESTABLISH_REJ",
                   message(0x1B1005).n32(1),
                   {4, 4, 4, 4, 4},
                   {{faulty}, {faulty}, {faulty}, {faulty}, {}},
                   1,
                   "PMI_CONN_ESTABLISH_REJ received",
                   {0, 1, 2, 3, 4}},
                  {"PMI_GET_CAPABILITY_CFM",
                   caps(),
                   {4, 4, 3, 4, 4},
                   {{faulty}, {faulty}, {PMI_SERVICE_UP}, {faulty}, {}},
                   1,
                   "PMI_GET_CAPABILITY_CFM received in wrong state, state_=%s",
                   {0, 1, 3, 4}},
                  {"PMI_GET_CAPABILITY_REJ",
                   message(0x1B1008).n32(4),
                   {4, 4, 4, 4, 4},
                   {{faulty}, {faulty}, {faulty}, {faulty}, {}},
                   17,
                   "PMI_GET_CAPABILITY_REJ: connection_ref =85, procedure_ref=0x21, reason=PMI_REJ_NOT_ALLOWED",
                   {0, 1, 2, 3, 4}},
                  {"PMI_ENABLE_PORT_VLAN_CFM",
                   message(0x1B100A),
                   {0, 1, 2, 3, 4},
                   {{}, {}, {}, {101}, {}},
                   4,
                   "PMI_ENABLE_PORT_VLAN_CFM received in wrong state, state = %s.",
                   {0, 1, 2, 4}},
                  {"PMI_ENABLE_PORT_VLAN_REJ",
                   message(0x1B100B).n32(0),
                   {0, 1, 2, 3, 4},
                   {{}, {}, {}, {102}, {}},
                   4,
                   "PMI_ENABLE_PORT_VLAN_REJ received in wrong state, state = %s.",
                   {0, 1, 2, 4}},
                  {"PMI_DISABLE_PORT_VLAN_CFM",
                   message(0x1B100D),
                   {0, 1, 2, 3, 4},
                   {{}, {}, {}, {103}, {}},
                   4,
                   "PMI_DISABLE_PORT_VLAN_CFM received in wrong state, state = %s.",
                   {0, 1, 2, 4}},
                  {"PMI_DISABLE_PORT_VLAN_REJ",
                   message(0x1B100E).n32(0),
                   {0, 1, 2, 3, 4},
                   {{}, {}, {}, {104}, {}},
                   4,
                   "PMI_DISABLE_PORT_VLAN_REJ received in wrong state, state = %s.",
                   {0, 1, 2, 4}},
              });
}

TEST_F(PmiClient, DropsEveryMessageThatIsTooShort)
{
    shorten(PMI, {{"PMI_SERVER_UP_IND", message(0x1B1001), 0},
                  {"PMI_SERVER_DOWN_IND", message(0x1B1002), 3},
                  {"PMI_CONN_ESTABLISH_CFM", conn_cfm(), 1},
                  {"PMI_CONN_ESTABLISH_REJ", message(0x1B1005).n32(1), 1},
                  {"PMI_GET_CAPABILITY_CFM", caps(), 2},
                  {"PMI_GET_CAPABILITY_REJ", message(0x1B1008).n32(1), 2},
                  {"PMI_ENABLE_PORT_VLAN_CFM", message(0x1B100A), 3},
                  {"PMI_ENABLE_PORT_VLAN_REJ", message(0x1B100B).n32(1), 3},
                  {"PMI_DISABLE_PORT_VLAN_CFM", message(0x1B100D), 3},
                  {"PMI_DISABLE_PORT_VLAN_REJ", message(0x1B100E).n32(1), 3}});
}

TEST_F(PmiClient, RaisesAFaultBeforeItEntersFaultyButAfterACapabilityReject)
{
    client_.enter(1);
    EXPECT_TRUE(client_.receive(message(0x1B1005).n32(1)));
    ASSERT_EQ(events().size(), 1U);
    EXPECT_EQ(events()[0].state, 1U);
    client_.enter(2);
    EXPECT_TRUE(client_.receive(message(0x1B1008).n32(1)));
    ASSERT_EQ(events().size(), 1U);
    EXPECT_EQ(events()[0].state, 4U);
}

TEST_F(PmiClient, TracesWithEveryRejectItsReason)
{
    const std::vector<std::pair<uint32_t, std::string>> reasons = {
        {0, "PMI_REJ_INTERNAL_REASON"},   {1, "PMI_REJ_SERVICE_INVALID_PV"}, {2, "PMI_REJ_INVALID_RESOURCE"},
        {3, "PMI_REJ_INVALID_PORTSTATE"}, {4, "PMI_REJ_NOT_ALLOWED"},        {5, "UNKNOWN_REJECT_REASON"}};
    ASSERT_EQ(reasons.size(), 1 + CLIENT_TEST_ENTRIES(PMI_REJECT_REASONS));
    const std::vector<std::pair<uint32_t, std::string>> rejects = {{0x1B1005, "PMI_CONN_ESTABLISH_REJ"},
                                                                   {0x1B1008, "PMI_GET_CAPABILITY_REJ"},
                                                                   {0x1B100B, "PMI_ENABLE_PORT_VLAN_REJ"},
                                                                   {0x1B100E, "PMI_DISABLE_PORT_VLAN_REJ"}};
    for (const auto &[number, name] : rejects) {
        for (const auto &[value, text] : reasons) {
            client_.enter(3);
            EXPECT_TRUE(client_.receive(message(number, 0x1F, 9).n32(value)));
            EXPECT_TRUE(fake::traced(17, name + ": connection_ref =9, procedure_ref=0x1f, reason=" + text)) << text;
        }
    }
}

TEST_F(PmiClient, SendsEnableWithTheServersNameOfThePort)
{
    client_.enter(3);
    EXPECT_EQ(pmi_enable_port_vlan("IDL_B2", 4094), 5U);
    const fake::Sent req = fake::take_sent();
    EXPECT_EQ(req.to, SERVER);
    EXPECT_EQ(req.bytes,
              Bytes(Builder().u32(0x1B1009).hex("00000005 00000055 49444c4232 00 00000000000000000000 00000ffe")));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{{18, "PMI_ENABLE_PORT_VLAN_REQ: connection_ref =85, procedure_ref=0x5, "
                                             "port_name=IDL_B2, vlan=4094, "}}));
}

TEST_F(PmiClient, SendsDisableWithTheServersNameOfThePort)
{
    client_.enter(3);
    EXPECT_EQ(pmi_disable_port_vlan("IDL_A1", 100), 5U);
    EXPECT_EQ(fake::take_sent().bytes,
              Bytes(Builder().u32(0x1B100C).hex("00000005 00000055 49444c4131 00 00000000000000000000 00000064")));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{{18, "PMI_DISABLE_PORT_VLAN_REQ: connection_ref =85, procedure_ref=0x5, "
                                             "port_name=IDL_A1 vlan=100, "}}));
}

TEST_F(PmiClient, TranslatesTheFourPortsAndWritesNoOtherName)
{
    client_.enter(3);
    const std::vector<std::pair<const char *, const char *>> names = {
        {"IDL_A1", "IDLA1"}, {"IDL_B1", "IDLB1"}, {"IDL_A2", "IDLA2"}, {"IDL_B2", "IDLB2"},
        {"TN_A", ""},        {"IDL_A11", ""},     {"IDLA1", ""},       {"", ""}};
    for (const auto &[given, written] : names) {
        pmi_enable_port_vlan(given, 1);
        const Bytes bytes = fake::take_sent().bytes;
        EXPECT_EQ(Bytes(bytes.begin() + 12, bytes.begin() + 28), Bytes(Builder().text(written, 16))) << given;
    }
}

TEST_F(PmiClient, NumbersRequestsConsecutively)
{
    client_.enter(3);
    const uint32_t first = pmi_enable_port_vlan("IDL_A1", 1);
    EXPECT_EQ(pmi_enable_port_vlan("IDL_A1", 2), first + 1);
    EXPECT_EQ(pmi_disable_port_vlan("IDL_A1", 2), first + 2);
}

TEST_F(PmiClient, PassesTheAnswersProcedureRefOn)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B100A, 0x12345678)));
    EXPECT_TRUE(client_.receive(message(0x1B100A, 0x12345678)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{101, 101})) << "results are never swallowed";
    EXPECT_EQ(events()[0].event.type, PROCEDURE_RESULT_EVENT);
    EXPECT_EQ(events()[0].event.word[1], 0x12345678U);
    EXPECT_TRUE(fake::traced(17, "PMI_ENABLE_PORT_VLAN_CFM: connection_ref =85, procedure_ref=0x12345678, "));
    EXPECT_TRUE(client_.receive(message(0x1B100D, 7)));
    EXPECT_TRUE(fake::traced(17, "PMI_DISABLE_PORT_VLAN_CFM: connection_ref =85, procedure_ref=0x7, "));
}

TEST_F(PmiClient, DropsAnEnableConfirmThatComesBeforeTheCapabilities)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(message(0x1B100A)));
    EXPECT_TRUE(events().empty());
    EXPECT_TRUE(fake::traced(4, "PMI_ENABLE_PORT_VLAN_CFM received in wrong state, state = GET_CAPABILITY."));
}

TEST_F(PmiClient, DeclinesRequestsAndNumbersThatAreNotItsOwn)
{
    for (uint32_t number : {0x1B1000U, 0x1B1003U, 0x1B1006U, 0x1B1009U, 0x1B100CU, 0x1B100FU, 0U}) {
        EXPECT_FALSE(client_.receive(message(number).zeros(20))) << number;
    }
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(PmiClient, RaisesDownOnceForTwoNoticesOfOneDeath)
{
    client_.enter(3);
    fake::kill(SERVER);
    deliver_next(pmi_client_dispatch);
    EXPECT_TRUE(client_.receive(message(0x1B1002)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{PMI_SERVICE_DOWN}));
    EXPECT_EQ(events()[0].state, 0U);
    EXPECT_EQ(fake::calls(), (std::vector<std::string>{"itc_unmonitor(1)", "itc_unmonitor(0)"}));
}

TEST_F(PmiClient, RaisesAFaultAfterADown)
{
    client_.enter(4);
    EXPECT_TRUE(client_.receive(message(0x1B1002)));
    EXPECT_TRUE(client_.receive(message(0x1B1005).n32(0)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{PMI_SERVICE_DOWN, PMI_SERVICE_FAULTY}));
}

TEST_F(PmiClient, IsFaultyAfterASecondLocateAnswerAndAsksForNoSecondConnection)
{
    client_.enter(1);
    EXPECT_TRUE(client_.receive(message(0x1B1001), SERVER + 1));
    EXPECT_EQ(pmi_client_state(), 4U);
    EXPECT_EQ(raised(), (std::vector<uint32_t>{PMI_SERVICE_FAULTY}));
    EXPECT_TRUE(fake::sent().empty());
    ASSERT_EQ(fake::monitors().size(), 1U);
    EXPECT_EQ(fake::monitors()[0].mbox, SERVER) << "the first server stays the one that is watched";
}

TEST_F(PmiClient, IsFaultyAfterACapabilityRejectThatComesWhenItIsUp)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B1008).n32(1)));
    EXPECT_EQ(pmi_client_state(), 4U);
    EXPECT_EQ(raised(), (std::vector<uint32_t>{PMI_SERVICE_FAULTY}));
}

TEST_F(PmiClient, StillHearsOfItsServersDeathWhenFaulty)
{
    client_.enter(4);
    fake::kill(SERVER);
    EXPECT_EQ(deliver_next(pmi_client_dispatch), Bytes(Builder().u32(0x1B1002).n32(2).zeros(4)));
    EXPECT_EQ(pmi_client_state(), 0U);
    EXPECT_EQ(raised(), (std::vector<uint32_t>{PMI_SERVICE_DOWN}));
}

TEST_F(PmiClient, DoesNotLookForItsServerAgain)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B1002)));
    fake::name("pmi-server", SERVER + 1);
    EXPECT_EQ(fake::queued(), 0U);
    EXPECT_TRUE(fake::waiting_names().empty());
    // What is asked for now goes nowhere, and counts from 1 again.
    EXPECT_EQ(pmi_enable_port_vlan("IDL_A1", 1), 1U);
    const fake::Sent req = fake::take_sent();
    EXPECT_EQ(req.to, ITC_NO_MBOX);
    EXPECT_EQ(req.from, ITC_NO_MBOX);
    EXPECT_EQ(req.bytes,
              Bytes(Builder().u32(0x1B1009).hex("00000001 00000000 49444c4131 00 00000000000000000000 00000001")));
}

TEST_F(PmiClient, StartsAnewWhenInitialisedInAnyOtherState)
{
    for (uint32_t state = 1; state < 5; ++state) {
        client_.enter(state);
        pmi_client_init(record_event);
        EXPECT_EQ(pmi_client_state(), 0U);
        EXPECT_TRUE(fake::traced(4, "WARNING: Client in wrong state"));
        ASSERT_EQ(fake::calls().size(), 2U);
        EXPECT_EQ(fake::calls()[0], "itc_unmonitor(1)");
        EXPECT_EQ(fake::calls()[1], "itc_locate_async(pmi-server,65537)");
        EXPECT_EQ(deliver_next(pmi_client_dispatch), Bytes(Builder().u32(0x1B1001).n32(1).zeros(4)));
        EXPECT_TRUE(events().empty());
    }
}

TEST_F(PmiClient, ForgetsAtInitWhatItRaisedLast)
{
    client_.enter(4);
    pmi_client_init(record_event);
    EXPECT_TRUE(client_.receive(message(0x1B1005).n32(0)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{PMI_SERVICE_FAULTY}));
}

TEST_F(PmiClient, SaysThatAnEventIsLostWithoutAHandler)
{
    EXPECT_TRUE(client_.receive(message(0x1B1005).n32(0)));
    EXPECT_EQ(fake::count_traced(1, "Event handler is NULL and that should never happen."), 1U);
    EXPECT_EQ(pmi_client_state(), 4U);
    client_.forget_all();
    fake::traces().clear();
    EXPECT_TRUE(client_.receive(message(0x1B1001)));
    EXPECT_TRUE(client_.receive(conn_cfm()));
    EXPECT_TRUE(client_.receive(caps()));
    EXPECT_TRUE(client_.receive(message(0x1B100A)));
    EXPECT_EQ(fake::count_traced(1, "Event handler is NULL and that should never happen."), 2U);
}

TEST_F(PmiClient, NamesItsStatesAndMessages)
{
    const char *texts[] = {"INIT", "INITIATING", "GET_CAPABILITY", "INITIATED", "FAULTY", "UNKNOWN_STATE"};
    for (uint32_t state = 0; state < 6; ++state) {
        EXPECT_STREQ(pmi_client_state_to_string(state), texts[state]);
    }
    EXPECT_STREQ(pmi_msg_to_string(0x1B100C), "PMI_DISABLE_PORT_VLAN_REQ");
    EXPECT_STREQ(pmi_msg_to_string(0), "<Unknown>");
}

} // namespace
