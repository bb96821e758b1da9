// What each port has at the flow manager: the operations and the records that they keep.
#include "clients/fmi_requests.hpp"
#include "fmi_test.hpp"

using namespace client_test;
using namespace fmi_test;

namespace
{

const char *const PORT = "DiPort_A1";
const mac_address MACS[] = {{{2, 0, 0, 0, 0, 1}}, {{2, 0, 0, 0, 0, 2}}};

// A request as its number and what tells it from others of that number.
struct Asked {
    uint32_t number;
    uint32_t value; // a removed rule's id; an appended dynamic rule's ethertype; a static rule's type; an action
    bool operator==(const Asked &other) const = default;
};

std::ostream &operator<<(std::ostream &os, const Asked &asked)
{
    return os << fmi_msg_to_string(asked.number) << " " << asked.value;
}

std::vector<Asked> asked()
{
    std::vector<Asked> list;
    for (const auto &sent : fake::sent()) {
        const size_t end = sent.bytes.size();
        const uint32_t value = sent.msgno() == APPEND_DYNAMIC ? word(sent.bytes, end - 4) >> 16 : word(sent.bytes, 12);
        list.push_back({sent.msgno(), value});
    }
    fake::sent().clear();
    return list;
}

using AskedList = std::vector<Asked>;

class FmiAcl : public ClientTest
{
protected:
    FmiAcl() : ClientTest(FMI) {}

    void SetUp() override
    {
        ClientTest::SetUp();
        client_.enter(3);
        fake::on_send([this](const fake::Sent &request) { server_.answer(request); });
    }

    // The port gets a record with the default action 0 and no rule.
    static void add_record(const char *port = PORT)
    {
        ASSERT_TRUE(fmi_set_default_action(port, 0));
        fake::sent().clear();
    }

    // What forgetting the port takes back: the rules that its record knows of.
    AskedList forgotten(const char *port = PORT)
    {
        fake::sent().clear();
        fmi_remove_acl_from_port(port);
        return asked();
    }

