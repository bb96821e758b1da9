// The flow manager: default actions, static and dynamic rules, policers, and the different layouts of its rejects.
#include "fmi.hpp"
#include "support.hpp"

namespace kap_node
{
namespace
{

const std::string HEAD = "00 00 00 07  00 00 00 01  ";
const std::string PORT = "'DiPort_A1' 0*55  ";
const std::string OTHER_PORT = "'TNA' 0*61  ";
const std::string NO_PORT = "'eth0' 0*60  ";

const bytes CONNECT = message_of(0x1B0F50, "00 00 00 02  00 00 01 90  00 00 00 01  00 00 00 01");
const bytes SET_ACTION = message_of(0x1B0F58, HEAD + "00 00 00 01  " + PORT + "0*4");
const bytes APPEND_STATIC = message_of(0x1B0F5B, HEAD + "00 00 00 01  " + PORT);
const bytes CREATE_POLICER =
    message_of(0x1B0F67, HEAD + "00 98 96 80  00 04 00 00  00 00 00 00  00 00 00 00  00 00 00 01  " + PORT);

// An entry for 02:00:00:00:00:05 and one for ethertype 0xAEFE.
const std::string MAC_ENTRY = "00 00 00 02  0*12  02 00 00 00 00 05  FF FF FF FF FF FF  0*8  ";
const std::string TYPE_ENTRY = "00 00 00 08  0*28  AE FE  0*2  ";

bytes append_dynamic(const std::string &port, const std::string &policer, const std::string &count_and_entries)
{
    return message_of(0x1B0F61, HEAD + port + "00 00 00 01  00 00 00 00  " + policer + count_and_entries);
}

bytes remove_static(const std::string &id, const std::string &port) { return message_of(0x1B0F5E, HEAD + id + port); }
bytes remove_dynamic(const std::string &id, const std::string &port) { return message_of(0x1B0F64, HEAD + id + port); }

const bytes APPEND_DYNAMIC = append_dynamic(PORT, "00 00 00 00  ", "00 00 00 02  " + MAC_ENTRY + TYPE_ENTRY);

// A text in the field of 128 bytes.
std::string error_field(const std::string &text) { return "'" + text + "' 0*" + std::to_string(128 - text.size()); }

const std::string UNKNOWN_PORT_TEXT = error_field("no port of this name");
const std::string INVALID_TEXT = error_field("an argument is out of range, or the message is too short for it");

class Fmi : public ServiceTest<fmi_service>
{
protected:
    void SetUp() override { make(); }
    void make()
    {
        tested = std::make_unique<fmi_service>(config, out);
        receive(CONNECT);
        out.take();
    }
    json kept()
    {
        const json all = tested->show();
        return {all["default_actions"], all["static_rules"], all["dynamic_rules"], all["policers"]};
    }
    const json nothing = json::parse("[{}, [], [], []]");
};

TEST_F(Fmi, ConnectsUnderItsOwnNumbersAndRejectsVersionsItDoesNotKnow)
{
    receive(CONNECT);
    expect_answer(message_of(0x1B0F51, "00 00 00 02  00 00 00 02  00 00 00 01"));
    receive(message_of(0x1B0F50, "00 00 00 02  00 00 01 90  00 00 00 01  00 00 00 02"));
    expect_answer(message_of(0x1B0F52, "00 00 00 02  00 00 01 90  00 00 00 01"));
}

TEST_F(Fmi, RejectsOneClientMoreThanItHasRoomFor)
{
    config.max_clients = 1;
    make();
    receive(CONNECT, OTHER_CLIENT);
    expect_answer(message_of(0x1B0F52, "00 00 00 02  00 00 01 90  00 00 00 08"), OTHER_CLIENT);
}

TEST_F(Fmi, ListsAllSixCapabilitiesInEntriesOfEightBytes)
{
    receive(message_of(0x1B0F53, "00 00 00 03  00 00 00 01"));
    expect_answer(message_of(0x1B0F54, "00 00 00 03  00 00 00 01  00 00 00 06"
                                       "00 00 00 01 0*4  00 00 00 02 0*4  00 00 00 03 0*4 "
                                       "00 00 00 04 0*4  00 00 00 05 0*4  00 00 00 06 0*4"));
}

TEST_F(Fmi, KeepsTheDefaultActionOfAPort)
{
    receive(SET_ACTION);
    expect_answer(message_of(0x1B0F59, HEAD + PORT));
    EXPECT_EQ(kept(), json::parse(R"([{"DiPort_A1": 1}, [], [], []])"));
    receive(message_of(0x1B0F58, HEAD + "00 00 00 00  " + PORT + "0*4"));
    EXPECT_EQ(kept(), json::parse(R"([{"DiPort_A1": 0}, [], [], []])"));
}

TEST_F(Fmi, RejectsADefaultActionThatItDoesNotKnow)
{
    receive(message_of(0x1B0F58, HEAD + "00 00 00 02  " + PORT + "0*4"));
    expect_answer(
        message_of(0x1B0F5A, HEAD + "00 00 00 04  " + PORT + error_field("no default action of this number")));
    EXPECT_EQ(kept(), nothing);
}

TEST_F(Fmi, AppendsAndRemovesAStaticRule)
{
    receive(APPEND_STATIC);
    expect_answer(message_of(0x1B0F5C, HEAD + "00 00 00 01  00 00 00 01  " + PORT));
    EXPECT_EQ(kept(), json::parse(R"([{}, [{"id": 1, "port": "DiPort_A1", "type": 1}], [], []])"));
    receive(remove_static("00 00 00 01  ", PORT));
    expect_answer(message_of(0x1B0F5F, HEAD + "00 00 00 01  " + PORT));
    EXPECT_EQ(kept(), nothing);
}

TEST_F(Fmi, RejectsAStaticRuleOfATypeThatItDoesNotKnow)
{
    receive(message_of(0x1B0F5B, HEAD + "00 00 00 02  " + PORT));
    expect_answer(message_of(0x1B0F5D, HEAD + "00 00 00 05  00 00 00 02  " +
                                           error_field("no static rule of this type or id") + PORT));
}

TEST_F(Fmi, RejectsTheRemovalOfAStaticRuleThatThePortDoesNotHave)
{
    receive(APPEND_STATIC);
    out.take();
    const std::string text = error_field("no static rule of this type or id");
    receive(remove_static("00 00 00 02  ", PORT));
    expect_answer(message_of(0x1B0F60, HEAD + "00 00 00 05  00 00 00 02  " + text + PORT));
    receive(remove_static("00 00 00 01  ", OTHER_PORT));
    expect_answer(message_of(0x1B0F60, HEAD + "00 00 00 05  00 00 00 01  " + text + OTHER_PORT));
    EXPECT_EQ(kept()[1].size(), 1u);
}

TEST_F(Fmi, AppendsAndRemovesADynamicRule)
{
    receive(APPEND_DYNAMIC);
    expect_answer(message_of(0x1B0F62, HEAD + PORT + "00 00 00 01"));
    EXPECT_EQ(kept(), json::parse(R"([{}, [], [{"id": 1, "port": "DiPort_A1", "policer_id": 0,
                                                "macs": ["02:00:00:00:00:05"], "ether_types": [44798]}], []])"));
    receive(remove_dynamic("00 00 00 01  ", PORT));
    expect_answer(message_of(0x1B0F65, HEAD + "00 00 00 01  " + PORT));
    EXPECT_EQ(kept(), nothing);
}

