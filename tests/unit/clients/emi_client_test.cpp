// The EMI client: its deviations from the pattern, endpoint requests, every message in every state.
#include "clients/emi_client.hpp"

#include "client_test.hpp"

using namespace client_test;

namespace
{

Bytes conn_cfm() { return message(0x1B10C1).n32(1); }
Bytes caps(const std::vector<uint32_t> &ids)
{
    Builder b = message(0x1B10C4);
    b.n32(static_cast<uint32_t>(ids.size()));
    for (uint32_t id : ids) {
        b.n32(id);
    }
    return b;
}

void drive(uint32_t state)
{
    emi_client_init(record_event);
    if (state >= 1) {
        fake::name("endpoint_mgr", SERVER);
        deliver_next(emi_client_dispatch);
    }
    if (state >= 2) {
        fake::dispatch(emi_client_dispatch, SERVER, conn_cfm());
    }
    if (state >= 3) {
        fake::dispatch(emi_client_dispatch, SERVER, caps({1, 2}));
    }
    if (state >= 4) {
        fake::dispatch(emi_client_dispatch, SERVER, message(0x1B10C5).n32(1));
    }
}

const Client EMI = {emi_client_init,
                    emi_client_dispatch,
                    emi_client_state,
                    emi_client_state_to_string,
                    emi_client_forget_all,
                    drive,
                    5,
                    {EMI_MESSAGES(CLIENT_TEST_NUMBER)}};

class EmiClient : public ClientTest
{
protected:
    EmiClient() : ClientTest(EMI) {}
};

TEST_F(EmiClient, LooksForItsServerMonitorsItAndAsksForAConnection)
{
    emi_client_init(record_event);
    EXPECT_EQ(fake::calls(), (std::vector<std::string>{"itc_locate_async(endpoint_mgr,65537)"}));
    fake::name("endpoint_mgr", SERVER);
    EXPECT_EQ(deliver_next(emi_client_dispatch), Bytes(Builder().u32(0x1B0CE5).n32(1).zeros(4)));
    ASSERT_EQ(fake::monitors().size(), 1U);
    EXPECT_EQ(fake::monitors()[0].bytes, Bytes(Builder().u32(0x1B0CE4).n32(2).zeros(4)));
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B10C0).hex("00000003 0000012c 00000001 00000001")));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {17, "EMI_SERVER_UP"},
                  {18, "EMI_CONN_ESTABLISH_REQ: connection_ref=300, procedure_ref=0x3, num_pvs=1, pv[0]=1"}}));
}

TEST_F(EmiClient, RefusesToStartWithoutAHandlerOrAMailbox)
{
    emi_client_init(nullptr);
    EXPECT_TRUE(fake::traced(1, "CB event is NULL"));
    fake::set_current_mbox(ITC_NO_MBOX);
    emi_client_init(record_event);
    EXPECT_TRUE(fake::traced(1, "Own mailbox is 0!"));
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(emi_client_state(), 0U);
}

TEST_F(EmiClient, AsksForCapabilitiesAndPrintsTheNewConnectionRef)
{
    client_.enter(1);
    EXPECT_TRUE(client_.receive(message(0x1B10C1, 3, 0xABCD).n32(1)));
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B10C3).hex("00000004 0000abcd")));
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{
                                  {17, "EMI_CONN_ESTABLISH_CFM: connection_ref=43981, procedure_ref=3, selected_pv=1"},
                                  {18, "EMI_GET_CAPABILITY_REQ: connection_ref=43981, procedure_ref=0x4, "}}));
}

TEST_F(EmiClient, KeepsTheConnectionRefOfAConfirmInTheWrongState)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B10C1, 3, 0x77).n32(1)));
    EXPECT_EQ(emi_client_state(), 4U);
    emi_add_endpoint(nullptr, 0);
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B10C6).hex("00000005 00000077 00000000")));
}

