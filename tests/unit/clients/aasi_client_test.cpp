// The automation agent client: discovery through the name service, the paths of the links, every message in every
// state.
#include "clients/aasi_client.hpp"

#include "client_test.hpp"

using namespace client_test;

namespace
{

constexpr uint32_t SID = 4;

Bytes subscribe_rsp(uint32_t sid) { return Builder().u32(0x1900000).u32(sid); }

Bytes service_ind(uint32_t number, uint32_t sid, const std::string &path = "aasi-server")
{
    return Builder().u32(number).u32(sid).u32(SERVER).zeros(8).text(path, path.size() + 1);
}

Bytes added(uint32_t sid = SID) { return service_ind(0x1900001, sid); }
Bytes removed(uint32_t sid = SID) { return service_ind(0x1900002, sid); }
Bytes conn_cfm() { return message(0x1A004C0).n32(1); }

Bytes config_update(const std::vector<uint32_t> &services)
{
    Builder b = message(0x1A004C7);
    b.n32(static_cast<uint32_t>(services.size()));
    for (uint32_t service : services) {
        b.n32(service);
    }
    return b;
}

void drive(uint32_t state)
{
    fake::name("aasi-server", SERVER);
    aasi_client_init(record_event);
    fake::dispatch(aasi_client_dispatch, ITC_NO_MBOX, subscribe_rsp(SID));
    if (state >= 1) {
        fake::dispatch(aasi_client_dispatch, ITC_NO_MBOX, added());
    }
    if (state >= 2) {
        fake::dispatch(aasi_client_dispatch, SERVER, conn_cfm());
    }
    if (state >= 3) {
        fake::dispatch(aasi_client_dispatch, SERVER, conn_cfm());
    }
}

const Client AASI = {
    aasi_client_init,
    aasi_client_dispatch,
    aasi_client_state,
    aasi_client_state_to_string,
    aasi_client_forget_all,
    drive,
    4,
    {AASI_MESSAGES(CLIENT_TEST_NUMBER) NS_SUBSCRIBE_RSP, NS_SERVICE_ADDED_IND, NS_SERVICE_REMOVED_IND}};

class AasiClient : public ClientTest
{
protected:
    AasiClient() : ClientTest(AASI) {}

    void TearDown() override
    {
        free(data_);
        ClientTest::TearDown();
    }

    // Link 1 on "IDL_A1" in VLAN 100 with n app links.
    aasi_path add_path(uint32_t n)
    {
        free(data_);
        data_ = static_cast<IemliLinkData *>(calloc(1, static_cast<size_t>(iemli_link_data_size(n))));
        strcpy(data_->imlPortName, "IDL_A1");
        data_->vlanId = 100;
        data_->farEndCpmMac = {{2, 0, 0, 0, 0, 9}};
        data_->numberOfAppLinks = n;
        for (uint32_t i = 0; i < n; ++i) {
            const auto last = static_cast<uint8_t>(i);
            iemli_app_links(data_)[i] = {{{2, 1, 0, 0, 0, last}}, {{2, 2, 0, 0, 0, last}}};
        }
        return {1, {{2, 0xAA, 0, 0, 0, 1}}, data_};
    }

    IemliLinkData *data_ = nullptr;
};

TEST_F(AasiClient, SubscribesWithTheNameService)
{
    aasi_client_init(record_event);
    EXPECT_EQ(fake::calls(), (std::vector<std::string>{"ns_subscribe(automationagentsi,tn,65537,)"}));
    EXPECT_EQ(aasi_client_state(), 0U);
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(AasiClient, RefusesToStartWithoutAHandler)
{
    aasi_client_init(nullptr);
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{1, "CB event is NULL"}}));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(AasiClient, IsFaultyWithoutAMailbox)
{
    fake::set_current_mbox(ITC_NO_MBOX);
    aasi_client_init(record_event);
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{1, "Own mailbox is 0!"}}));
    EXPECT_EQ(aasi_client_state(), 3U);
    EXPECT_EQ(raised(), (std::vector<uint32_t>{AASI_SERVICE_FAULTY}));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(AasiClient, AsksTheAnnouncedServerForAConnection)
{
    client_.enter(0);
    EXPECT_TRUE(client_.receive(added()));
    EXPECT_EQ(aasi_client_state(), 1U);
    const fake::Sent req = fake::take_sent();
    EXPECT_EQ(req.to, SERVER);
    EXPECT_EQ(req.from, fake::OWN_MBOX);
    EXPECT_EQ(req.bytes, Bytes(Builder().u32(0x1A00440).hex("00000001 000001f4 00000001 00000001")));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {17, "NGNS_SERVICE_ADDED_IND: sid=4, path=aasi-server"},
                  {18, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ: connection_ref = 500, procedure_ref=0x1, "
                       "number_of_revisions=1, protocol_rev[0]=1"}}));
    EXPECT_TRUE(fake::monitors().empty());
}