TEST_F(Fmi, ARuleWithoutEntriesStillCarriesTheRoomOfOne)
{
    receive(append_dynamic(PORT, "00 00 00 00  ", "00 00 00 00  0*36"));
    expect_answer(message_of(0x1B0F62, HEAD + PORT + "00 00 00 01"));
}

TEST_F(Fmi, RejectsEntriesThatTheMessageDoesNotHold)
{
    receive(append_dynamic(PORT, "00 00 00 00  ", "00 00 00 03  " + MAC_ENTRY + TYPE_ENTRY));
    expect_answer(message_of(0x1B0F63, HEAD + "00 00 00 06  " + PORT + INVALID_TEXT));
    // 36 times this count is 36 when cut to 32 bits.
    receive(append_dynamic(PORT, "00 00 00 00  ", "40 00 00 01  " + MAC_ENTRY + TYPE_ENTRY));
    expect_answer(message_of(0x1B0F63, HEAD + "00 00 00 06  " + PORT + INVALID_TEXT));
    EXPECT_EQ(kept(), nothing);
}

TEST_F(Fmi, RejectsAnEntryOfATypeThatItDoesNotKnow)
{
    std::string entry = TYPE_ENTRY;
    entry.replace(9, 2, "09");
    receive(append_dynamic(PORT, "00 00 00 00  ", "00 00 00 02  " + MAC_ENTRY + entry));
    expect_answer(message_of(0x1B0F63, HEAD + "00 00 00 06  " + PORT + INVALID_TEXT));
}