TEST_F(EmiClient, FollowsItsTableInEveryState)
{
    const uint32_t down = EMI_SERVICE_DOWN;
    const uint32_t faulty = EMI_SERVICE_FAULTY;
    // A connection reject forgets what was raised last, so that it is heard in FAULTY too.
    walk(EMI,
         {
             {"EMI_SERVER_UP",
              message(0x1B0CE5),
              {1, 4, 4, 4, 4},
              {{}, {faulty}, {faulty}, {faulty}, {}},
              1,
              "EMI_SERVER_UP received in wrong state, state_=%s",
              {1, 2, 3, 4}},
             {"EMI_SERVER_DOWN",
              message(0x1B0CE4),
              {0, 0, 0, 0, 0},
              {{down}, {down}, {down}, {down}, {down}},
              17,
              "EMI_SERVER_DOWN",
              {0, 1, 2, 3, 4}},
             {"EMI_CONN_ESTABLISH_CFM",
              conn_cfm(),
              {4, 2, 4, 4, 4},
              {{faulty}, {}, {faulty}, {faulty}, {}},
              1,
              "EMI_CONN_ESTABLISH_CFM received in wrong state, state_=%s",
              {0, 2, 3, 4}},
             {"EMI_CONN_ESTABLISH_REJ",
              message(0x1B10C2).n32(2),
              {4, 4, 4, 4, 4},
              {{faulty}, {faulty}, {faulty}, {faulty}, {faulty}},
              17,
              "EMI_CONN_ESTABLISH_REJ: connection_ref=85, procedure_ref=33, reject_reason=EMI_REJ_INVALID_PV",
              {0, 1, 2, 3, 4}},
             {"EMI_GET_CAPABILITY_CFM",
              caps({1, 2}),
              {4, 4, 3, 4, 4},
              {{faulty}, {faulty}, {EMI_SERVICE_UP}, {faulty}, {}},
              1,
              "EMI_GET_CAPABILITY_CFM received in wrong state, state_=%s",
              {0, 1, 3, 4}},
             {"EMI_GET_CAPABILITY_CFM lacking one",
              caps({2}),
              {4, 4, 4, 4, 4},
              {{faulty}, {faulty}, {faulty}, {faulty}, {}},
              1,
              "EMI_GET_CAPABILITY_CFM does not contain needed capabilities",
              {2}},
             {"EMI_GET_CAPABILITY_REJ",
              message(0x1B10C5).n32(1),
              {4, 4, 4, 4, 4},
              {{faulty}, {faulty}, {faulty}, {faulty}, {}},
              1,
              "EMI_GET_CAPABILITY_REJ received",
              {0, 1, 2, 3, 4}},
             {"EMI_ADD_ENDPOINT_CFM",
              message(0x1B10C7),
              {0, 1, 2, 3, 4},
              {{105}, {105}, {105}, {105}, {105}},
              17,
              "EMI_ADD_ENDPOINT_CFM: connection_ref=85, procedure_ref=33",
              {0, 1, 2, 3, 4}},
             {"EMI_ADD_ENDPOINT_REJ",
              message(0x1B10C8).n32(6),
              {0, 1, 2, 3, 4},
              {{106}, {106}, {106}, {106}, {106}},
              17,
              "EMI_ADD_ENDPOINT_REJ: connection_ref=85, procedure_ref=0x21, reason=EMI_REJ_MAX_NUM_ENDPOINTS_REACHED",
              {0, 1, 2, 3, 4}},
             {"EMI_REMOVE_ENDPOINT_CFM",
              message(0x1B10CA),
              {0, 1, 2, 3, 4},
              {{107}, {107}, {107}, {107}, {107}},
              17,
              "EMI_REMOVE_ENDPOINT_CFM: connection_ref=85, procedure_ref=33",
              {0, 1, 2, 3, 4}},
             {"EMI_REMOVE_ENDPOINT_REJ",
              message(0x1B10CB).n32(5),
              {0, 1, 2, 3, 4},
              {{108}, {108}, {108}, {108}, {108}},
              17,
              "EMI_REMOVE_ENDPOINT_REJ: connection_ref=85, procedure_ref=0x21, reason=EMI_REJ_UNKNOWN_PORT_NAME",
              {0, 1, 2, 3, 4}},
         });
}

TEST_F(EmiClient, DropsEveryMessageThatIsTooShort)
{
    shorten(EMI, {{"EMI_SERVER_UP", message(0x1B0CE5), 0},
                  {"EMI_SERVER_DOWN", message(0x1B0CE4), 3},
                  {"EMI_CONN_ESTABLISH_CFM", conn_cfm(), 1},
                  {"EMI_CONN_ESTABLISH_REJ", message(0x1B10C2).n32(1), 1},
                  {"EMI_GET_CAPABILITY_CFM", caps({1, 2}), 2},
                  {"EMI_GET_CAPABILITY_CFM", caps({}), 2},
                  {"EMI_GET_CAPABILITY_REJ", message(0x1B10C5).n32(1), 2},
                  {"EMI_ADD_ENDPOINT_CFM", message(0x1B10C7), 3},
                  {"EMI_ADD_ENDPOINT_REJ", message(0x1B10C8).n32(1), 3},
                  {"EMI_REMOVE_ENDPOINT_CFM", message(0x1B10CA), 3},
                  {"EMI_REMOVE_ENDPOINT_REJ", message(0x1B10CB).n32(1), 3}});
}