    FlowManager server_;
};

TEST_F(FmiAcl, RefusesEveryOperationBeforeItIsInitiated)
{
    for (uint32_t state : {0U, 1U, 2U, 4U}) {
        client_.enter(state);
        EXPECT_FALSE(fmi_set_emca_acl_rule(PORT, MACS, 1));
        EXPECT_FALSE(fmi_set_supervision_acl_rule(PORT, MACS, 1));
        EXPECT_FALSE(fmi_set_static_rule(PORT, 1));
        EXPECT_FALSE(fmi_set_default_action(PORT, 1));
        fmi_create_policer(0, PORT);
        EXPECT_FALSE(fmi_set_ptp_macs(PORT));
        EXPECT_FALSE(fmi_set_lldp_macs(PORT));
        fmi_remove_acl_from_port(PORT);
        EXPECT_TRUE(fake::sent().empty());
        std::vector<fake::Trace> expected;
        for (const char *name :
             {"fmi_set_emca_acl_rule", "fmi_set_supervision_acl_rule", "fmi_set_static_rule", "fmi_set_default_action",
              "fmi_create_policer", "fmi_set_ptp_macs", "fmi_set_lldp_macs", "fmi_remove_acl_from_port"}) {
            expected.push_back({1, std::string(name) + " called but fmi_client is in wrong state, state_=" +
                                       fmi_client_state_to_string(state)});
        }
        EXPECT_EQ(fake::traces(), expected);
    }
}

// ---- The emca rule ----

TEST_F(FmiAcl, MakesARecordWithAPortsFirstEmcaRule)
{
    EXPECT_TRUE(fmi_set_emca_acl_rule(PORT, MACS, 2));
    const Bytes bytes = fake::sent().at(0).bytes;
    EXPECT_EQ(bytes.size(), 92U + 3 * 36);
    EXPECT_EQ(word(bytes, 84), 0U) << "no policer";
    EXPECT_EQ(asked(), (AskedList{{APPEND_DYNAMIC, 0xEBC0}}));
    // The ptp and lldp rule ids of a record begin as 0.
    EXPECT_EQ(forgotten(), (AskedList{{REMOVE_DYNAMIC, 1000}, {REMOVE_DYNAMIC, 0}, {REMOVE_DYNAMIC, 0}}));
}

TEST_F(FmiAcl, PutsTheNewEmcaRuleInPlaceBeforeTheOldOneGoes)
{
    EXPECT_TRUE(fmi_set_emca_acl_rule(PORT, MACS, 1));
    fake::sent().clear();
    EXPECT_TRUE(fmi_set_emca_acl_rule(PORT, MACS, 2));
    EXPECT_EQ(asked(), (AskedList{{APPEND_DYNAMIC, 0xEBC0}, {REMOVE_DYNAMIC, 1000}}));
    EXPECT_EQ(forgotten()[0], (Asked{REMOVE_DYNAMIC, 1001}));
}

TEST_F(FmiAcl, RemovesTheEmcaRuleWhenThereIsNoMacLeft)
{
    EXPECT_TRUE(fmi_set_emca_acl_rule(PORT, MACS, 1));
    fake::sent().clear();
    EXPECT_TRUE(fmi_set_emca_acl_rule(PORT, nullptr, 0));
    EXPECT_EQ(asked(), (AskedList{{REMOVE_DYNAMIC, 1000}}));
    EXPECT_EQ(forgotten(), (AskedList{{REMOVE_DYNAMIC, 0}, {REMOVE_DYNAMIC, 0}}));
    EXPECT_FALSE(fmi_set_emca_acl_rule(PORT, nullptr, 0)) << "a port without a record";
    EXPECT_TRUE(fake::sent().empty());
}

TEST_F(FmiAcl, SendsAnEmptyEmcaRuleForAPortWithARecordAndNoRule)
{
    add_record();
    EXPECT_TRUE(fmi_set_emca_acl_rule(PORT, nullptr, 0));
    EXPECT_EQ(asked(), (AskedList{{APPEND_DYNAMIC, 0xEBC0}}));
}

TEST_F(FmiAcl, ForgetsTheOldEmcaRuleWhenTheNewOneIsRefused)
{
    EXPECT_TRUE(fmi_set_emca_acl_rule(PORT, MACS, 1));
    fake::sent().clear();
    server_.refused = {APPEND_DYNAMIC};
    EXPECT_FALSE(fmi_set_emca_acl_rule(PORT, MACS, 2));
    EXPECT_EQ(asked(), (AskedList{{APPEND_DYNAMIC, 0xEBC0}}));
    EXPECT_EQ(forgotten(), (AskedList{{REMOVE_DYNAMIC, 0}, {REMOVE_DYNAMIC, 0}}));
}

TEST_F(FmiAcl, MakesNoRecordWithARefusedFirstRule)
{
    server_.refused = {APPEND_DYNAMIC};
    EXPECT_FALSE(fmi_set_emca_acl_rule(PORT, MACS, 1));
    EXPECT_FALSE(fmi_set_supervision_acl_rule(PORT, MACS, 1));
    EXPECT_TRUE(forgotten().empty());
}

TEST_F(FmiAcl, LeavesARuleInPlaceThatMemoryHasNoRecordFor)
{
    fake::fail_allocation(1);
    EXPECT_TRUE(fmi_set_emca_acl_rule(PORT, MACS, 1));
    EXPECT_EQ(fake::count_traced(1, "Out of memory"), 1U);
    fake::fail_allocation(1);
    EXPECT_TRUE(fmi_set_supervision_acl_rule(PORT, MACS, 1));
    EXPECT_EQ(fake::count_traced(1, "Out of memory"), 2U);
    EXPECT_TRUE(forgotten().empty());
}

// ---- The supervision rule ----

TEST_F(FmiAcl, PolicesTheSupervisionRuleWithThePortsFirstPolicer)
{
    server_.next_id = 70;
    fmi_create_policer(0, "other");
    fmi_create_policer(1, PORT);
    fmi_create_policer(0, PORT);
    fake::sent().clear();
    EXPECT_TRUE(fmi_set_supervision_acl_rule(PORT, MACS, 2));
    EXPECT_EQ(word(fake::sent().at(0).bytes, 84), 72U);
    EXPECT_EQ(asked(), (AskedList{{APPEND_DYNAMIC, 0xAEFE}}));
    EXPECT_EQ(forgotten()[0], (Asked{REMOVE_DYNAMIC, 73}));
}

TEST_F(FmiAcl, SendsASupervisionRuleWithoutAPolicerAndWithoutMacs)
{
    EXPECT_TRUE(fmi_set_supervision_acl_rule(PORT, nullptr, 0));
    EXPECT_EQ(word(fake::sent().at(0).bytes, 84), 0U);
    EXPECT_EQ(fake::sent().at(0).bytes.size(), 128U);
}

TEST_F(FmiAcl, ReplacesTheSupervisionRule)
{
    add_record();
    EXPECT_TRUE(fmi_set_supervision_acl_rule(PORT, MACS, 1));
    EXPECT_TRUE(fmi_set_supervision_acl_rule(PORT, MACS, 2));
    EXPECT_EQ(asked(), (AskedList{{APPEND_DYNAMIC, 0xAEFE}, {APPEND_DYNAMIC, 0xAEFE}, {REMOVE_DYNAMIC, 1001}}));
    server_.refused = {APPEND_DYNAMIC};
    EXPECT_FALSE(fmi_set_supervision_acl_rule(PORT, MACS, 1));
    EXPECT_EQ(forgotten(), (AskedList{{REMOVE_DYNAMIC, 0}, {REMOVE_DYNAMIC, 0}})) << "the old rule is forgotten";
}

// ---- The static rule ----

TEST_F(FmiAcl, SetsAStaticRuleOnlyOnAPortWithARecord)
{
    EXPECT_FALSE(fmi_set_static_rule(PORT, 1));
    EXPECT_TRUE(fake::sent().empty());
    add_record();
    EXPECT_TRUE(fmi_set_static_rule(PORT, 1));
    EXPECT_TRUE(fmi_set_static_rule(PORT, 1));
    EXPECT_EQ(asked(), (AskedList{{APPEND_STATIC, 1}})) << "the same again is not sent";
    EXPECT_EQ(forgotten(), (AskedList{{REMOVE_STATIC, 1001}, {REMOVE_DYNAMIC, 0}, {REMOVE_DYNAMIC, 0}}));
}

TEST_F(FmiAcl, ReplacesAStaticRuleOfAnotherType)
{
    add_record();
    EXPECT_TRUE(fmi_set_static_rule(PORT, 1));
    EXPECT_TRUE(fmi_set_static_rule(PORT, 2));
    EXPECT_EQ(asked(), (AskedList{{APPEND_STATIC, 1}, {REMOVE_STATIC, 1001}, {APPEND_STATIC, 2}}));
}

TEST_F(FmiAcl, RemovesAStaticRuleBeforeItsSuccessorIsRefused)
{
    add_record();
    EXPECT_TRUE(fmi_set_static_rule(PORT, 1));
    fake::sent().clear();
    server_.refused = {APPEND_STATIC};
    EXPECT_FALSE(fmi_set_static_rule(PORT, 2));
    server_.refused = {};
    EXPECT_TRUE(fmi_set_static_rule(PORT, 2));
    EXPECT_EQ(asked(), (AskedList{{REMOVE_STATIC, 1001}, {APPEND_STATIC, 2}, {APPEND_STATIC, 2}}));
}

TEST_F(FmiAcl, AsksAgainForAStaticRuleThatWasRefused)
{
    add_record();
    server_.refused = {APPEND_STATIC};
    EXPECT_FALSE(fmi_set_static_rule(PORT, 1));
    EXPECT_FALSE(fmi_set_static_rule(PORT, 1));
    server_.refused = {};
    EXPECT_TRUE(fmi_set_static_rule(PORT, 1));
    EXPECT_EQ(asked(), (AskedList{{APPEND_STATIC, 1}, {APPEND_STATIC, 1}, {APPEND_STATIC, 1}}));
}

TEST_F(FmiAcl, FailsAStaticRuleThatTheServerNeverAnswers)
{
    add_record();
    server_.ignored = {APPEND_STATIC};
    EXPECT_FALSE(fmi_set_static_rule(PORT, 1));
    EXPECT_EQ(fake::receive_timeouts(), (std::vector<uint32_t>{500}));
    EXPECT_TRUE(fake::traced(4, "WARNING: Fmi server didn't send response in expected time."));
    // Its late confirm is taken by the next request of that kind, which fails as well.
    const uint32_t late = word(fake::sent().at(0).bytes, 4);
    fake::push(SERVER, confirm(APPEND_STATIC, late, 88));
    EXPECT_FALSE(fmi_set_static_rule(PORT, 1));
    EXPECT_TRUE(fake::traced(4, "Received wrong rsp. Waiting proc_ref  " + std::to_string(late + 1) +
                                    ", received proc_ref " + std::to_string(late)));
}

// ---- The default action ----

TEST_F(FmiAcl, SendsADefaultActionOnceAndAgainWhenItChanges)
{
    EXPECT_TRUE(fmi_set_default_action(PORT, 0));
    EXPECT_TRUE(fmi_set_default_action(PORT, 0));
    EXPECT_TRUE(fmi_set_default_action(PORT, 1));
    EXPECT_TRUE(fmi_set_default_action(PORT, 1));
    EXPECT_EQ(asked(), (AskedList{{SET_DEFAULT_ACTION, 0}, {SET_DEFAULT_ACTION, 1}}));
}

TEST_F(FmiAcl, SendsEveryFirstDefaultActionOfARecordThatARuleMade)
{
    for (uint32_t action : {0U, 1U, 3U}) {
        const std::string port = "DiPort_" + std::to_string(action);
        EXPECT_TRUE(fmi_set_emca_acl_rule(port.c_str(), MACS, 1));
        fake::sent().clear();
        EXPECT_TRUE(fmi_set_default_action(port.c_str(), action));
        EXPECT_EQ(asked(), (AskedList{{SET_DEFAULT_ACTION, action}}));
    }
}

TEST_F(FmiAcl, FailsARefusedDefaultActionOnlyOnAPortWithoutARecord)
{
    server_.refused = {SET_DEFAULT_ACTION};
    EXPECT_FALSE(fmi_set_default_action(PORT, 0));
    server_.refused = {};
    EXPECT_TRUE(fmi_set_default_action(PORT, 0));
    server_.refused = {SET_DEFAULT_ACTION};
    EXPECT_TRUE(fmi_set_default_action(PORT, 1));
    EXPECT_TRUE(fmi_set_default_action(PORT, 0)) << "still the old one";
    EXPECT_EQ(asked(), (AskedList{{SET_DEFAULT_ACTION, 0}, {SET_DEFAULT_ACTION, 0}, {SET_DEFAULT_ACTION, 1}}));
}

TEST_F(FmiAcl, FailsADefaultActionThatMemoryHasNoRecordFor)
{
    fake::fail_allocation(1);
    EXPECT_FALSE(fmi_set_default_action(PORT, 0));
    EXPECT_EQ(asked(), (AskedList{{SET_DEFAULT_ACTION, 0}}));
    EXPECT_TRUE(fake::traced(1, "Out of memory"));
    EXPECT_TRUE(forgotten().empty());
}

// ---- PTP and LLDP ----

TEST_F(FmiAcl, LetsPtpThroughPolicedByThePortsSecondPolicer)
{
    EXPECT_FALSE(fmi_set_ptp_macs(PORT)) << "a port without a record";
    EXPECT_TRUE(fake::sent().empty());
    add_record();
    fmi_create_policer(1, PORT);
    fake::sent().clear();
    EXPECT_TRUE(fmi_set_ptp_macs(PORT));
    EXPECT_EQ(fake::take_sent().bytes,
              Bytes(Builder()
                        .u32(0x1B0F61)
                        .hex("00000007 00000055")
                        .text(PORT, 64)
                        .hex("00000001 00000000 000003e9 00000003")
                        .hex("00000002 000000000000000000000000 011b19000000 ffffffffffff 0000000000000000")
                        .hex("00000002 000000000000000000000000 0180c200000e ffffffffffff 0000000000000000")
                        .hex("00000008 000000000000000000000000 000000000000 000000000000 00000000 88f7 0000")));
    // A second time the rule before is not removed.
    EXPECT_TRUE(fmi_set_ptp_macs(PORT));
    EXPECT_EQ(asked(), (AskedList{{APPEND_DYNAMIC, 0x88F7}}));
    EXPECT_EQ(forgotten(), (AskedList{{REMOVE_DYNAMIC, 1003}, {REMOVE_DYNAMIC, 0}}));
}

TEST_F(FmiAcl, LetsLldpThroughPolicedByThePortsThirdPolicer)
{
    EXPECT_FALSE(fmi_set_lldp_macs(PORT)) << "a port without a record";
    add_record();
    fmi_create_policer(2, PORT);
    fake::sent().clear();
    EXPECT_TRUE(fmi_set_lldp_macs(PORT));
    EXPECT_EQ(fake::take_sent().bytes,
              Bytes(Builder()
                        .u32(0x1B0F61)
                        .hex("00000007 00000055")
                        .text(PORT, 64)
                        .hex("00000001 00000000 000003e9 00000002")
                        .hex("00000002 000000000000000000000000 0180c200000e ffffffffffff 0000000000000000")
                        .hex("00000008 000000000000000000000000 000000000000 000000000000 00000000 88cc 0000")));
    EXPECT_EQ(forgotten(), (AskedList{{REMOVE_DYNAMIC, 0}, {REMOVE_DYNAMIC, 1002}}));
}

TEST_F(FmiAcl, FailsPtpAndLldpThatTheServerRefuses)
{
    add_record();
    server_.refused = {APPEND_DYNAMIC};
    EXPECT_FALSE(fmi_set_ptp_macs(PORT));
    EXPECT_FALSE(fmi_set_lldp_macs(PORT));
    EXPECT_TRUE(forgotten().empty());
}

// ---- Policers ----

TEST_F(FmiAcl, CreatesPolicersWithTheRatesOfTheirType)
{
    const char *rates[] = {"00989680 00040000", "004c4b40 00000000", "000f4240 00000000"};
    for (uint32_t type = 0; type < 3; ++type) {
        fmi_create_policer(type, PORT);
        const Bytes bytes = fake::take_sent().bytes;
        EXPECT_EQ(Bytes(bytes.begin() + 12, bytes.begin() + 32),
                  Bytes(Builder().hex(rates[type]).hex("00000000 00000000 00000001")));
    }
}

TEST_F(FmiAcl, SendsNothingForAnUnknownPolicerType)
{
    fmi_create_policer(3, PORT);
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{1, "Unknown policer type in create policer"}}));
}

