// The endpoint manager: what it keeps of endpoints, and what it refuses.
#include "emi.hpp"
#include "support.hpp"

namespace kap_node
{
namespace
{

const bytes CONNECT = message_of(0x1B10C0, "00 00 00 02  00 00 01 2C  00 00 00 01  00 00 00 01");

// One record as a link asks for it: on "DiPort_A1", 02:00:00:00:00:05, type 1, VLAN 100, far end.
const std::string FAR_RECORD = "'DiPort_A1' 0*55  02 00 00 00 00 05  0*2  00 00 00 01  00 00 00 64  0*12  "
                               "00 00 00 01  00  0*3 ";
// And one without a port: 02:00:00:00:00:06, near end.
const std::string NEAR_RECORD = "0*64  02 00 00 00 00 06  0*2  00 00 00 01  00 00 00 64  0*12  00 00 00 00  00  0*3 ";
const std::string HEAD = "00 00 00 07  00 00 00 01  ";

const bytes ADD = message_of(0x1B10C6, HEAD + "00 00 00 02  " + FAR_RECORD + NEAR_RECORD);
const bytes ADDED = message_of(0x1B10C7, "00 00 00 07  00 00 00 01");
const bytes REMOVE = message_of(0x1B10C9, HEAD + "00 00 00 02  " + FAR_RECORD + NEAR_RECORD);
const bytes REMOVED = message_of(0x1B10CA, "00 00 00 07  00 00 00 01");

bytes add_rejected(const std::string &reason) { return message_of(0x1B10C8, HEAD + reason); }

class Emi : public ServiceTest<emi_service>
{
protected:
    void SetUp() override { make(); }
    void make()
    {
        tested = std::make_unique<emi_service>(config, out);
        receive(CONNECT);
        out.take();
    }
    json endpoints() { return tested->show()["endpoints"]; }
};

TEST_F(Emi, ConnectsUnderItsOwnNumbers)
{
    make();
    receive(CONNECT);
    expect_answer(message_of(0x1B10C1, "00 00 00 02  00 00 00 02  00 00 00 01"));
    receive(message_of(0x1B10C0, "00 00 00 02  00 00 01 2C  00 00 00 01  00 00 00 05"));
    expect_answer(message_of(0x1B10C2, "00 00 00 02  00 00 01 2C  00 00 00 02"));
}

TEST_F(Emi, ListsBothCapabilitiesThatClientsNeed)
{
    receive(message_of(0x1B10C3, "00 00 00 03  00 00 00 01"));
    expect_answer(message_of(0x1B10C4, "00 00 00 03  00 00 00 01  00 00 00 02  00 00 00 01 00 00 00 02"));
}

TEST_F(Emi, AddsAndRemovesEndpoints)
{
    receive(ADD);
    expect_answer(ADDED);
    EXPECT_EQ(endpoints(), json::parse(R"([
        {"port": "", "mac": "02:00:00:00:00:06", "type": 1, "vlan_id": 100, "far_end": 0, "users": 1},
        {"port": "DiPort_A1", "mac": "02:00:00:00:00:05", "type": 1, "vlan_id": 100, "far_end": 1, "users": 1}])"));
    receive(REMOVE);
    expect_answer(REMOVED);
    EXPECT_EQ(endpoints(), json::array());
}

TEST_F(Emi, AnEndpointOfTwoLinksStaysUntilBothHaveRemovedIt)
{
    receive(ADD);
    receive(message_of(0x1B10C6, HEAD + "00 00 00 01  " + FAR_RECORD));
    receive(REMOVE);
    EXPECT_EQ(endpoints(), json::parse(R"([
        {"port": "DiPort_A1", "mac": "02:00:00:00:00:05", "type": 1, "vlan_id": 100, "far_end": 1, "users": 1}])"));
}

TEST_F(Emi, ConfirmsAndCountsTheRemovalOfWhatIsNotThere)
{
    receive(REMOVE);
    expect_answer(REMOVED);
    EXPECT_EQ(tested->show()["unknown_removals"], 2);
}

TEST_F(Emi, TakesARequestForNothing)
{
    receive(message_of(0x1B10C6, HEAD + "00 00 00 00"));
    expect_answer(ADDED);
}

TEST_F(Emi, RejectsACountThatTheMessageDoesNotHold)
{
    receive(message_of(0x1B10C6, HEAD + "00 00 00 03  " + FAR_RECORD + NEAR_RECORD));
    expect_answer(add_rejected("00 00 00 01"));
    // 100 times this count is 16 when cut to 32 bits.
    receive(message_of(0x1B10C6, HEAD + "A3 D7 0A 3E  " + FAR_RECORD + NEAR_RECORD));
    expect_answer(add_rejected("00 00 00 01"));
    EXPECT_EQ(endpoints(), json::array());
}

TEST_F(Emi, RejectsAPortItDoesNotKnow)
{
    std::string record = FAR_RECORD;
    record.replace(record.find("A1"), 2, "C1");
    receive(message_of(0x1B10C6, HEAD + "00 00 00 02  " + NEAR_RECORD + record));
    expect_answer(add_rejected("00 00 00 05"));
    EXPECT_EQ(endpoints(), json::array());
}

TEST_F(Emi, RejectsAPortNameWithoutAnEnd)
{
    std::string record = FAR_RECORD;
    record.replace(0, 16, "'DiPort_A1DiPort_A1DiPort_A1DiPort_A1DiPort_A1DiPort_A1DiPort_A1X'");
    receive(message_of(0x1B10C6, HEAD + "00 00 00 01  " + record));
    expect_answer(add_rejected("00 00 00 05"));
}

TEST_F(Emi, RejectsVlansOutOfRange)
{
    for (const char *vlan : {"00 00 00 00", "00 00 0F FF"}) {
        std::string record = NEAR_RECORD;
        record.replace(record.find("00 00 00 64"), 11, vlan);
        receive(message_of(0x1B10C6, HEAD + "00 00 00 01  " + record));
        expect_answer(add_rejected("00 00 00 04"));
    }
}

TEST_F(Emi, RejectsWhatIsMoreThanItsLimitWholeAndCountsEqualRecordsOnce)
{
    config.max_endpoints = 1;
    make();
    receive(ADD);
    expect_answer(add_rejected("00 00 00 06"));
    EXPECT_EQ(endpoints(), json::array());
    receive(message_of(0x1B10C6, HEAD + "00 00 00 02  " + FAR_RECORD + FAR_RECORD));
    expect_answer(ADDED);
    EXPECT_EQ(endpoints()[0]["users"], 2);
}

TEST_F(Emi, RejectsARequestOfAConnectionItDoesNotKnow)
{
    receive(message_of(0x1B10C6, "00 00 00 07  00 00 00 02  00 00 00 00"));
    expect_answer(message_of(0x1B10C8, "00 00 00 07  00 00 00 02  00 00 00 03"));
}

TEST_F(Emi, RefusesEveryTruncationOfEveryRequest)
{
    const auto all = [&] { return endpoints(); };
    expect_truncations_refused(ADD, 216, 0x1B10C8, 1, all);
    expect_truncations_refused(REMOVE, 216, 0x1B10CB, 1, all);
    expect_truncations_refused(CONNECT, 20, 0x1B10C2, 1, [&] { return tested->show()["clients"]; });
    expect_truncations_refused(message_of(0x1B10C3, HEAD), 12, 0x1B10C5, 1, all);
}

TEST_F(Emi, ShowsItsWholeStateInAFixedShape)
{
    const json shown = tested->show();
    std::vector<std::string> keys;
    for (const auto &[key, value] : shown.items()) {
        keys.push_back(key);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"clients", "counters", "endpoints", "faults", "mailbox", "max_endpoints",
                                              "ports", "service", "unknown_removals", "waiting_answers"}));
    EXPECT_EQ(shown["ports"], json::parse(R"(["DiPort_A1", "TNA"])"));
    EXPECT_EQ(shown["mailbox"], "endpoint_mgr");
}

} // namespace
} // namespace kap_node
