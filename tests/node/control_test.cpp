// The control protocol from the server's side, and a reply from the other.
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

} // namespace
} // namespace kap_node