TEST_F(Fmi, PolicesARuleWithAPolicerOfItsOwnPortOnly)
{
    receive(CREATE_POLICER);
    expect_answer(message_of(0x1B0F68, HEAD + "00 00 00 01  " + PORT));
    receive(append_dynamic(PORT, "00 00 00 01  ", "00 00 00 02  " + MAC_ENTRY + TYPE_ENTRY));
    expect_answer(message_of(0x1B0F62, HEAD + PORT + "00 00 00 02"));
    receive(append_dynamic(OTHER_PORT, "00 00 00 01  ", "00 00 00 02  " + MAC_ENTRY + TYPE_ENTRY));
    expect_answer(message_of(0x1B0F63, HEAD + "00 00 00 06  " + OTHER_PORT + INVALID_TEXT));
    receive(append_dynamic(PORT, "00 00 00 09  ", "00 00 00 02  " + MAC_ENTRY + TYPE_ENTRY));
    expect_answer(message_of(0x1B0F63, HEAD + "00 00 00 06  " + PORT + INVALID_TEXT));
}

TEST_F(Fmi, RejectsTheRemovalOfTheDynamicRuleZeroThatNobodyEverHad)
{
    receive(remove_dynamic("00 00 00 00  ", PORT));
    expect_answer(message_of(0x1B0F66, HEAD + "00 00 00 06  00 00 00 00  " + PORT + INVALID_TEXT));
}

TEST_F(Fmi, KeepsWhatAPolicerWasCreatedWith)
{
    receive(CREATE_POLICER);
    EXPECT_EQ(kept()[3], json::parse(R"([{"id": 1, "port": "DiPort_A1", "committed_rate": 10000000,
                                         "committed_burst": 262144, "peak_rate": 0, "peak_burst": 0,
                                         "committed_only": 1}])"));
}

TEST_F(Fmi, RejectsEveryRequestForAPortItDoesNotKnow)
{
    receive(message_of(0x1B0F58, HEAD + "00 00 00 01  " + NO_PORT + "0*4"));
    expect_answer(message_of(0x1B0F5A, HEAD + "00 00 00 03  " + NO_PORT + UNKNOWN_PORT_TEXT));
    receive(message_of(0x1B0F5B, HEAD + "00 00 00 01  " + NO_PORT));
    expect_answer(message_of(0x1B0F5D, HEAD + "00 00 00 03  00 00 00 01  " + UNKNOWN_PORT_TEXT + NO_PORT));
    receive(append_dynamic(NO_PORT, "00 00 00 00  ", "00 00 00 02  " + MAC_ENTRY + TYPE_ENTRY));
    expect_answer(message_of(0x1B0F63, HEAD + "00 00 00 03  " + NO_PORT + UNKNOWN_PORT_TEXT));
    receive(message_of(0x1B0F67, HEAD + "0*20 " + NO_PORT));
    expect_answer(message_of(0x1B0F69, HEAD + "00 00 00 03  " + NO_PORT + UNKNOWN_PORT_TEXT));
    EXPECT_EQ(kept(), nothing);
}