TEST_F(FmiAcl, CreatesAPolicerOnce)
{
    fmi_create_policer(2, PORT);
    fake::sent().clear();
    fmi_create_policer(2, PORT);
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_TRUE(fake::traced(
        1, "Creating policer(type 2) on port DiPort_A1 that already have policer. Returning without action"));
    fmi_create_policer(2, "DiPort_B1");
    EXPECT_EQ(fake::sent().size(), 1U);
}

TEST_F(FmiAcl, AsksAgainForAPolicerThatWasRefusedAndGoesOnUsingTheOldestRecord)
{
    server_.refused = {CREATE_POLICER};
    fmi_create_policer(0, PORT);
    server_.refused = {};
    fmi_create_policer(0, PORT);
    EXPECT_EQ(fake::sent().size(), 2U);
    fake::sent().clear();
    EXPECT_TRUE(fmi_set_supervision_acl_rule(PORT, MACS, 1));
    EXPECT_EQ(word(fake::sent().at(0).bytes, 84), 0U) << "the oldest record of the type has no id";
}

TEST_F(FmiAcl, DoesNotWaitForAPolicerThatMemoryHasNoRecordFor)
{
    fake::fail_allocation(1);
    fmi_create_policer(0, PORT);
    EXPECT_TRUE(fake::traced(1, "Out of memory."));
    EXPECT_EQ(fake::sent().size(), 1U);
    ASSERT_EQ(fake::queued(), 1U) << "nobody took the confirm";
    itc_msg *late = itc_receive(nullptr, 0, ITC_FROM_ANY);
    EXPECT_FALSE(fmi_client_dispatch(late));
    itc_free(&late);
}