TEST_F(AasiClient, IsFaultyWhenTheAnnouncedServerIsNotThere)
{
    client_.enter(0);
    EXPECT_TRUE(client_.receive(service_ind(0x1900001, SID, "nowhere")));
    EXPECT_EQ(aasi_client_state(), 3U);
    EXPECT_EQ(raised(), (std::vector<uint32_t>{AASI_SERVICE_FAULTY}));
    EXPECT_TRUE(fake::traced(1, "Automationagentsi server mbox is not found"));
    EXPECT_TRUE(fake::sent().empty());
}

TEST_F(AasiClient, ReadsAPathNoFurtherThanItsMessage)
{
    client_.enter(0);
    fake::name("aasi", SERVER + 1);
    Bytes cut = added();
    cut.resize(20 + 4);
    EXPECT_TRUE(client_.receive(cut));
    EXPECT_EQ(fake::take_sent().to, SERVER + 1);
    client_.enter(0);
    cut.resize(20);
    EXPECT_TRUE(client_.receive(cut));
    EXPECT_TRUE(fake::traced(1, "Automationagentsi server mbox is not found"));
    client_.enter(0);
    EXPECT_TRUE(client_.receive(service_ind(0x1900001, SID, std::string(400, 'p'))));
    EXPECT_TRUE(fake::traced(17, "NGNS_SERVICE_ADDED_IND: sid=4, path=" + std::string(255, 'p')));
}

TEST_F(AasiClient, FollowsItsTableInEveryState)
{
    const uint32_t up = AASI_SERVICE_UP;
    const uint32_t down = AASI_SERVICE_DOWN;
    const uint32_t faulty = AASI_SERVICE_FAULTY;
    const std::vector<uint32_t> same = {0, 1, 2, 3};
    const std::vector<std::vector<uint32_t>> nothing = {{}, {}, {}, {}};
    walk(AASI,
         {
             {"NGNS_SUBSCRIBE_RSP", subscribe_rsp(SID), same, nothing, 17, "NGNS_SUBSCRIBE_RSP: sid=4", {0, 1, 2, 3}},
             {"NGNS_SERVICE_ADDED_IND",
              added(),
              {1, 3, 3, 3},
              {{}, {faulty}, {faulty}, {}},
              1,
              "NGNS_SERVICE_ADDED_IND received in wrong state, state_%s",
              {1, 2, 3}},
             {"NGNS_SERVICE_ADDED_IND of a foreign sid",
              added(9),
              {3, 3, 3, 3},
              {{faulty}, {faulty}, {faulty}, {}},
              5,
              "NGNS_SERVICE_ADDED_IND received with different sid, received sid = 9, stored sid = 4",
              {0, 1, 2, 3}},
             {"NGNS_SERVICE_REMOVED_IND",
              removed(),
              {0, 0, 0, 0},
              {{}, {down}, {down}, {down}},
              17,
              "NGNS_SERVICE_REMOVED_IND: sid=4, path=aasi-server",
              {0, 1, 2, 3}},
             {"NGNS_SERVICE_REMOVED_IND of a foreign sid",
              removed(9),
              same,
              nothing,
              5,
              "NGNS_SERVICE_REMOVED_IND received with different sid, received sid = 9, stored sid = 4",
              {0, 1, 2, 3}},
             {"AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM",
              conn_cfm(),
              {3, 2, 3, 3},
              {{faulty}, {up}, {faulty}, {}},
              1,
              "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM received in wrong state, state_=%s",
              {0, 2, 3}},
             {"AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ",
              message(0x1A004C1).n32(0),
              {3, 3, 3, 3},
              {{faulty}, {faulty}, {faulty}, {}},
              1,
              "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ received",
              {0, 1, 2, 3}},
             {"AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM",
              message(0x1A004C4).n32(1),
              same,
              nothing,
              17,
              "AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM: connection_ref=85, procedure_ref=0x21, link_ref=1",
              {0, 1, 2, 3}},
             {"AUTOMATIONAGENTSI_VORN_PATH_UPDATE_CFM",
              message(0x1A004C5).n32(2),
              same,
              nothing,
              17,
              "AUTOMATIONAGENTSI_VORN_PATH_UPDATE_CFM: connection_ref=85, procedure_ref=0x21, link_ref=2",
              {0, 1, 2, 3}},
             {"AUTOMATIONAGENTSI_VORN_PATH_DELETE_CFM",
              message(0x1A004C6).n32(3),
              same,
              nothing,
              17,
              "AUTOMATIONAGENTSI_VORN_PATH_DELETE_CFM: connection_ref=85, procedure_ref=0x21, link_ref=3",
              {0, 1, 2, 3}},
             {"AUTOMATIONAGENTSI_CONFIG_UPDATE_IND",
              config_update({1}),
              same,
              {{300}, {300}, {300}, {300}},
              17,
              "AUTOMATIONAGENTSI_CONFIG_UPDATE_IND: connection_ref=85, procedure_ref=0x21, number_of_services=1",
              {0, 1, 2, 3}},
         });
}

