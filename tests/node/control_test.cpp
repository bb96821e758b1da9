// The control protocol from the server's side, and the configuration.
#include "config.hpp"
#include "control_wire.hpp"
#include "support.hpp"

namespace kap_node
{
namespace
{

// Answers with the words it was given; refuses the word "no".
class echo : public program
{
public:
    void receive(mailbox /*sender*/, std::span<const uint8_t> /*data*/, millis /*now*/) override {}
    void client_gone(mailbox /*address*/) override {}
    void tick(millis /*now*/) override {}
    std::optional<millis> next_deadline() const override { return std::nullopt; }
    bool dying() const override { return false; }
    json control(const arguments &words) override
    {
        if (words[0] == "no") {
            throw command_error("no it is");
        }
        return words;
    }
};

bytes request(const std::string &text)
{
    return message_writer()
        .host_word(0x1B9000)
        .host_word(0x12345678)
        .append({reinterpret_cast<const uint8_t *>(text.data()), text.size()})
        .take();
}

json answer_to(const bytes &message)
{
    echo runs;
    const bytes reply = control_answer(runs, message);
    EXPECT_EQ(message_view(reply).number(), 0x1B9001u);
    return control_content(reply);
}

TEST(Control, AnswersWithTheResultAndTheTagOfTheRequest)
{
    echo runs;
    const bytes reply = control_answer(runs, request(R"({"command": ["a", "b"]})"));
    EXPECT_EQ(std::string(reply.begin() + 8, reply.end()), R"({"ok":true,"result":["a","b"]})");
    EXPECT_EQ(control_tag(reply), 0x12345678u);
}

TEST(Control, AnswersARefusedCommandWithItsReason)
{
    EXPECT_EQ(answer_to(request(R"({"command": ["no"]})")), json::parse(R"({"ok": false, "error": "no it is"})"));
}

TEST(Control, RefusesWhatIsNoRequest)
{
    const std::vector<std::string> senseless = {"",
                                                " ",
                                                "{",
                                                "show",
                                                R"("show")",
                                                "[]",
                                                "{}",
                                                R"({"command": "show"})",
                                                R"({"command": []})",
                                                R"({"command": [1]})",
                                                R"({"command": ["a", null]})",
                                                R"({"command": ["a"]} x)",
                                                "{\"command\": [\"\xFF\"]}",
                                                R"({"command": [)" + std::string(60000, '[')};
    for (const std::string &text : senseless) {
        EXPECT_EQ(answer_to(request(text))["ok"], false) << text.substr(0, 40);
    }
}

TEST(Control, RefusesEveryTruncationOfARequest)
{
    const bytes good = request(R"({"command": ["a"]})");
    for (size_t size = 4; size < good.size(); ++size) {
        EXPECT_EQ(answer_to(bytes(good.begin(), good.begin() + static_cast<long>(size)))["ok"], false) << size;
    }
    EXPECT_EQ(answer_to(good)["ok"], true);
}

TEST(Control, BoundsTheSizeAndTheNumberOfWords)
{
    json words = json::array();
    for (int i = 0; i < 64; ++i) {
        words.push_back("w");
    }
    EXPECT_EQ(answer_to(request(json{{"command", words}}.dump()))["ok"], true);
    words.push_back("w");
    EXPECT_EQ(answer_to(request(json{{"command", words}}.dump()))["ok"], false);
    const std::string padding(65536 - 8 - 18, ' ');
    EXPECT_EQ(answer_to(request(R"({"command": ["a"]})" + padding))["ok"], true);
    EXPECT_EQ(answer_to(request(R"({"command": ["a"]})" + padding + " "))["ok"], false);
}

// ---- Configuration -------------------------------------------------------------------------------------------------

std::string problem_of(const char *text)
{
    try {
        parse_config(json::parse(text));
    } catch (const config_error &problem) {
        return problem.what();
    }
    return "";
}

TEST(Configuration, FillsInWhatIsNotGiven)
{
    const node_config config = parse_config(json::parse(R"({"ports": [{"name": "IDLA1", "namespace": "near"}]})"));
    ASSERT_EQ(config.ports.size(), 1u);
    const port_config &port = config.ports[0];
    EXPECT_EQ(port.fmi_name, "IDLA1");
    EXPECT_EQ(port.reported_name_space, "near");
    EXPECT_FALSE(port.unlocked);
    EXPECT_FALSE(port.vlan_interfaces);
    EXPECT_EQ(port.capability, 2u);
    EXPECT_EQ(config.max_clients, 64u);
    EXPECT_EQ(config.max_endpoints, 65536u);
}

// A reply of the wrong shape is a refusal like any other, for whoever waits for one.
TEST(ControlReply, IsTakenForGoodOnlyWhenItSaysSo)
{
    EXPECT_EQ(control_result(json::parse(R"({"ok": true, "result": [1]})")), json::parse("[1]"));
    EXPECT_EQ(control_result(json::parse(R"({"ok": true})")), json());
    for (const char *bad : {"{}", "[]", "7", "null", R"({"ok": false})", R"({"ok": 1})", R"({"ok": "true"})",
                            R"({"ok": 1, "error": 7})", R"({"error": "no"})"}) {
        EXPECT_THROW(control_result(json::parse(bad)), command_error) << bad;
    }
    EXPECT_THROW(control_result(json(json::value_t::discarded)), command_error);
}

TEST(Configuration, ReadsWhatTheDemonstrationUses)
{
    const node_config config = read_config_file(KAP_DEMO_CONFIG);
    ASSERT_EQ(config.ports.size(), 8u);
    EXPECT_EQ(config.ports[0].name, "IDLA1");
    EXPECT_EQ(config.ports[0].interface, "idl_a1");
    EXPECT_TRUE(config.ports[0].unlocked);
    EXPECT_EQ(config.ports[4].name, "TNA");
    EXPECT_TRUE(config.ports[4].vlan_interfaces);
    ASSERT_EQ(config.far_end.size(), 1u);
    EXPECT_EQ(config.far_end[0].name_space, "far");
    EXPECT_EQ(config.far_end[0].interfaces, (std::vector<std::string>{"idl_a1", "tn_a"}));
}

TEST(Configuration, SaysWhereItIsWrong)
{
    EXPECT_EQ(problem_of("[]"), "configuration: is not an object");
    EXPECT_EQ(problem_of(R"({"prots": []})"), "configuration: unknown key \"prots\"");
    EXPECT_EQ(problem_of(R"({"ports": {}})"), "ports: is not a list");
    EXPECT_EQ(problem_of(R"({"ports": [{}]})"), "ports[0]: a port needs a name");
    EXPECT_EQ(problem_of(R"({"ports": [{"name": "A"}, {"name": "A"}]})"), "ports[1]: a second port of the name A");
    EXPECT_EQ(problem_of(R"({"ports": [{"name": "A", "adm_state": "ajar"}]})"),
              "ports[0].adm_state: \"ajar\" is neither \"locked\" nor \"unlocked\"");
    EXPECT_EQ(problem_of(R"({"ports": [{"name": "A", "namespace": "../x"}]})"), "ports[0].namespace: is a path");
    EXPECT_EQ(problem_of(R"({"ports": [{"name": "A", "capability": -1}]})"),
              "ports[0].capability: is no number from 0 to 4294967295");
    EXPECT_EQ(problem_of(R"({"ports": [{"name": "A", "vlan_interfaces": 1}]})"),
              "ports[0].vlan_interfaces: is neither true nor false");
    EXPECT_EQ(problem_of(R"({"ports": [{"name": 7}]})"), "ports[0].name: is not a string");
    EXPECT_EQ(problem_of(R"({"far_end": [{"namespace": "far"}]})"), "far_end[0].interfaces: is not a list of names");
    EXPECT_EQ(problem_of(R"({"emi": {"max_endpoints": "many"}})"),
              "emi.max_endpoints: is no number from 0 to 16000000");
}

TEST(Configuration, RefusesNamesThatDoNotFitTheMessages)
{
    EXPECT_EQ(problem_of(R"({"ports": [{"name": "123456789012345"}]})"), "");
    EXPECT_NE(problem_of(R"({"ports": [{"name": "1234567890123456"}]})"), "");
    EXPECT_NE(problem_of(R"({"ports": [{"name": "A", "interface": "1234567890123456"}]})"), "");
    EXPECT_NE(problem_of("{\"ports\": [{\"name\": \"A\\u0000B\"}]}"), "");
}

TEST(Configuration, NamesTheFileThatItCannotRead)
{
    EXPECT_THROW(read_config_file("/nonexistent/node.json"), config_error);
}

} // namespace
} // namespace kap_node