TEST_F(FmiAcl, DropsAPolicersConfirmThatComesInTheWrongState)
{
    fake::on_send([this](const fake::Sent &request) {
        EXPECT_TRUE(client_.receive(message(0x1B0F55).n32(1)));
        server_.answer(request);
    });
    fmi_create_policer(0, PORT);
    EXPECT_TRUE(fake::traced(1, "FMI_ACL_CREATE_POLICER_CFM received in wrong state, state_=FAULTY"));
}

TEST_F(FmiAcl, SaysWhenAConfirmedPolicerIsUnknown)
{
    fmi_create_policer(0, PORT);
    fmi_policer_confirmed(99, 5, PORT);
    EXPECT_TRUE(fake::traced(1, "Policer on port DiPort_A1 not found"));
}

// ---- Forgetting ----

TEST_F(FmiAcl, RemovesEveryRuleOfThePortInItsOrderAndNoOthers)
{
    add_record("other");
    add_record();
    add_record("third");
    EXPECT_TRUE(fmi_set_lldp_macs(PORT));                     // 1003
    EXPECT_TRUE(fmi_set_ptp_macs(PORT));                      // 1004
    EXPECT_TRUE(fmi_set_emca_acl_rule(PORT, MACS, 1));        // 1005
    EXPECT_TRUE(fmi_set_supervision_acl_rule(PORT, MACS, 1)); // 1006
    EXPECT_TRUE(fmi_set_static_rule(PORT, 1));                // 1007
    EXPECT_EQ(forgotten(), (AskedList{{REMOVE_STATIC, 1007},
                                      {REMOVE_DYNAMIC, 1006},
                                      {REMOVE_DYNAMIC, 1005},
                                      {REMOVE_DYNAMIC, 1004},
                                      {REMOVE_DYNAMIC, 1003}}));
    EXPECT_TRUE(forgotten().empty()) << "the port is forgotten";
    EXPECT_EQ(forgotten("other"), (AskedList{{REMOVE_DYNAMIC, 0}, {REMOVE_DYNAMIC, 0}}));
    EXPECT_EQ(forgotten("third"), (AskedList{{REMOVE_DYNAMIC, 0}, {REMOVE_DYNAMIC, 0}}));
}

TEST_F(FmiAcl, KeepsThePolicersOfAForgottenPort)
{
    fmi_create_policer(0, PORT);
    add_record();
    forgotten();
    fmi_create_policer(0, PORT);
    EXPECT_TRUE(fake::sent().empty());
}

TEST_F(FmiAcl, ForgetsRulesAndPolicersWhenItsServerIsGone)
{
    add_record();
    fmi_create_policer(0, PORT);
    EXPECT_TRUE(client_.receive(message(0x1B0F57)));
    fake::reset();
    drive(3);
    fake::on_send([this](const fake::Sent &request) { server_.answer(request); });
    EXPECT_TRUE(forgotten().empty());
    fmi_create_policer(0, PORT);
    EXPECT_EQ(fake::sent().size(), 1U);
}

} // namespace
