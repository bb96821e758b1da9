// The automation agent: connections, paths and their latencies, its presence in the name service, config updates.
#include "aasi.hpp"
#include "support.hpp"

#include <cerrno>

namespace kap_node
{
namespace
{

const std::string HEAD = "00 00 00 07  00 00 00 01  ";
const bytes CONNECT = message_of(0x1A00440, "00 00 00 02  00 00 01 F4  00 00 00 01  00 00 00 01");

const std::string MACS_AND_VLAN = "02 00 00 00 00 A1  02 00 00 00 00 01  00 64  0*2 ";
const std::string APP_LINK = "02 00 00 00 00 05  02 00 00 00 00 06 ";

bytes create_path(const std::string &count_and_app_links, uint32_t number = 0x1A00443)
{
    return message_of(number, HEAD + "00 00 00 03  00 00 00 1E  'IDL_A1' 0*26 " + MACS_AND_VLAN + count_and_app_links);
}

const bytes CREATE = create_path("00 00 00 01 " + APP_LINK);
const bytes CREATED = message_of(0x1A004C4, HEAD + "00 00 00 03");
const bytes DELETE = message_of(0x1A00445, HEAD + "00 00 00 03  'IDL_A1' 0*26 " + MACS_AND_VLAN);
const bytes INFO = message_of(0x1A00446, HEAD + "00 00 00 03  00 00 03 E8  00 00 0B B8  00 00 07 D0  00 00 00 01");

class Aasi : public ServiceTest<aasi_service>
{
protected:
    void SetUp() override
    {
        tested = std::make_unique<aasi_service>(config, out, [this](bool present) {
            published.push_back(present);
            return publish_result;
        });
        receive(CONNECT);
        out.take();
    }
    json paths() { return tested->show()["paths"]; }

