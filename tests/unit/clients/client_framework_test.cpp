// The common half of the clients: copies of texts, and what holds for every client alike.
#include "clients/client_framework.hpp"

#include <type_traits>

#include "client_test.hpp"

using namespace client_test;

namespace
{

class ClientFramework : public fake::PlatformTest
{
};

std::string as_format(const char *text, size_t size = 256)
{
    std::vector<char> field(size, 'x');
    client_copy_as_format(field.data(), size, text);
    return field.data();
}

// A conversion that was forgotten does not compile, in either direction.
template <class Net, class Host>
constexpr bool NEVER_CONVERTS = !std::is_convertible_v<Net, Host> && !std::is_convertible_v<Host, Net> &&
                                !std::is_assignable_v<Host &, Net> && !std::is_assignable_v<Net &, Host>;
static_assert(NEVER_CONVERTS<be16, uint16_t> && NEVER_CONVERTS<be32, uint32_t>);
static_assert(NEVER_CONVERTS<be16, uint32_t> && NEVER_CONVERTS<be32, uint16_t> && NEVER_CONVERTS<be32, be16>);

TEST(NetworkOrder, PutsTheHighestByteFirst)
{
    const be16 half = to_be16(0x0102);
    const be32 word = to_be32(0x03040506);
    const uint8_t half_bytes[] = {1, 2};
    const uint8_t word_bytes[] = {3, 4, 5, 6};
    EXPECT_EQ(memcmp(&half, half_bytes, sizeof half), 0);
    EXPECT_EQ(memcmp(&word, word_bytes, sizeof word), 0);
    EXPECT_EQ(from_be16(half), 0x0102);
    EXPECT_EQ(from_be32(word), 0x03040506u);
}

TEST_F(ClientFramework, CopiesATextWithoutConversionsAsItIs)
{
    EXPECT_EQ(as_format("eth0"), "eth0");
    EXPECT_EQ(as_format(""), "");
}

TEST_F(ClientFramework, CutsACopiedFormatToItsField)
{
    EXPECT_EQ(as_format("123456789012345678901234567890", 16), "123456789012345");
    EXPECT_EQ(as_format("12345678901234%%67", 16), "12345678901234%");
    EXPECT_EQ(as_format("abc", 1), "");
}

TEST_F(ClientFramework, TurnsTwoPercentSignsIntoOne)
{
    EXPECT_EQ(as_format("a%%b"), "a%b");
    EXPECT_EQ(as_format("%%%%"), "%%");
    EXPECT_EQ(as_format("%%d"), "%d");
}

TEST_F(ClientFramework, ConsumesEveryOtherConversionAndPrintsNothing)
{
    for (const char *conversion : {"%s", "%n", "%d", "%-+ #'08.3lld", "%*.*f", "%hhx", "%zu", "%jd", "%Lf", "%td",
                                   "%qu", "%.s", "%5%", "%k", "%lc"}) {
        EXPECT_EQ(as_format((std::string("a") + conversion + "|b").c_str()), "a|b") << conversion;
    }
}

TEST_F(ClientFramework, NeverReadsBehindAConversionThatEndsTheText)
{
    for (const char *text : {"ab%", "ab%-", "ab%10", "ab%10.", "ab%.5", "ab%ll", "ab%08.3l"}) {
        // On the heap, so that a sanitizer sees a byte read behind the end.
        char *copy = strdup(text);
        EXPECT_EQ(as_format(copy), "ab") << text;
        free(copy);
    }
}

TEST_F(ClientFramework, CutsANameOfFortyCharactersTo31AndATerminator)
{
    const std::string name(40, 'n');
    char field[32];
    client_copy_text(field, sizeof field, name.c_str(), name.size());
    EXPECT_EQ(std::string(field), std::string(31, 'n'));
}

TEST_F(ClientFramework, CopiesNoFurtherThanItsBound)
{
    const char unterminated[4] = {'a', 'b', 'c', 'd'};
    char field[16];
    client_copy_text(field, sizeof field, unterminated, sizeof unterminated);
    EXPECT_STREQ(field, "abcd");
    client_copy_text(field, sizeof field, unterminated, 0);
    EXPECT_STREQ(field, "");
}

TEST_F(ClientFramework, CountsWhatLiesBehindAnOffset)
{
    itc_msg *msg = fake::make(SERVER, Bytes(20));
    EXPECT_EQ(client_tail_size(msg, 12), 8U);
    EXPECT_EQ(client_tail_size(msg, 20), 0U);
    EXPECT_EQ(client_tail_size(msg, 21), 0U);
    itc_free(&msg);
}

TEST_F(ClientFramework, MeasuresACountThatWouldOverflow32Bits)
{
    static int handled;
    handled = 0;
    static client_record client;
    static constexpr client_step STEPS[] = {
        {7, 16, [](const client_input &) { ++handled; }, IN_ANY_STATE, STAYS, nullptr, 48}};
    static constexpr client_protocol PROTOCOL = {.server_name = "seven",
                                                 .faulty_event = 0,
                                                 .faulty_state = 1,
                                                 .state_name = nullptr,
                                                 .message_name = [](uint32_t) { return "SEVEN"; },
                                                 .steps = STEPS,
                                                 .step_count = std::size(STEPS)};
    const auto dispatch = [](const itc_msg *msg) { return client_dispatch(&client, PROTOCOL, msg); };
    // 48 times this count is 0 in 32 bits.
    EXPECT_TRUE(fake::dispatch(dispatch, SERVER, Builder().u32(7).zeros(8).n32(0x10000000)));
    EXPECT_EQ(handled, 0);
    EXPECT_TRUE(fake::traced(1, "SEVEN too short: 16 bytes"));
    EXPECT_TRUE(fake::dispatch(dispatch, SERVER, Builder().u32(7).zeros(8).n32(1).zeros(48)));
    EXPECT_EQ(handled, 1);
    EXPECT_FALSE(fake::dispatch(dispatch, SERVER, Builder().u32(8)));
}

TEST_F(ClientFramework, ReportsNoResultForAMessageThatIsRefusedOrIgnored)
{
    static client_verdict verdict;
    static client_record client;
    static constexpr client_step STEPS[] = {{7, 16, nullptr, IN_ANY_STATE, reports(PMI_ENABLE_PORT_VLAN_DONE),
                                             [](const client_input &) { return verdict; }}};
    static constexpr client_protocol PROTOCOL = {.server_name = "seven",
                                                 .faulty_event = 0,
                                                 .faulty_state = 1,
                                                 .state_name = nullptr,
                                                 .message_name = [](uint32_t) { return "SEVEN"; },
                                                 .steps = STEPS,
                                                 .step_count = std::size(STEPS)};
    const auto raised_by = [](client_verdict wanted) {
        verdict = wanted;
        events().clear();
        client = {.handler = record_event};
        EXPECT_TRUE(fake::dispatch([](const itc_msg *msg) { return client_dispatch(&client, PROTOCOL, msg); }, SERVER,
                                   Builder().u32(7).zeros(12)));
        return raised();
    };
    const std::vector<uint32_t> reported = {100 + PMI_ENABLE_PORT_VLAN_DONE};
    EXPECT_EQ(raised_by(CLIENT_TAKEN), reported);
    EXPECT_EQ(raised_by(CLIENT_TAKEN_EVENT_FIRST), reported);
    for (const client_verdict wanted : {CLIENT_IGNORED, CLIENT_REFUSED, CLIENT_REFUSED_AT_ONCE}) {
        EXPECT_TRUE(raised_by(wanted).empty()) << wanted;
    }
}

} // namespace