TEST_F(Fmi, RejectsAPortNameWithoutAnEndAndEchoesNone)
{
    receive(message_of(0x1B0F58, HEAD + "00 00 00 01  'DiPort_A1DiPort_A1DiPort_A1DiPort_A1DiPort_A1DiPort_A1"
                                        "DiPort_A1X' 0*4"));
    expect_answer(message_of(0x1B0F5A, HEAD + "00 00 00 06  0*64 " + INVALID_TEXT));
}

TEST_F(Fmi, RejectsRulesBeyondItsLimit)
{
    config.max_rules = 1;
    make();
    receive(APPEND_STATIC);
    out.take();
    const std::string text = error_field("refused");
    receive(APPEND_STATIC);
    expect_answer(message_of(0x1B0F5D, HEAD + "00 00 00 01  00 00 00 01  " + text + PORT));
    receive(APPEND_DYNAMIC);
    expect_answer(message_of(0x1B0F63, HEAD + "00 00 00 01  " + PORT + text));
    receive(CREATE_POLICER);
    expect_answer(message_of(0x1B0F69, HEAD + "00 00 00 01  " + PORT + text));
}

TEST_F(Fmi, RejectsARequestOfAConnectionItDoesNotKnow)
{
    receive(message_of(0x1B0F58, "00 00 00 07  00 00 01 90  00 00 00 01  " + PORT + "0*4"));
    expect_answer(message_of(0x1B0F5A, "00 00 00 07  00 00 01 90  00 00 00 07  " + PORT +
                                           error_field("the sender is not connected")));
}

TEST_F(Fmi, RejectsAsItWasToldInTheLayoutOfTheRequest)
{
    tested->control({"fault", "reject", "FMI_ACL_REMOVE_DYNAMIC_RULE_REQ", "1", "FMI_ERROR_ACL_NOT_SUPPORTED"});
    receive(remove_dynamic("00 00 00 05  ", PORT));
    expect_answer(message_of(0x1B0F66, HEAD + "00 00 00 02  00 00 00 05  " + PORT + error_field("refused")));
}

TEST_F(Fmi, RefusesEveryTruncationOfEveryRequest)
{
    const auto all = [&] { return kept(); };
    expect_truncations_refused(SET_ACTION, 80, 0x1B0F5A, 6, all);
    expect_truncations_refused(APPEND_STATIC, 80, 0x1B0F5D, 6, all);
    expect_truncations_refused(remove_static("00 00 00 01  ", PORT), 80, 0x1B0F60, 6, all);
    expect_truncations_refused(APPEND_DYNAMIC, 164, 0x1B0F63, 6, all);
    expect_truncations_refused(remove_dynamic("00 00 00 01  ", PORT), 80, 0x1B0F66, 6, all);
    expect_truncations_refused(CREATE_POLICER, 96, 0x1B0F69, 6, all);
    expect_truncations_refused(CONNECT, 20, 0x1B0F52, 6, [&] { return tested->show()["clients"]; });
    expect_truncations_refused(message_of(0x1B0F53, HEAD), 12, 0x1B0F55, 6, all);
}

TEST_F(Fmi, RejectsAnAddressOfWhichOnlyAPartIsToBeMatched)
{
    std::string entry = MAC_ENTRY;
    entry.replace(entry.rfind("FF  0*8"), 2, "00");
    receive(append_dynamic(PORT, "00 00 00 00  ", "00 00 00 02  " + entry + TYPE_ENTRY));
    expect_answer(message_of(0x1B0F63, HEAD + "00 00 00 02  " + PORT + error_field("refused")));
    EXPECT_EQ(kept(), nothing);
}

