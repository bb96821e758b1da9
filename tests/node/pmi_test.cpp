// The port management server, and on its example what the core does for every service: connections, faults, answers
// that are late, clients that die.
#include "pmi.hpp"
#include "support.hpp"

namespace kap_node
{
namespace
{

const bytes CONNECT = message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 01  00 00 00 01");
const bytes CONNECTED = message_of(0x1B1004, "00 00 00 02  00 00 00 01  00 00 00 01");
const bytes ENABLE = message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLA1' 0*11  00 00 00 64");
const bytes ENABLED = message_of(0x1B100A, "00 00 00 07  00 00 00 01");
const bytes DISABLE = message_of(0x1B100C, "00 00 00 08  00 00 00 01  'IDLA1' 0*11  00 00 00 64");
const bytes DISABLED = message_of(0x1B100D, "00 00 00 08  00 00 00 01");

class Pmi : public ServiceTest<pmi_service>
{
protected:
    void SetUp() override { make(); }
    void make() { tested = std::make_unique<pmi_service>(config, out); }
    void connect()
    {
        receive(CONNECT);
        expect_answer(CONNECTED);
    }
    json vlans() { return tested->show()["vlans"]; }
};

TEST_F(Pmi, AcceptsAVersionItKnowsAndGivesOutAReferenceOfItsOwn)
{
    receive(CONNECT);
    expect_answer(CONNECTED);
    EXPECT_EQ(out.watched, std::vector<mailbox>{CLIENT});
    EXPECT_EQ(tested->show()["clients"],
              json::parse(R"([{"mailbox": 77, "connection_ref": 1, "proposed_ref": 200, "requests": 0}])"));
}

TEST_F(Pmi, NeverGivesOutTheReferenceThatWasProposed)
{
    receive(message_of(0x1B1003, "00 00 00 02  00 00 00 01  00 00 00 01  00 00 00 01"));
    expect_answer(message_of(0x1B1004, "00 00 00 02  00 00 00 02  00 00 00 01"));
}

TEST_F(Pmi, FindsItsVersionAmongThoseOffered)
{
    receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 03  00 00 00 09 00 00 00 04 00 00 00 01"));
    expect_answer(CONNECTED);
}

TEST_F(Pmi, RejectsAConnectionThatOffersNoVersionItKnows)
{
    receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 01  00 00 00 02"));
    expect_answer(message_of(0x1B1005, "00 00 00 02  00 00 00 C8  00 00 00 01"));
    EXPECT_TRUE(tested->show()["clients"].empty());
    EXPECT_TRUE(out.watched.empty());
}

TEST_F(Pmi, RejectsAConnectionThatOffersNothing)
{
    receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 00"));
    expect_answer(message_of(0x1B1005, "00 00 00 02  00 00 00 C8  00 00 00 01"));
}

TEST_F(Pmi, RejectsACountOfVersionsThatTheMessageDoesNotHold)
{
    receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  40 00 00 01  00 00 00 01"));
    expect_answer(message_of(0x1B1005, "00 00 00 02  00 00 00 C8  00 00 00 00"));
}

TEST_F(Pmi, ListsItsCapabilities)
{
    connect();
    receive(message_of(0x1B1006, "00 00 00 03  00 00 00 01"));
    expect_answer(message_of(0x1B1007, "00 00 00 03  00 00 00 01  00 00 00 02  00 00 00 01 00 00 00 02"));
}

TEST_F(Pmi, OpensAndClosesAVlan)
{
    connect();
    receive(ENABLE);
    expect_answer(ENABLED);
    EXPECT_EQ(vlans(), json::parse(R"([{"port": "IDLA1", "vlan_id": 100, "users": 1}])"));
    receive(DISABLE);
    expect_answer(DISABLED);
    EXPECT_EQ(vlans(), json::array());
}

TEST_F(Pmi, KeepsAVlanOpenUntilItsLastUserLeaves)
{
    connect();
    receive(ENABLE);
    receive(ENABLE);
    receive(DISABLE);
    EXPECT_EQ(vlans(), json::parse(R"([{"port": "IDLA1", "vlan_id": 100, "users": 1}])"));
    receive(DISABLE);
    EXPECT_EQ(vlans(), json::array());
    out.take();
    receive(DISABLE);
    expect_answer(message_of(0x1B100E, "00 00 00 08  00 00 00 01  00 00 00 04"));
}

TEST_F(Pmi, RejectsAPortItDoesNotKnow)
{
    connect();
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLC1' 0*11  00 00 00 64"));
    expect_answer(message_of(0x1B100B, "00 00 00 07  00 00 00 01  00 00 00 02"));
}

TEST_F(Pmi, RejectsAPortNameWithoutAnEnd)
{
    connect();
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLA1IDLA1IDLA1I'  00 00 00 64"));
    expect_answer(message_of(0x1B100B, "00 00 00 07  00 00 00 01  00 00 00 02"));
}

TEST_F(Pmi, TakesTheHighestVlanAndRejectsTheNextAndZero)
{
    connect();
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLA1' 0*11  00 00 0F FE"));
    expect_answer(ENABLED);
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLA1' 0*11  00 00 0F FF"));
    expect_answer(message_of(0x1B100B, "00 00 00 07  00 00 00 01  00 00 00 02"));
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLA1' 0*11  00 00 00 00"));
    expect_answer(message_of(0x1B100B, "00 00 00 07  00 00 00 01  00 00 00 02"));
}

TEST_F(Pmi, RejectsARequestOfAConnectionItDoesNotKnow)
{
    connect();
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 C8  'IDLA1' 0*11  00 00 00 64"));
    expect_answer(message_of(0x1B100B, "00 00 00 07  00 00 00 C8  00 00 00 04"));
    EXPECT_EQ(tested->show()["counters"]["unknown_connection"], 1);
    EXPECT_EQ(vlans(), json::array());
}

TEST_F(Pmi, RejectsARequestInTheNameOfAnotherClient)
{
    connect();
    receive(ENABLE, OTHER_CLIENT);
    expect_answer(message_of(0x1B100B, "00 00 00 07  00 00 00 01  00 00 00 04"), OTHER_CLIENT);
}

TEST_F(Pmi, RefusesEveryTruncationOfEveryRequest)
{
    connect();
    const auto all = [&] { return vlans(); };
    expect_truncations_refused(ENABLE, 32, 0x1B100B, 0, all);
    expect_truncations_refused(DISABLE, 32, 0x1B100E, 0, all);
    expect_truncations_refused(CONNECT, 20, 0x1B1005, 0, [&] { return tested->show()["clients"]; });
    expect_truncations_refused(message_of(0x1B1006, "00 00 00 03  00 00 00 01"), 12, 0x1B1008, 0, all);
}

TEST_F(Pmi, CountsAndDropsMessagesItDoesNotKnow)
{
    connect();
    receive(message_of(0x1B100F, "00 00 00 07  00 00 00 01"));
    receive(ENABLED);
    EXPECT_TRUE(out.take().empty());
    EXPECT_EQ(tested->show()["counters"]["unknown_number"], 2);
}

TEST_F(Pmi, ServesSeveralClientsAndSharesVlansBetweenThem)
{
    for (mailbox each = 100; each < 108; ++each) {
        receive(CONNECT, each);
    }
    EXPECT_EQ(tested->show()["clients"].size(), 8u);
    out.take();
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLA1' 0*11  00 00 00 64"), 100);
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 08  'IDLA1' 0*11  00 00 00 64"), 107);
    EXPECT_EQ(out.take(), (std::vector<sent_message>{{100, message_of(0x1B100A, "00 00 00 07  00 00 00 01")},
                                                     {107, message_of(0x1B100A, "00 00 00 07  00 00 00 08")}}));
    EXPECT_EQ(vlans()[0]["users"], 2);
}

TEST_F(Pmi, RefusesOneClientMoreThanItHasRoomForButNotOneThatConnectsAgain)
{
    config.max_clients = 1;
    make();
    connect();
    receive(CONNECT, OTHER_CLIENT);
    expect_answer(message_of(0x1B1005, "00 00 00 02  00 00 00 C8  00 00 00 04"), OTHER_CLIENT);
    receive(CONNECT);
    expect_answer(message_of(0x1B1004, "00 00 00 02  00 00 00 02  00 00 00 01"));
    EXPECT_EQ(out.watched, std::vector<mailbox>{CLIENT});
}

TEST_F(Pmi, ForgetsAClientThatDiesAndKeepsWhatItAskedFor)
{
    connect();
    receive(ENABLE);
    out.take();
    tested->client_gone(CLIENT);
    EXPECT_EQ(tested->show()["clients"], json::array());
    EXPECT_EQ(tested->show()["counters"]["clients_lost"], 1);
    EXPECT_EQ(vlans()[0]["users"], 1);
    receive(ENABLE);
    expect_answer(message_of(0x1B100B, "00 00 00 07  00 00 00 01  00 00 00 04"));
}

TEST_F(Pmi, TheDeathOfAStrangerChangesNothing)
{
    connect();
    tested->client_gone(OTHER_CLIENT);
    EXPECT_EQ(tested->show()["counters"]["clients_lost"], 0);
    EXPECT_EQ(tested->show()["clients"].size(), 1u);
}

// ---- Faults --------------------------------------------------------------------------------------------------------

TEST_F(Pmi, RejectsTheNextRequestsAsItWasToldAndThenNoMore)
{
    connect();
    tested->control({"fault", "reject", "PMI_ENABLE_PORT_VLAN_REQ", "2", "3"});
    const bytes refused = message_of(0x1B100B, "00 00 00 07  00 00 00 01  00 00 00 03");
    receive(ENABLE);
    expect_answer(refused);
    receive(ENABLE);
    expect_answer(refused);
    EXPECT_EQ(vlans(), json::array());
    receive(ENABLE);
    expect_answer(ENABLED);
}

TEST_F(Pmi, AFaultOfOneRequestLeavesTheOthersAlone)
{
    connect();
    tested->control({"fault", "reject", "PMI_DISABLE_PORT_VLAN_REQ", "1", "PMI_REJ_INVALID_PORTSTATE"});
    receive(ENABLE);
    expect_answer(ENABLED);
    receive(DISABLE);
    expect_answer(message_of(0x1B100E, "00 00 00 08  00 00 00 01  00 00 00 03"));
}

TEST_F(Pmi, RejectsAConnectionAsItWasTold)
{
    tested->control({"fault", "reject", "PMI_CONN_ESTABLISH_REQ", "1", "0"});
    receive(CONNECT);
    expect_answer(message_of(0x1B1005, "00 00 00 02  00 00 00 C8  00 00 00 00"));
    receive(CONNECT);
    expect_answer(CONNECTED);
}

TEST_F(Pmi, AnswersLateByExactlyTheTimeItWasTold)
{
    connect();
    tested->control({"fault", "delay", "PMI_ENABLE_PORT_VLAN_REQ", "1", "250"});
    receive(ENABLE);
    EXPECT_TRUE(out.take().empty());
    EXPECT_EQ(tested->show()["waiting_answers"], 1);
    EXPECT_EQ(tested->next_deadline(), std::optional<millis>(1250));
    tested->tick(1249);
    EXPECT_TRUE(out.take().empty());
    tested->tick(1250);
    expect_answer(ENABLED);
    EXPECT_EQ(tested->next_deadline(), std::nullopt);
}

TEST_F(Pmi, AnAnswerThatWaitsIsDroppedWhenItsClientDies)
{
    connect();
    tested->control({"fault", "delay", "any", "1", "250"});
    receive(ENABLE);
    tested->client_gone(CLIENT);
    tested->tick(5000);
    EXPECT_TRUE(out.take().empty());
    EXPECT_EQ(vlans()[0]["users"], 1);
}

TEST_F(Pmi, KeepsSilentAndDoesNothingAsItWasTold)
{
    connect();
    tested->control({"fault", "silent", "any", "1"});
    receive(ENABLE);
    EXPECT_TRUE(out.take().empty());
    EXPECT_EQ(vlans(), json::array());
    EXPECT_EQ(tested->show()["counters"]["kept_silent"], 1);
    receive(ENABLE);
    expect_answer(ENABLED);
}

TEST_F(Pmi, SendsAMessageNobodyAskedForToEveryClient)
{
    connect();
    receive(CONNECT, OTHER_CLIENT);
    out.take();
    tested->control({"fault", "unsolicited", "PMI_ENABLE_PORT_VLAN_CFM"});
    EXPECT_EQ(out.take(),
              (std::vector<sent_message>{{CLIENT, message_of(0x1B100A, "00 00 00 00  00 00 00 01")},
                                         {OTHER_CLIENT, message_of(0x1B100A, "00 00 00 00  00 00 00 02")}}));
    tested->control({"fault", "unsolicited", "PMI_GET_CAPABILITY_CFM"});
    EXPECT_EQ(out.take()[0].data, message_of(0x1B1007, "00 00 00 00  00 00 00 01  00 00 00 00"));
}

TEST_F(Pmi, SendsTheBytesItIsGivenAlsoToOneWhoIsNotConnected)
{
    connect();
    tested->control({"fault", "unsolicited", "PMI_CONN_ESTABLISH_CFM", "0102fF"});
    expect_answer(message_of(0x1B1004, "01 02 FF"));
    out.names["kap-vorn"] = 5;
    tested->control({"fault", "unsolicited", "PMI_CONN_ESTABLISH_CFM", "01", "kap-vorn"});
    expect_answer(message_of(0x1B1004, "01"), 5);
}

TEST_F(Pmi, ShowsItsFaultsAndForgetsThemWhenTold)
{
    tested->control({"fault", "reject", "PMI_ENABLE_PORT_VLAN_REQ", "2", "3"});
    tested->control({"fault", "silent", "any", "1"});
    EXPECT_EQ(tested->show()["faults"], json::parse(R"([
        {"kind": "reject", "request": "PMI_ENABLE_PORT_VLAN_REQ", "left": 2, "value": 3},
        {"kind": "silent", "request": "any", "left": 1, "value": 0}])"));
    EXPECT_EQ(tested->control({"fault", "clear"}), json::array());
}

TEST_F(Pmi, RefusesCommandsThatMakeNoSenseAndChangesNothing)
{
    connect();
    const json before = tested->show();
    const std::vector<arguments> senseless = {
        {},
        {"shout"},
        {"show", "all"},
        {"die", "now"},
        {"fault"},
        {"fault", "clear", "all"},
        {"fault", "break", "any", "1"},
        {"fault", "reject", "any", "1"},
        {"fault", "reject", "PMI_ENABLE_PORT_VLAN_CFM", "1", "0"},
        {"fault", "reject", "any", "-1", "0"},
        {"fault", "reject", "any", "", "0"},
        {"fault", "reject", "any", "1", "PMI_REJ_BAD_MOOD"},
        {"fault", "reject", "any", "1", "4294967296"},
        {"fault", "delay", "any", "1", "soon"},
        {"fault", "silent", "any", "1", "2"},
        {"fault", "unsolicited"},
        {"fault", "unsolicited", "PMI_ENABLE_PORT_VLAN_REQ"},
        {"fault", "unsolicited", "PMI_ENABLE_PORT_VLAN_CFM", "0"},
        {"fault", "unsolicited", "PMI_ENABLE_PORT_VLAN_CFM", "0g"},
        {"fault", "unsolicited", "PMI_ENABLE_PORT_VLAN_CFM", "00", "nobody"},
    };
    for (const arguments &words : senseless) {
        EXPECT_THROW(tested->control(words), command_error) << json(words);
    }
    EXPECT_EQ(tested->show(), before);
    EXPECT_TRUE(out.take().empty());
}

TEST_F(Pmi, DiesWhenTold)
{
    EXPECT_FALSE(tested->dying());
    EXPECT_EQ(tested->control({"die"}), json(nullptr));
    EXPECT_TRUE(tested->dying());
}

TEST_F(Pmi, ShowsItsWholeStateInAFixedShape)
{
    connect();
    receive(ENABLE);
    EXPECT_EQ(tested->control({"show"}), json::parse(R"({
        "service": "pmi",
        "mailbox": "pmi-server",
        "clients": [{"mailbox": 77, "connection_ref": 1, "proposed_ref": 200, "requests": 1}],
        "counters": {
            "received": {"PMI_CONN_ESTABLISH_REQ": 1, "PMI_GET_CAPABILITY_REQ": 0,
                         "PMI_ENABLE_PORT_VLAN_REQ": 1, "PMI_DISABLE_PORT_VLAN_REQ": 0},
            "confirmed": 2, "rejected": 0, "kept_silent": 0, "too_short": 0, "unknown_number": 0,
            "unknown_connection": 0, "clients_lost": 0},
        "faults": [],
        "waiting_answers": 0,
        "ports": ["IDLA1", "TNA"],
        "vlans": [{"port": "IDLA1", "vlan_id": 100, "users": 1}]
    })"));
}

} // namespace
} // namespace kap_node