TEST_F(EmiClient, NeedsTwoCapabilitiesInAnyOrder)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(caps({2, 7, 1})));
    EXPECT_EQ(emi_client_state(), 3U);
    ASSERT_EQ(raised(), (std::vector<uint32_t>{EMI_SERVICE_UP}));
    EXPECT_EQ(events()[0].state, 3U);
    EXPECT_TRUE(fake::traced(17, "EMI_GET_CAPABILITY_CFM: connection_ref=85, procedure_ref=0x21, num_caps=3"));
    for (const std::vector<uint32_t> &list : {std::vector<uint32_t>{1}, {2, 2}, {}}) {
        client_.enter(2);
        EXPECT_TRUE(client_.receive(caps(list)));
        EXPECT_EQ(emi_client_state(), 4U);
        EXPECT_EQ(raised(), (std::vector<uint32_t>{EMI_SERVICE_FAULTY}));
        EXPECT_EQ(events()[0].state, 2U);
    }
}

TEST_F(EmiClient, ResetsAtAConnectionRejectButKeepsTheMonitor)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B10C2).n32(1)));
    ASSERT_EQ(events().size(), 1U);
    EXPECT_EQ(events()[0].state, 4U) << "the client is faulty before it says so";
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_EQ(fake::monitors().size(), 1U);
    EXPECT_EQ(emi_add_endpoint(nullptr, 0), 1U);
    const fake::Sent req = fake::take_sent();
    EXPECT_EQ(req.to, ITC_NO_MBOX);
    EXPECT_EQ(req.from, ITC_NO_MBOX);
    EXPECT_EQ(req.bytes, Bytes(Builder().u32(0x1B10C6).hex("00000001 00000000 00000000")));
    // The next fault, raised last as well, is swallowed again.
    EXPECT_TRUE(client_.receive(message(0x1B10C5).n32(1)));
    EXPECT_EQ(events().size(), 1U);
}

TEST_F(EmiClient, RaisesAFaultBeforeItEntersFaultyButAfterACapabilityReject)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B0CE5)));
    ASSERT_EQ(events().size(), 1U);
    EXPECT_EQ(events()[0].state, 3U);
    client_.enter(2);
    EXPECT_TRUE(client_.receive(message(0x1B10C5).n32(1)));
    ASSERT_EQ(events().size(), 1U);
    EXPECT_EQ(events()[0].state, 4U);
}

TEST_F(EmiClient, SwallowsASecondFaultInARow)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B10C5).n32(1)));
    EXPECT_TRUE(client_.receive(caps({1, 2})));
    EXPECT_TRUE(client_.receive(message(0x1B0CE5)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{EMI_SERVICE_FAULTY}));
}

TEST_F(EmiClient, TracesWithEveryRejectItsReason)
{
    const char *texts[] = {"UNKNOWN_REJECT_REASON",
                           "EMI_REJ_INTERNAL_REASON",
                           "EMI_REJ_INVALID_PV",
                           "EMI_REJ_CLIENT_NOT_REGISTERED",
                           "EMI_REJ_ILLEGAL_VLAN_ID",
                           "EMI_REJ_UNKNOWN_PORT_NAME",
                           "EMI_REJ_MAX_NUM_ENDPOINTS_REACHED",
                           "UNKNOWN_REJECT_REASON"};
    ASSERT_EQ(std::size(texts), 2 + CLIENT_TEST_ENTRIES(EMI_REJECT_REASONS));
    for (uint32_t reason = 0; reason < std::size(texts); ++reason) {
        client_.enter(3);
        EXPECT_TRUE(client_.receive(message(0x1B10C8).n32(reason)));
        EXPECT_TRUE(client_.receive(message(0x1B10CB).n32(reason)));
        EXPECT_TRUE(client_.receive(message(0x1B10C5).n32(reason)));
        EXPECT_TRUE(client_.receive(message(0x1B10C2).n32(reason)));
        const std::string tail = std::string("reason=") + texts[reason];
        EXPECT_TRUE(fake::traced(17, "EMI_ADD_ENDPOINT_REJ: connection_ref=85, procedure_ref=0x21, " + tail));
        EXPECT_TRUE(fake::traced(17, "EMI_REMOVE_ENDPOINT_REJ: connection_ref=85, procedure_ref=0x21, " + tail));
        EXPECT_TRUE(fake::traced(17, "EMI_GET_CAPABILITY_REJ: connection_ref=85, procedure_ref=0x21, " + tail));
        EXPECT_TRUE(fake::traced(17, "EMI_CONN_ESTABLISH_REJ: connection_ref=85, procedure_ref=33, reject_" + tail));
    }
}

// One endpoint, byte by byte.
Bytes endpoint_bytes(const std::string &name, const char *mac, uint32_t vlan, uint32_t far)
{
    return Builder().text(name, 64).mac(mac).zeros(2).n32(1).n32(vlan).zeros(12).n32(far).zeros(4);
}

EmiEndpoint endpoint(const Bytes &bytes)
{
    EmiEndpoint e;
    EXPECT_EQ(bytes.size(), sizeof e);
    memcpy(&e, bytes.data(), sizeof e);
    return e;
}