// Keeps what it is asked for, and refuses while it has something to say.
class wilful_backend : public rule_backend
{
public:
    std::optional<kernel_refusal> apply(const std::string &port, const port_rules &wanted) override
    {
        ++asked;
        if (!refusal) {
            ports[port] = wanted;
        }
        return refusal;
    }
    json show() override { return {{"asked", asked}}; }

    std::optional<kernel_refusal> refusal;
    std::map<std::string, port_rules> ports;
    int asked = 0;
};

class FmiBackend : public Fmi
{
protected:
    void SetUp() override
    {
        tested = std::make_unique<fmi_service>(config, out, backend);
        receive(CONNECT);
        out.take();
    }
    // The request is rejected with this reason, and nothing has become another.
    void expect_refused(const bytes &request, uint32_t reason)
    {
        const json before = kept();
        const auto in_kernel = backend.ports;
        backend.refusal = kernel_refusal{EPERM, "Operation not permitted"};
        receive(request);
        const auto answers = out.take();
        ASSERT_EQ(answers.size(), 1u);
        EXPECT_EQ(message_view(answers[0].data).number(), message_view(request).number() + 2);
        EXPECT_EQ(message_view(answers[0].data).word(12), reason);
        EXPECT_EQ(kept(), before);
        EXPECT_EQ(backend.ports, in_kernel);
        backend.refusal.reset();
    }
    wilful_backend backend;
};

TEST_F(FmiBackend, IsGivenAllRulesOfThePortAfterEachChange)
{
    receive(SET_ACTION);
    receive(APPEND_STATIC);
    receive(CREATE_POLICER);
    receive(append_dynamic(PORT, "00 00 00 02  ", "00 00 00 02  " + MAC_ENTRY + TYPE_ENTRY));
    port_rules wanted;
    wanted.default_action = FMI_LET_IN;
    wanted.static_rules = {{1, 1}};
    wanted.policers = {{2, {10000000, 262144, 0, 0, 1}}};
    wanted.dynamic_rules[3] = {2, {{2, 0, 0, 0, 0, 5}}, {0xAEFE}};
    EXPECT_EQ(backend.ports, (std::map<std::string, port_rules>{{"DiPort_A1", wanted}}));
    receive(remove_dynamic("00 00 00 03  ", PORT));
    receive(remove_static("00 00 00 01  ", PORT));
    wanted.dynamic_rules.clear();
    wanted.static_rules.clear();
    EXPECT_EQ(backend.ports, (std::map<std::string, port_rules>{{"DiPort_A1", wanted}}));
    EXPECT_EQ(backend.asked, 6);
}