TEST_F(AasiClient, DropsEveryMessageThatIsTooShort)
{
    Bytes bare_removed = removed();
    bare_removed.resize(20);
    Bytes bare_added = added();
    bare_added.resize(20);
    shorten(AASI, {{"NGNS_SUBSCRIBE_RSP", subscribe_rsp(SID), 0},
                   {"NGNS_SERVICE_ADDED_IND", bare_added, 0},
                   {"NGNS_SERVICE_REMOVED_IND", bare_removed, 2},
                   {"AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM", conn_cfm(), 1},
                   {"AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ", message(0x1A004C1).n32(0), 1},
                   {"AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM", message(0x1A004C4).n32(1), 2},
                   {"AUTOMATIONAGENTSI_VORN_PATH_UPDATE_CFM", message(0x1A004C5).n32(1), 2},
                   {"AUTOMATIONAGENTSI_VORN_PATH_DELETE_CFM", message(0x1A004C6).n32(1), 2},
                   {"AUTOMATIONAGENTSI_CONFIG_UPDATE_IND", config_update({5, 1}), 2}});
}

TEST_F(AasiClient, RaisesDownOnceForTwoRemovalsInARowAndComesUpAgain)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(removed()));
    EXPECT_TRUE(client_.receive(removed()));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{AASI_SERVICE_DOWN}));
    EXPECT_EQ(events()[0].state, 0U);
    EXPECT_TRUE(client_.receive(added()));
    EXPECT_TRUE(client_.receive(conn_cfm()));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{AASI_SERVICE_DOWN, AASI_SERVICE_UP}));
    EXPECT_EQ(events()[1].state, 2U);
    const fake::Sent req = fake::take_sent();
    EXPECT_EQ(req.from, fake::OWN_MBOX) << "the own mailbox is kept";
    EXPECT_EQ(req.bytes, Bytes(Builder().u32(0x1A00440).hex("00000001 000001f4 00000001 00000001")));
}

TEST_F(AasiClient, KeepsTheConnectionRefOfAConfirmInTheWrongState)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(message(0x1A004C0, 3, 0x77).n32(1)));
    EXPECT_EQ(aasi_client_state(), 3U);
    aasi_send_path_info(1, 0, 0, 0, 1);
    EXPECT_EQ(fake::take_sent().bytes,
              Bytes(Builder().u32(0x1A00446).hex("00000002 00000077 00000001 00000000 00000000 00000000 00000001")));
}

TEST_F(AasiClient, TracesTheFieldsOfItsConnectionsConfirm)
{
    client_.enter(1);
    EXPECT_TRUE(client_.receive(message(0x1A004C0, 0x2A, 0x77).n32(3)));
    EXPECT_TRUE(fake::traced(17, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM: connection_ref=119, "
                                 "procedure_ref=0x2a, protocol_rev=3"));
}

TEST_F(AasiClient, TakesTheAnnouncedServerInEveryState)
{
    for (uint32_t state = 1; state < 4; ++state) {
        client_.enter(state);
        fake::name("aasi-server", SERVER + 1);
        EXPECT_TRUE(client_.receive(added()));
        EXPECT_EQ(aasi_client_state(), 3U);
        aasi_send_path_info(1, 0, 0, 0, 1);
        EXPECT_EQ(fake::take_sent().to, SERVER + 1);
    }
}

TEST_F(AasiClient, ComplainsOfItsStateBeforeOfAServerThatIsNotThere)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(service_ind(0x1900001, SID, "nowhere")));
    EXPECT_TRUE(fake::traced(1, "NGNS_SERVICE_ADDED_IND received in wrong state, state_INITIATED"));
    EXPECT_FALSE(fake::traced(1, "Automationagentsi server mbox is not found"));
    EXPECT_EQ(aasi_client_state(), 3U);
}