TEST_F(EmiClient, KnowsTheFieldsOfAnEndpoint)
{
    const EmiEndpoint e = endpoint(endpoint_bytes("DiPort_A1", "02:00:00:00:00:01", 100, 1));
    EXPECT_STREQ(e.ifName, "DiPort_A1");
    EXPECT_EQ(e.mac.byte[5], 1);
    EXPECT_EQ(from_be32(e.epType), 1U);
    EXPECT_EQ(from_be32(e.vlanId), 100U);
    EXPECT_EQ(from_be32(e.farEnd), 1U);
    EXPECT_EQ(e.flag, 0);
}

TEST_F(EmiClient, SendsEndpointsByteForByte)
{
    client_.enter(3);
    Bytes list;
    std::vector<EmiEndpoint> endpoints;
    for (uint32_t i = 0; i < 3; ++i) {
        const Bytes one = endpoint_bytes("DiPort_A1", "02:00:00:00:00:01", 100 + i, i % 2);
        endpoints.push_back(endpoint(one));
        list.insert(list.end(), one.begin(), one.end());
    }
    EXPECT_EQ(emi_add_endpoint(endpoints.data(), 3), 5U);
    EXPECT_EQ(emi_remove_endpoint(endpoints.data(), 3), 6U);
    Bytes added = Builder().u32(0x1B10C6).hex("00000005 00000055 00000003");
    added.insert(added.end(), list.begin(), list.end());
    const fake::Sent add = fake::take_sent();
    EXPECT_EQ(add.bytes.size(), 316U);
    EXPECT_EQ(add.bytes, added);
    EXPECT_EQ(add.to, SERVER);
    EXPECT_EQ(add.from, fake::OWN_MBOX);
    Bytes removed = Builder().u32(0x1B10C9).hex("00000006 00000055 00000003");
    removed.insert(removed.end(), list.begin(), list.end());
    EXPECT_EQ(fake::take_sent().bytes, removed);
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {18, "EMI_ADD_ENDPOINT_REQ: connection_ref=85, procedure_ref=0x5, num_of_eps=3"},
                  {18, "EMI_REMOVE_ENDPOINT_REQ: connection_ref=85, procedure_ref=0x6, num_of_eps=3"}}));
}

TEST_F(EmiClient, PassesTheAnswersProcedureRefOnBeforeItIsUp)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(message(0x1B10C7, 0x1234)));
    ASSERT_EQ(raised(), (std::vector<uint32_t>{105}));
    EXPECT_EQ(events()[0].event.word[1], 0x1234U);
}

TEST_F(EmiClient, DeclinesRequestsAndNumbersThatAreNotItsOwn)
{
    for (uint32_t number : {0x1B0CE3U, 0x1B0CE6U, 0x1B10C0U, 0x1B10C3U, 0x1B10C6U, 0x1B10C9U, 0x1B10CCU}) {
        EXPECT_FALSE(client_.receive(message(number).zeros(100))) << number;
    }
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(EmiClient, StartsAnewWhenInitialisedInAnyOtherState)
{
    for (uint32_t state = 1; state < 5; ++state) {
        client_.enter(state);
        emi_client_init(record_event);
        EXPECT_EQ(emi_client_state(), 0U);
        EXPECT_TRUE(fake::traced(4, "WARNING: Client in wrong state"));
        EXPECT_EQ(fake::calls(),
                  (std::vector<std::string>{"itc_unmonitor(1)", "itc_locate_async(endpoint_mgr,65537)"}));
        EXPECT_EQ(deliver_next(emi_client_dispatch), Bytes(Builder().u32(0x1B0CE5).n32(1).zeros(4)));
    }
}

TEST_F(EmiClient, RaisesDownOnceForTwoNoticesOfOneDeath)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B0CE4)));
    EXPECT_TRUE(client_.receive(message(0x1B0CE4)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{EMI_SERVICE_DOWN}));
}

TEST_F(EmiClient, SaysThatAResultIsLostWithoutAHandler)
{
    EXPECT_TRUE(client_.receive(message(0x1B10C7)));
    EXPECT_TRUE(fake::traced(1, "Event handler is NULL and that should never happen."));
}

TEST_F(EmiClient, NamesItsStatesAndMessages)
{
    const char *texts[] = {"INIT", "INITIATING", "CONN_ESTABLISHED", "INITIATED", "FAULTY", "UNKNOWN_STATE"};
    for (uint32_t state = 0; state < 6; ++state) {
        EXPECT_STREQ(emi_client_state_to_string(state), texts[state]);
    }
    EXPECT_STREQ(emi_msg_to_string(0x1B10C9), "EMI_REMOVE_ENDPOINT_REQ");
    EXPECT_STREQ(emi_msg_to_string(0), "<Unknown>");
}

} // namespace