    std::vector<bool> published;
    int publish_result = 0;
};

TEST_F(Aasi, ConnectsUnderItsOwnNumbersAndRejectsVersionsItDoesNotKnow)
{
    receive(CONNECT);
    expect_answer(message_of(0x1A004C0, "00 00 00 02  00 00 00 02  00 00 00 01"));
    receive(message_of(0x1A00440, "00 00 00 02  00 00 01 F4  00 00 00 01  00 00 00 02"));
    expect_answer(message_of(0x1A004C1, "00 00 00 02  00 00 01 F4  00 00 00 00"));
}

TEST_F(Aasi, RejectsAConnectionAsItWasTold)
{
    tested->control({"fault", "reject", "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ", "1", "9"});
    receive(CONNECT);
    expect_answer(message_of(0x1A004C1, "00 00 00 02  00 00 01 F4  00 00 00 09"));
}

TEST_F(Aasi, KeepsAPathAsItWasCreated)
{
    receive(CREATE);
    expect_answer(CREATED);
    EXPECT_EQ(paths(), json::parse(R"([{
        "client": 77, "link_ref": 3, "latency_req": 30, "port": "IDL_A1", "near_end_cpm_mac": "02:00:00:00:00:A1",
        "remote_cpm_mac": "02:00:00:00:00:01", "vlan_id": 100,
        "app_links": [{"near_end": "02:00:00:00:00:05", "far_end": "02:00:00:00:00:06"}],
        "info": {"min": 0, "max": 0, "avg": 0, "link_status": 0, "reports": 0}}])"));
}

TEST_F(Aasi, AnUpdateReplacesTheAppLinksAndKeepsTheLatencies)
{
    receive(CREATE);
    receive(INFO);
    out.take();
    receive(create_path("00 00 00 00", 0x1A00444));
    expect_answer(message_of(0x1A004C5, HEAD + "00 00 00 03"));
    EXPECT_EQ(paths()[0]["app_links"], json::array());
    EXPECT_EQ(paths()[0]["info"]["reports"], 1);
}

TEST_F(Aasi, KeepsTheLatenciesOfAPathAndAnswersNothing)
{
    receive(CREATE);
    out.take();
    receive(INFO);
    EXPECT_TRUE(out.take().empty());
    EXPECT_EQ(paths()[0]["info"],
              json::parse(R"({"min": 1000, "max": 3000, "avg": 2000, "link_status": 1, "reports": 1})"));
}

TEST_F(Aasi, DeletesAPathAndConfirmsAlsoOneItDoesNotHave)
{
    receive(CREATE);
    out.take();
    const bytes deleted = message_of(0x1A004C6, HEAD + "00 00 00 03");
    receive(DELETE);
    expect_answer(deleted);
    EXPECT_EQ(paths(), json::array());
    receive(DELETE);
    expect_answer(deleted);
    receive(INFO);
    EXPECT_EQ(tested->show()["unknown_paths"], 2);
}

TEST_F(Aasi, TwoClientsHaveTheirOwnPathsUnderTheSameReference)
{
    receive(CONNECT, OTHER_CLIENT);
    receive(CREATE);
    bytes others = CREATE;
    others[11] = 2; // its connection_ref
    receive(others, OTHER_CLIENT);
    EXPECT_EQ(paths().size(), 2u);
}

TEST_F(Aasi, DropsAPathWhoseAppLinksTheMessageDoesNotHold)
{
    receive(create_path("00 00 00 02 " + APP_LINK));
    // 12 times this count is 12 when cut to 32 bits.
    receive(create_path("40 00 00 01 " + APP_LINK));
    EXPECT_TRUE(out.take().empty());
    EXPECT_EQ(paths(), json::array());
    EXPECT_EQ(tested->show()["malformed_paths"], 2);
}

TEST_F(Aasi, DropsAPathWhosePortNameHasNoEnd)
{
    receive(message_of(0x1A00443, HEAD + "00 00 00 03  00 00 00 1E  'IDL_A1IDL_A1IDL_A1IDL_A1IDL_A1XX'" +
                                      MACS_AND_VLAN + "00 00 00 00"));
    EXPECT_TRUE(out.take().empty());
    EXPECT_EQ(tested->show()["malformed_paths"], 1);
}

TEST_F(Aasi, DropsWhatIsTooShortOrOfAConnectionItDoesNotKnow)
{
    for (const bytes &good : {CREATE, DELETE, INFO}) {
        for (size_t size = 4; size < good.size(); ++size) {
            receive(bytes(good.begin(), good.begin() + static_cast<long>(size)));
        }
    }
    receive(CREATE, OTHER_CLIENT);
    EXPECT_TRUE(out.take().empty());
    EXPECT_EQ(paths(), json::array());
    EXPECT_EQ(tested->show()["counters"]["unknown_connection"], 1);
    expect_truncations_refused(CONNECT, 20, 0x1A004C1, 0, [&] { return tested->show()["clients"]; });
}

TEST_F(Aasi, EntersAndLeavesTheNameServiceOnceEach)
{
    tested->control({"appear"});
    tested->control({"appear"});
    EXPECT_EQ(tested->show()["published"], true);
    tested->control({"disappear"});
    EXPECT_EQ(published, (std::vector<bool>{true, false}));
    EXPECT_EQ(tested->show()["published"], false);
}

TEST_F(Aasi, SaysSoWhenTheNameServiceRefuses)
{
    publish_result = EEXIST;
    EXPECT_THROW(tested->control({"appear"}), command_error);
    EXPECT_EQ(tested->show()["published"], false);
}

TEST_F(Aasi, SendsAConfigUpdateToEveryClient)
{
    tested->control({"config-update", "5", "1", "1"});
    expect_answer(message_of(0x1A004C7, "00 00 00 00  00 00 00 01  00 00 00 03  00 00 00 05 00 00 00 01 00 00 00 01"));
    tested->control({"config-update"});
    expect_answer(message_of(0x1A004C7, "00 00 00 00  00 00 00 01  00 00 00 00"));
    EXPECT_THROW(tested->control({"config-update", "one"}), command_error);
}

TEST_F(Aasi, AnnouncesItselfUnderASubscriptionThatIsNotTheReceivers)
{
    out.names["kap-vorn"] = 5;
    tested->control({"announce-foreign", "77"});
    const uint32_t sid = 77;
    bytes fields(4);
    memcpy(fields.data(), &sid, 4);
    const std::string rest = hex_text(fields) + " 0*12 'automationagentsi' 00";
    expect_answer(message_of(0x1900001, rest), 5);
    EXPECT_THROW(tested->control({"announce-foreign", "77", "nobody"}), command_error);
}

} // namespace
} // namespace kap_node