TEST_F(AasiClient, GoesByTheLatestSubscription)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(subscribe_rsp(9)));
    EXPECT_TRUE(client_.receive(removed(SID)));
    EXPECT_EQ(aasi_client_state(), 2U);
    EXPECT_TRUE(client_.receive(removed(9)));
    EXPECT_EQ(aasi_client_state(), 0U);
}

// The manager may ask for the state, or send, out of its handler.
TEST_F(AasiClient, IsFaultyWhenItSaysSoOnlyAfterAForeignSid)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(added(9)));
    ASSERT_EQ(raised(), (std::vector<uint32_t>{AASI_SERVICE_FAULTY}));
    EXPECT_EQ(events()[0].state, 3U);
    for (const Bytes &fault : {added(), conn_cfm(), Bytes(message(0x1A004C1).n32(0))}) {
        client_.enter(2);
        EXPECT_TRUE(client_.receive(fault));
        ASSERT_EQ(raised(), (std::vector<uint32_t>{AASI_SERVICE_FAULTY}));
        EXPECT_EQ(events()[0].state, 2U);
        EXPECT_EQ(aasi_client_state(), 3U);
    }
}

// With the one reason that there is, and with one that there is not.
TEST_F(AasiClient, UnsubscribesAtAReject)
{
    ASSERT_EQ(CLIENT_TEST_ENTRIES(AASI_REJECT_REASONS), 1U);
    client_.enter(1);
    EXPECT_TRUE(client_.receive(message(0x1A004C1).n32(0)));
    EXPECT_EQ(fake::calls(), (std::vector<std::string>{"ns_unsubscribe(4,65537)"}));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{AASI_SERVICE_FAULTY}));
    EXPECT_EQ(aasi_client_state(), 3U);
    EXPECT_EQ(fake::traces()[0].text, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ: connection_ref=85, "
                                      "procedure_ref=0x21, "
                                      "reason=AUTOMATIONAGENTSI_NO_COMMONLY_SUPPORTED_PROTOCOL_VERSION");
    // Its sid is forgotten, and so is what it raised last.
    EXPECT_TRUE(client_.receive(removed()));
    EXPECT_TRUE(
        fake::traced(5, "NGNS_SERVICE_REMOVED_IND received with different sid, received sid = 4, stored sid = 0"));
    EXPECT_TRUE(client_.receive(message(0x1A004C1).n32(1)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{AASI_SERVICE_FAULTY, AASI_SERVICE_FAULTY}));
    EXPECT_TRUE(fake::traced(17, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ: connection_ref=85, "
                                 "procedure_ref=0x21, reason=UNKNOWN_REJECT_REASON"));
    aasi_send_path_info(1, 2, 3, 4, 1);
    const fake::Sent ind = fake::take_sent();
    EXPECT_EQ(ind.to, ITC_NO_MBOX);
    EXPECT_EQ(ind.from, ITC_NO_MBOX);
}

TEST_F(AasiClient, StartsAnewWhenInitialisedInAnyOtherState)
{
    for (uint32_t state = 1; state < 4; ++state) {
        client_.enter(state);
        aasi_client_init(record_event);
        EXPECT_EQ(aasi_client_state(), 0U);
        EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{4, "WARNING: Client in wrong state"}}));
        EXPECT_EQ(fake::calls(), (std::vector<std::string>{"ns_subscribe(automationagentsi,tn,65537,)"}));
        EXPECT_TRUE(client_.receive(added()));
        EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1A00440).hex("00000001 000001f4 00000001 00000001")));
        EXPECT_TRUE(events().empty());
    }
}

TEST_F(AasiClient, ForgetsAtInitItsServerAndWhatItRaisedLast)
{
    client_.enter(3);
    aasi_client_init(record_event);
    aasi_send_path_info(1, 0, 0, 0, 1);
    const fake::Sent ind = fake::take_sent();
    EXPECT_EQ(ind.to, ITC_NO_MBOX);
    EXPECT_EQ(ind.bytes,
              Bytes(Builder().u32(0x1A00446).hex("00000001 00000000 00000001 00000000 00000000 00000000 00000001")));
    EXPECT_TRUE(client_.receive(added(9)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{AASI_SERVICE_FAULTY}));
}

