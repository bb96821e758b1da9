// The Ethernet port control server: its ports, what it reports of them and when.
#include "iepcsi.hpp"
#include "support.hpp"

namespace kap_node
{
namespace
{

const std::string HEAD = "00 00 00 07  00 00 00 01  ";
const std::string ALL_PORTS = "0*16 ";

const bytes CONNECT = message_of(0x1B1043, "00 00 00 02  00 00 00 64  00 00 00 01  00 00 00 01  00 00 00 01");
const bytes LIST_PORTS = message_of(0x1B1048, HEAD);
const bytes SUBSCRIBE_STATUS = message_of(0x1B1050, HEAD + "00 00 00 02  " + ALL_PORTS);
const bytes SUBSCRIBE_VLANS = message_of(0x1B1063, HEAD + "00 00 00 02  " + ALL_PORTS);

constexpr mac IDL_MAC = {0x02, 0, 0, 0, 0, 0xA1};
constexpr mac TN_MAC = {0x02, 0, 0, 0, 0, 0xB1};

// Both ports with carrier, and VLAN 200 on the TN port.
interface_table all_well()
{
    return {{1, {"lo", true, true, {}, 0, false, 0}},
            {2, {"idl_a1", true, true, IDL_MAC, 0, false, 0}},
            {3, {"tn_a", true, true, TN_MAC, 0, false, 0}},
            {4, {"tn_a.200", true, true, TN_MAC, 3, true, 200}}};
}

bytes status(const std::string &adm, const std::string &oper, const std::string &port_field)
{
    return message_of(0x1B1055,
                      "00 00 00 00  00 00 00 01  00 00 00 " + adm + " 00 00 00 " + oper + port_field + "'near' 00");
}

const std::string IDL = "'IDLA1' 0*11 ";
const std::string TN = "'TNA' 0*13 ";

// VLAN 200 on the TN port; `action` 01 added, 02 removed.
bytes vlan_200(const std::string &action)
{
    return message_of(0x1B1068, "00 00 00 00  00 00 00 01  00 C8 0*2  00 00 00 " + action +
                                    " 00 00 00 02  'tn_a.200' 0*8 " + TN + "'near' 00");
}

class Iepcsi : public ServiceTest<iepcsi_service>
{
protected:
    void SetUp() override
    {
        tested = std::make_unique<iepcsi_service>(config, out);
        tested->interfaces_changed("near", all_well());
        receive(CONNECT);
        out.take();
    }
    void subscribe()
    {
        receive(SUBSCRIBE_STATUS);
        receive(SUBSCRIBE_VLANS);
        out.take();
    }
    void expect_sent(const std::vector<bytes> &messages)
    {
        std::vector<sent_message> expected;
        for (const bytes &message : messages) {
            expected.push_back({CLIENT, message});
        }
        EXPECT_EQ(out.take(), expected);
    }
};

TEST_F(Iepcsi, ConnectsWhenOneOfTheThreeWantedVersionsIsItsOwn)
{
    receive(message_of(0x1B1043, "00 00 00 02  00 00 00 64  00 00 00 07  00 00 00 00  00 00 00 01"));
    expect_answer(message_of(0x1B1044, "00 00 00 02  00 00 00 02  00 00 00 01"));
    receive(message_of(0x1B1043, "00 00 00 02  00 00 00 64  00 00 00 07  00 00 00 00  00 00 00 02"));
    expect_answer(message_of(0x1B1045, "00 00 00 02  00 00 00 64  00 00 00 01"));
}

TEST_F(Iepcsi, ListsEveryPortWithItsAddressAndInterface)
{
    receive(LIST_PORTS);
    expect_answer(message_of(0x1B1049, HEAD + "00 00 00 02"
                                              "00 00 00 02 0*4 02 00 00 00 00 A1 'IDLA1' 0*11 'idl_a1' 0*10 0*2 "
                                              "00 00 00 02 0*4 02 00 00 00 00 B1 'TNA' 0*13 'tn_a' 0*12 0*2"));
}

TEST_F(Iepcsi, ASubscriberHearsAtOnceHowAllPortsStand)
{
    receive(SUBSCRIBE_STATUS);
    expect_sent({message_of(0x1B1051, HEAD + "00 00 00 01"), status("01", "01", IDL), status("01", "01", TN)});
    receive(SUBSCRIBE_VLANS);
    expect_sent({message_of(0x1B1064, HEAD + "00 00 00 02"), vlan_200("01")});
}

TEST_F(Iepcsi, ASubscriberOfOnePortHearsOfThatPortOnly)
{
    receive(message_of(0x1B1050, HEAD + "00 00 00 02  " + TN));
    expect_sent({message_of(0x1B1051, HEAD + "00 00 00 01"), status("01", "01", TN)});
    tested->control({"lock", "IDLA1"});
    expect_sent({});
    tested->control({"lock", "TNA"});
    expect_sent({status("00", "00", TN)});
}

TEST_F(Iepcsi, RejectsASubscriptionForAPortOrARoleThatItDoesNotKnow)
{
    receive(message_of(0x1B1050, HEAD + "00 00 00 02  'IDLC1' 0*11"));
    expect_answer(message_of(0x1B1052, HEAD + "00 00 00 03"));
    receive(message_of(0x1B1063, HEAD + "00 00 00 02  'IDLA1IDLA1IDLA1I'"));
    expect_answer(message_of(0x1B1065, HEAD + "00 00 00 03"));
    receive(message_of(0x1B1050, HEAD + "00 00 00 03  " + ALL_PORTS));
    expect_answer(message_of(0x1B1052, HEAD + "00 00 00 05"));
}

TEST_F(Iepcsi, ReportsACablePulledAndPutBack)
{
    subscribe();
    interface_table now_so = all_well();
    now_so[2].carrier = false;
    tested->interfaces_changed("near", now_so);
    expect_sent({status("01", "00", IDL)});
    tested->interfaces_changed("near", now_so);
    expect_sent({});
    tested->interfaces_changed("near", all_well());
    expect_sent({status("01", "01", IDL)});
}

TEST_F(Iepcsi, AnInterfaceThatIsSwitchedOffHasNoLinkWhateverItsCarrier)
{
    subscribe();
    interface_table now_so = all_well();
    now_so[2].up = false;
    tested->interfaces_changed("near", now_so);
    expect_sent({status("01", "00", IDL)});
}

TEST_F(Iepcsi, AnInterfaceThatVanishesTakesItsVlansWithItAndBringsThemBack)
{
    subscribe();
    interface_table now_so = all_well();
    now_so.erase(3);
    now_so.erase(4);
    tested->interfaces_changed("near", now_so);
    expect_sent({status("01", "00", TN), vlan_200("02")});
    tested->interfaces_changed("near", all_well());
    expect_sent({status("01", "01", TN), vlan_200("01")});
}

TEST_F(Iepcsi, ANamespaceThatVanishesTakesAllItsPorts)
{
    subscribe();
    tested->interfaces_changed("near", {});
    expect_sent({status("01", "00", IDL), status("01", "00", TN), vlan_200("02")});
}

TEST_F(Iepcsi, WhatHappensInAnotherNamespaceConcernsNoPort)
{
    subscribe();
    tested->interfaces_changed("far", {});
    expect_sent({});
}

TEST_F(Iepcsi, ReportsVlanDevicesOfATransportPortOnly)
{
    subscribe();
    interface_table now_so = all_well();
    now_so[5] = {"idl_a1.100", true, true, IDL_MAC, 2, true, 100};
    now_so[6] = {"tn_a.201", true, true, TN_MAC, 3, true, 201};
    tested->interfaces_changed("near", now_so);
    expect_sent({message_of(0x1B1068, "00 00 00 00  00 00 00 01  00 C9 0*2  00 00 00 01  00 00 00 02  'tn_a.201' 0*8 " +
                                          TN + "'near' 00")});
}

TEST_F(Iepcsi, AVlanDeviceThatIsRenamedIsRemovedAndAdded)
{
    subscribe();
    interface_table now_so = all_well();
    now_so[4].name = "tn_v200";
    tested->interfaces_changed("near", now_so);
    expect_sent({vlan_200("02"), message_of(0x1B1068, "00 00 00 00  00 00 00 01  00 C8 0*2  00 00 00 01  00 00 00 02 "
                                                      "'tn_v200' 0*9 " +
                                                          TN + "'near' 00")});
}

TEST_F(Iepcsi, ALockedPortIsNotOperationalAndComesBackWhenUnlocked)
{
    subscribe();
    tested->control({"lock", "IDLA1"});
    expect_sent({status("00", "00", IDL)});
    tested->control({"lock", "IDLA1"});
    expect_sent({});
    tested->control({"unlock", "IDLA1"});
    expect_sent({status("01", "01", IDL)});
}

TEST_F(Iepcsi, APortIsLockedByTheNameThatPeopleUseToo)
{
    subscribe();
    tested->control({"lock", "IDL_A1"});
    expect_sent({status("00", "00", IDL)});
}

TEST_F(Iepcsi, UnlockingAPortWithoutCarrierChangesItsAdminStateOnly)
{
    subscribe();
    interface_table now_so = all_well();
    now_so[2].carrier = false;
    tested->interfaces_changed("near", now_so);
    tested->control({"lock", "IDLA1"});
    tested->control({"unlock", "IDLA1"});
    expect_sent({status("01", "00", IDL), status("00", "00", IDL), status("01", "00", IDL)});
}

TEST_F(Iepcsi, AddsAndRemovesVlansOnCommandAsOftenAsItIsTold)
{
    subscribe();
    const bytes added = message_of(0x1B1068, "00 00 00 00  00 00 00 01  00 64 0*2  00 00 00 01  00 00 00 02 "
                                             "'any0' 0*12 " +
                                                 IDL + "'a-namespace-of-20-ch' 00");
    tested->control({"vlan-add", "IDLA1", "100", "any0", "a-namespace-of-20-ch"});
    tested->control({"vlan-add", "IDLA1", "100", "any0", "a-namespace-of-20-ch"});
    expect_sent({added, added});
    tested->interfaces_changed("near", all_well());
    expect_sent({});
    tested->control({"vlan-remove", "IDLA1", "100"});
    tested->control({"vlan-remove", "IDLA1", "100"});
    EXPECT_EQ(out.take().size(), 2u);
}

TEST_F(Iepcsi, AVlanTakenAwayByCommandStaysAwayUntilItIsAddedOrItsDeviceIsMadeAnew)
{
    subscribe();
    tested->control({"vlan-remove", "TNA", "200"});
    expect_sent({vlan_200("02")});
    tested->interfaces_changed("near", all_well());
    expect_sent({});
    interface_table now_so = all_well();
    now_so.erase(4);
    tested->interfaces_changed("near", now_so);
    expect_sent({});
    tested->interfaces_changed("near", all_well());
    expect_sent({vlan_200("01")});
}

TEST_F(Iepcsi, ReportsNothingToAClientThatHasNotSubscribed)
{
    tested->control({"lock", "IDLA1"});
    tested->control({"vlan-remove", "TNA", "200"});
    expect_sent({});
}

TEST_F(Iepcsi, AClientThatConnectsAgainSubscribesAnew)
{
    subscribe();
    receive(CONNECT);
    out.take();
    tested->control({"lock", "IDLA1"});
    expect_sent({});
}

TEST_F(Iepcsi, TheIndicationsOfADelayedSubscriptionFollowItsConfirm)
{
    tested->control({"fault", "delay", "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ", "1", "100"});
    receive(SUBSCRIBE_STATUS);
    expect_sent({});
    tested->tick(now + 100);
    expect_sent({message_of(0x1B1051, HEAD + "00 00 00 01"), status("01", "01", IDL), status("01", "01", TN)});
}

TEST_F(Iepcsi, RefusesEveryTruncationOfEveryRequest)
{
    const auto all = [&] { return tested->show()["subscribers"]; };
    expect_truncations_refused(SUBSCRIBE_STATUS, 32, 0x1B1052, 0, all);
    expect_truncations_refused(SUBSCRIBE_VLANS, 32, 0x1B1065, 0, all);
    expect_truncations_refused(LIST_PORTS, 12, 0x1B104A, 0, all);
    expect_truncations_refused(CONNECT, 24, 0x1B1045, 0, [&] { return tested->show()["clients"]; });
}

TEST_F(Iepcsi, RefusesCommandsThatMakeNoSense)
{
    for (const arguments &words : std::vector<arguments>{{"lock"},
                                                         {"lock", "IDLC1"},
                                                         {"unlock", "IDLA1", "TNA"},
                                                         {"vlan-add", "IDLA1", "100", "any0"},
                                                         {"vlan-add", "IDLC1", "100", "any0", "near"},
                                                         {"vlan-add", "IDLA1", "4095", "any0", "near"},
                                                         {"vlan-remove", "IDLA1"}}) {
        EXPECT_THROW(tested->control(words), command_error) << json(words);
    }
}

TEST_F(Iepcsi, ShowsItsPortsInAFixedShape)
{
    subscribe();
    const json shown = tested->show();
    EXPECT_EQ(shown["ports"][1], json::parse(R"({
        "name": "TNA", "interface": "tn_a", "namespace": "near", "reported_namespace": "near", "capability": 2,
        "present": true, "mac": "02:00:00:00:00:B1", "adm_state": 1, "oper_state": 1,
        "vlans": [{"vlan_id": 200, "interface": "tn_a.200", "namespace": "near", "from_kernel": true}]})"));
    EXPECT_EQ(shown["subscribers"], json::parse(R"([{"mailbox": 77, "status": [""], "vlans": [""]}])"));
    EXPECT_EQ(shown["indications"], json::parse(R"({"status": 2, "vlan": 1})"));
}

// ---- A daemon that is not ready yet ----

constexpr mailbox NOBODY = 0xFFFFFFFF;

// What the registry tells of a service: `number` 0x1900001 published, 0x1900002 withdrawn.
bytes news_of(uint32_t number, mailbox publisher)
{
    const std::array<uint32_t, 5> head = {number, 1, publisher, 0, 0};
    bytes news(sizeof head);
    memcpy(news.data(), head.data(), sizeof head);
    news.push_back(0);
    return news;
}

class IepcsiWaiting : public Iepcsi
{
protected:
    void SetUp() override
    {
        Iepcsi::SetUp();
        out.names["kap-vorn"] = CLIENT;
        tested->wait_for_daemon();
    }
    void subscribe_status(mailbox from = CLIENT)
    {
        receive(SUBSCRIBE_STATUS, from);
        out.take();
    }
};

TEST_F(IepcsiWaiting, AnUnlockedPortIsReportedOnceTheDaemonHasPublishedItsService)
{
    receive(SUBSCRIBE_STATUS);
    expect_sent({message_of(0x1B1051, HEAD + "00 00 00 01")});
    receive(news_of(0x1900001, OTHER_CLIENT), NOBODY);
    expect_sent({});
    receive(news_of(0x1900001, CLIENT), NOBODY);
    expect_sent({status("01", "01", IDL), status("01", "01", TN)});
    receive(news_of(0x1900001, CLIENT), NOBODY);
    expect_sent({});
}

TEST_F(IepcsiWaiting, ADaemonThatPublishedBeforeItSubscribesWaitsForNothing)
{
    receive(news_of(0x1900001, CLIENT), NOBODY);
    receive(SUBSCRIBE_STATUS);
    expect_sent({message_of(0x1B1051, HEAD + "00 00 00 01"), status("01", "01", IDL), status("01", "01", TN)});
}

TEST_F(IepcsiWaiting, ADaemonThatHasWithdrawnItsServiceWaitsWhenItConnectsAgain)
{
    receive(news_of(0x1900001, CLIENT), NOBODY);
    subscribe_status();
    receive(news_of(0x1900002, CLIENT), NOBODY);
    tested->control({"lock", "IDLA1"});
    tested->control({"unlock", "IDLA1"});
    expect_sent({status("00", "00", IDL), status("01", "01", IDL)});
    receive(CONNECT);
    out.take();
    receive(SUBSCRIBE_STATUS);
    EXPECT_EQ(out.take().size(), 1u) << "more than the confirm";
}

TEST_F(IepcsiWaiting, ADaemonThatPublishesNothingHearsOfUnlockedPortsAfterABoundedTime)
{
    subscribe_status();
    ASSERT_EQ(tested->next_deadline(), std::optional(now + DAEMON_BOUND_MS));
    tested->tick(now + DAEMON_BOUND_MS - 1);
    expect_sent({});
    tested->tick(now + DAEMON_BOUND_MS);
    expect_sent({status("01", "01", IDL), status("01", "01", TN)});
    EXPECT_EQ(tested->next_deadline(), std::nullopt);
}

TEST_F(IepcsiWaiting, LockedPortsAreReportedAtOnceAndUnlockedOnesAsTheyAreInTheEnd)
{
    tested->control({"lock", "TNA"});
    receive(SUBSCRIBE_STATUS);
    expect_sent({message_of(0x1B1051, HEAD + "00 00 00 01"), status("00", "00", TN)});
    interface_table now_so = all_well();
    now_so[2].carrier = false;
    tested->interfaces_changed("near", now_so);
    tested->control({"unlock", "TNA"});
    expect_sent({});
    receive(news_of(0x1900001, CLIENT), NOBODY);
    expect_sent({status("01", "00", IDL), status("01", "01", TN)});
}

TEST_F(IepcsiWaiting, AnyOtherClientHearsAtOnce)
{
    receive(CONNECT, OTHER_CLIENT);
    out.take();
    receive(SUBSCRIBE_STATUS, OTHER_CLIENT);
    EXPECT_EQ(out.take().size(), 1u) << "of a connection that is another's";
    receive(message_of(0x1B1050, "00 00 00 07  00 00 00 02  00 00 00 02  " + ALL_PORTS), OTHER_CLIENT);
    EXPECT_EQ(out.take().size(), 3u) << "the confirm and both ports";
}

TEST_F(IepcsiWaiting, ADaemonThatIsGoneIsWaitedForNoLonger)
{
    subscribe_status();
    tested->client_gone(CLIENT);
    receive(news_of(0x1900001, CLIENT), NOBODY);
    tested->tick(now + DAEMON_BOUND_MS);
    expect_sent({});
}

TEST_F(IepcsiWaiting, TheAnswerToItsOwnSubscriptionIsNoPublication)
{
    subscribe_status();
    receive(message_of(0x1900000, "01 00 00 00"), NOBODY);
    for (size_t size = 4; size < 20; ++size) {
        bytes cut = news_of(0x1900001, CLIENT);
        cut.resize(size);
        receive(cut, NOBODY);
    }
    expect_sent({});
}

} // namespace
} // namespace kap_node