TEST_F(FmiBackend, TheRulesOfAConnectionGoTenSecondsAfterItInOneChangeButAPolicerInUse)
{
    receive(SET_ACTION);
    receive(APPEND_STATIC);
    receive(CREATE_POLICER);
    receive(append_dynamic(PORT, "00 00 00 02  ", "00 00 00 01  " + MAC_ENTRY));
    receive(CONNECT, OTHER_CLIENT);
    const std::string from_other = "00 00 00 07  00 00 00 02  ";
    receive(
        message_of(0x1B0F61, from_other + PORT + "00 00 00 01  00 00 00 00  00 00 00 02  00 00 00 01  " + TYPE_ENTRY),
        OTHER_CLIENT);
    const int asked = backend.asked;
    tested->client_gone(CLIENT);
    tested->tick(now);
    tested->tick(now + 9'999);
    EXPECT_EQ(backend.asked, asked);
    backend.refusal = kernel_refusal{EPERM, "Operation not permitted"};
    const json before = kept();
    tested->tick(now + 10'000);
    EXPECT_EQ(kept(), before);
    backend.refusal.reset();
    tested->tick(now + 20'000);
    EXPECT_EQ(backend.asked, asked + 2);
    port_rules wanted;
    wanted.default_action = FMI_LET_IN;
    wanted.policers = {{2, {10000000, 262144, 0, 0, 1}}};
    wanted.dynamic_rules[4] = {2, {}, {0xAEFE}};
    EXPECT_EQ(backend.ports, (std::map<std::string, port_rules>{{"DiPort_A1", wanted}}));
    receive(message_of(0x1B0F64, from_other + "00 00 00 04  " + PORT), OTHER_CLIENT);
    tested->tick(now + 30'000);
    EXPECT_EQ(kept(), json::parse(R"([{"DiPort_A1": 1}, [], [], []])"));
    EXPECT_EQ(tested->next_deadline(), std::nullopt);
}

TEST_F(FmiBackend, ARefusalRejectsAndChangesNothing)
{
    for (const bool filled : {false, true}) {
        SCOPED_TRACE(filled ? "with rules" : "without rules");
        if (filled) {
            receive(message_of(0x1B0F58, HEAD + "00 00 00 00  " + PORT + "0*4"));
            receive(APPEND_STATIC);
            receive(APPEND_DYNAMIC);
            receive(CREATE_POLICER);
            out.take();
            expect_refused(remove_static("00 00 00 01  ", PORT), 1);
            expect_refused(remove_dynamic("00 00 00 02  ", PORT), 1);
        }
        expect_refused(SET_ACTION, 1);
        expect_refused(APPEND_STATIC, 1);
        expect_refused(APPEND_DYNAMIC, 1);
        expect_refused(CREATE_POLICER, 1);
    }
}

TEST_F(FmiBackend, ARefusedRequestUsesUpNoId)
{
    expect_refused(APPEND_DYNAMIC, 1);
    receive(APPEND_DYNAMIC);
    expect_answer(message_of(0x1B0F62, HEAD + PORT + "00 00 00 01"));
}

TEST_F(FmiBackend, ARefusedRequestTakesNoRoom)
{
    config.max_rules = 1;
    SetUp();
    expect_refused(APPEND_STATIC, 1);
    receive(APPEND_STATIC);
    expect_answer(message_of(0x1B0F5C, HEAD + "00 00 00 01  00 00 00 01  " + PORT));
    expect_refused(remove_static("00 00 00 01  ", PORT), 1);
    receive(APPEND_DYNAMIC);
    expect_answer(message_of(0x1B0F63, HEAD + "00 00 00 01  " + PORT + error_field("refused")));
}

TEST_F(FmiBackend, WhatTheKernelCannotDoIsNotSupported)
{
    backend.refusal = kernel_refusal{EOPNOTSUPP, "Operation not supported"};
    receive(SET_ACTION);
    expect_answer(message_of(0x1B0F5A, HEAD + "00 00 00 02  " + PORT + error_field("refused")));
}

TEST_F(FmiBackend, IsNotAskedForWhatTheServiceItselfRejects)
{
    receive(message_of(0x1B0F58, HEAD + "00 00 00 02  " + PORT + "0*4"));
    receive(message_of(0x1B0F58, HEAD + "00 00 00 01  " + NO_PORT + "0*4"));
    receive(remove_dynamic("00 00 00 01  ", PORT));
    receive(remove_static("00 00 00 01  ", PORT));
    receive(append_dynamic(PORT, "00 00 00 01  ", "00 00 00 02  " + MAC_ENTRY + TYPE_ENTRY));
    EXPECT_EQ(backend.asked, 0);
    EXPECT_EQ(out.take().size(), 5u);
}

TEST_F(FmiBackend, WhatTheBackendTellsIsShown) { EXPECT_EQ(tested->show()["kernel"], json::parse(R"({"asked": 0})")); }

TEST_F(Fmi, ShowsItsWholeStateInAFixedShape)
{
    const json shown = tested->show();
    std::vector<std::string> keys;
    for (const auto &[key, value] : shown.items()) {
        keys.push_back(key);
    }
    EXPECT_EQ(keys,
              (std::vector<std::string>{"clients", "counters", "default_actions", "dynamic_rules", "faults", "mailbox",
                                        "policers", "ports", "service", "static_rules", "waiting_answers"}));
}

} // namespace
} // namespace kap_node