TEST_F(AasiClient, SendsAPathWithTheLinksDataAndAppLinks)
{
    client_.enter(2);
    const aasi_path path = add_path(2);
    aasi_send_path_create(path);
    aasi_send_path_update(path);
    const std::string fields = "00000001 0000001e 49444c5f4131 00000000000000000000000000000000000000000000000000 00 "
                               "02aa00000001 020000000009 0064 0000 00000002 "
                               "020100000000 020200000000 020100000001 020200000001";
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1A00443).hex("00000002 00000055").hex(fields)));
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1A00444).hex("00000003 00000055").hex(fields)));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {18, "AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ: connection_ref=85, procedure_ref=0x2, link_ref=1, "
                       "port_name=IDL_A1, vlan_id=100, number_of_app_links=2"},
                  {18, "AUTOMATIONAGENTSI_VORN_PATH_UPDATE_REQ: connection_ref=85, procedure_ref=0x3, link_ref=1, "
                       "port_name=IDL_A1, vlan_id=100, number_of_app_links=2"}}));
}

TEST_F(AasiClient, SendsAPathWithoutAppLinksIn72Bytes)
{
    client_.enter(2);
    aasi_send_path_create(add_path(0));
    EXPECT_EQ(fake::take_sent().bytes.size(), 72U);
}

TEST_F(AasiClient, SendsADelete)
{
    client_.enter(2);
    aasi_path path = add_path(1);
    path.link_ref = 7;
    aasi_send_path_delete(path);
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder()
                                                 .u32(0x1A00445)
                                                 .hex("00000002 00000055 00000007")
                                                 .text("IDL_A1", 32)
                                                 .hex("02aa00000001 020000000009 0064 0000")));
    EXPECT_TRUE(fake::traced(18, "AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ: connection_ref=85, procedure_ref=0x2, "
                                 "link_ref=7, port_name=IDL_A1, vlan_id=100"));
}

TEST_F(AasiClient, ReadsAPortNameNoFurtherThanItsField)
{
    client_.enter(2);
    const aasi_path path = add_path(1);
    memset(data_->imlPortName, 'p', sizeof data_->imlPortName);
    const Bytes name = Builder().text(std::string(17, 'p'), 32);
    aasi_send_path_update(path);
    const Bytes update = fake::take_sent().bytes;
    EXPECT_EQ(Bytes(update.begin() + 20, update.begin() + 52), name);
    aasi_send_path_delete(path);
    const Bytes remove = fake::take_sent().bytes;
    EXPECT_EQ(Bytes(remove.begin() + 16, remove.begin() + 48), name);
}

TEST_F(AasiClient, SendsPathInfo)
{
    client_.enter(2);
    aasi_send_path_info(7, 1000, 3000, 2000, 1);
    EXPECT_EQ(fake::take_sent().bytes,
              Bytes(Builder().u32(0x1A00446).hex("00000002 00000055 00000007 000003e8 00000bb8 000007d0 00000001")));
    EXPECT_TRUE(fake::traced(18, "AUTOMATIONAGENTSI_VORN_PATH_INFO_IND: connection_ref=85, procedure_ref=0x2, "
                                 "link_ref=7, minLatency=1000, maxLatency=3000, avgLatency=2000, link_status=1"));
}

TEST_F(AasiClient, SaysOnceThatPathsAreWantedWhenAConfigUpdateNamesThem)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(config_update({5, 1, 1})));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{300}));
    EXPECT_TRUE(client_.receive(config_update({5, 2})));
    EXPECT_TRUE(client_.receive(config_update({})));
    EXPECT_EQ(raised().size(), 1U);
    EXPECT_TRUE(client_.receive(config_update({1})));
    EXPECT_EQ(raised().size(), 2U) << "however often";
    EXPECT_TRUE(fake::sent().empty());
}

TEST_F(AasiClient, DeclinesRequestsAndNumbersThatAreNotItsOwn)
{
    for (uint32_t number : {0x18FFFFFU, 0x1900003U, 0x1A00440U, 0x1A00443U, 0x1A00446U, 0x1A004C2U, 0x1A004C8U}) {
        EXPECT_FALSE(client_.receive(message(number).zeros(80))) << number;
    }
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(AasiClient, SaysThatAnEventIsLostWithoutAHandler)
{
    EXPECT_TRUE(client_.receive(added(9)));
    EXPECT_TRUE(fake::traced(1, "Event handler is NULL and that should never happen."));
    EXPECT_EQ(aasi_client_state(), 3U);
}

TEST_F(AasiClient, NamesItsStatesAndMessages)
{
    const char *texts[] = {"INIT", "INITIATING", "INITIATED", "FAULTY", "UNKNOWN_STATE"};
    for (uint32_t state = 0; state < 5; ++state) {
        EXPECT_STREQ(aasi_client_state_to_string(state), texts[state]);
    }
    EXPECT_STREQ(aasi_msg_to_string(0x1A00446), "AUTOMATIONAGENTSI_VORN_PATH_INFO_IND");
    EXPECT_STREQ(aasi_msg_to_string(0), "<Unknown>");
}

} // namespace
