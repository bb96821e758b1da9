// The link list: the bytes of its reply.
#include <cstdlib>

#include <gmock/gmock.h>

#include "neighbours.hpp"
#include "shell/shell_client.hpp"

namespace
{

using testing::ElementsAre;

constexpr uint32_t SHELL = 0x00050001;

class ShellLinkList : public IemliTest
{
protected:
    static Bytes reply()
    {
        EXPECT_TRUE(fake::dispatch(shell_client_dispatch, SHELL, Builder().u32(0x1B0CE3)));
        const fake::Sent sent = fake::take_sent();
        EXPECT_EQ(sent.to, SHELL);
        EXPECT_EQ(sent.from, 0xFFF00000U);
        return sent.bytes;
    }

    // `count` bytes of the reply from `offset` of the first record on.
    static std::string field(const Bytes &bytes, size_t offset, size_t count)
    {
        const auto from = bytes.begin() + 8 + static_cast<ptrdiff_t>(offset);
        return fake::to_hex(Bytes(from, from + static_cast<ptrdiff_t>(count)));
    }

    static void add_sample(iml_link *link, uint8_t valid, uint32_t sec, uint32_t nsec)
    {
        const supervision_rtt rtt = {sec, nsec};
        rtt_samples_append(&link->rtt_samples, valid == 1 ? SUPERVISION_ANSWERED : SUPERVISION_LOST, &rtt);
    }

    static std::string words(const std::vector<uint32_t> &values)
    {
        Builder builder;
        for (const uint32_t value : values) {
            builder.u32(value);
        }
        return fake::to_hex(builder);
    }

    static iml_link *only_link(const Link &link = {}) { return iml_link_find_by_ref(add_link(1, link)); }

    static std::string rtt_fields() { return field(reply(), 320, 24); }
};

TEST_F(ShellLinkList, DeclinesOtherNumbersButTracesThem)
{
    EXPECT_FALSE(fake::dispatch(shell_client_dispatch, SHELL, Builder().u32(0x1B0CE2)));
    EXPECT_FALSE(fake::dispatch(shell_client_dispatch, SHELL, Builder().u32(0x1B0E0B)));
    expect_traces({{2, "ShellCmdsignalDispatcher()"}, {2, "ShellCmdsignalDispatcher()"}});
    expect_nothing_sent();
}

TEST_F(ShellLinkList, OfNoLinksIs352BytesWithCountZero)
{
    EXPECT_EQ(fake::to_hex(reply()), fake::to_hex(Builder().u32(0x1B0CE2).zeros(348)));
    expect_traces({{2, "ShellCmdsignalDispatcher()"}, {17, "IECTM_COLI_IML_LINK_LIST_REQ"}});
}

TEST_F(ShellLinkList, HasEveryFieldInItsPlace)
{
    iml_link *link = only_link({.apps = {APP_1, APP_2}});
    link->connection_ref = 0x01020304;
    link->status = IML_LINK_ENABLED;
    link->disabled_reason = IML_LINK_REASON_NO_CONNECTIVITY;
    link->rtt_enabled = 1;
    link->supervision_state = SUPERVISION_FAILED;
    link->rtt = {0x1112, 0x2122, 0x3132};
    link->supervision_results = 0x41424344;
    link->supervision_lost = 0x51525354;
    add_sample(link, 1, 0, 1234567);
    EXPECT_EQ(fake::to_hex(reply()), fake::to_hex(Builder()
                                                      .u32(0x1B0CE2)
                                                      .u32(1)
                                                      .u32(0x01020304)
                                                      .u32(1)
                                                      .u8(5)
                                                      .mac("02:00:00:00:00:A1")
                                                      .mac("02:00:00:00:0C:01")
                                                      .text("IDL_A1", 16)
                                                      .u8(0)
                                                      .u16(100)
                                                      .u32(2)
                                                      .u32(1)
                                                      .u32(4)
                                                      .mac(APP_1.near_end)
                                                      .mac(APP_1.far_end)
                                                      .mac(APP_2.near_end)
                                                      .mac(APP_2.far_end)
                                                      .zeros(14 * 12)
                                                      .u32(1)
                                                      .u32(2)
                                                      .u16(0x1112)
                                                      .u16(0x2122)
                                                      .u16(0x3132)
                                                      .zeros(2)
                                                      .u32(0x41424344)
                                                      .u32(0x51525354)
                                                      .zeros(2)
                                                      .u8(1)
                                                      .zeros(49)
                                                      .u32(1234)
                                                      .u32(56)
                                                      .u32(1234)
                                                      .u32(56)
                                                      .u32(1234)
                                                      .u32(56)));
}

TEST_F(ShellLinkList, IsLongerThanItsRecordsNeed)
{
    only_link();
    EXPECT_EQ(reply().size(), 352U);
    add_link(1, {.vlan = 101});
    EXPECT_EQ(reply().size(), 704U);
    add_link(1, {.vlan = 102});
    const Bytes three = reply();
    EXPECT_EQ(three.size(), 1056U);
    EXPECT_EQ(Bytes(three.begin() + 4, three.begin() + 8), Bytes(Builder().u32(3)));
    EXPECT_EQ(Bytes(three.begin() + 8 + 3 * 344, three.end()), Bytes(16));
}

TEST_F(ShellLinkList, IsInTableOrder)
{
    add_link(1, {.vlan = 101});
    add_link(1, {.vlan = 102});
    add_link(1, {.vlan = 103});
    iml_link *second = iml_link_find_by_ref(2);
    iml_link_remove(second);
    iml_link_free(second);
    add_link(2, {.vlan = 104});
    const Bytes bytes = reply();
    EXPECT_EQ(field(bytes, 4, 4), words({1}));
    EXPECT_EQ(field(bytes, 344 + 4, 4), words({2}));
    EXPECT_EQ(field(bytes, 344 + 38, 2), fake::to_hex(Builder().u16(104)));
    EXPECT_EQ(field(bytes, 688 + 4, 4), words({3}));
}

TEST_F(ShellLinkList, NamesSixteenAppLinksAtTheMost)
{
    std::vector<std::string> macs;
    for (unsigned i = 0; i < 40; ++i) {
        char mac[18];
        snprintf(mac, sizeof mac, "02:00:00:00:05:%02X", i);
        macs.emplace_back(mac);
    }
    std::vector<AppLink> apps;
    for (unsigned i = 0; i < 20; ++i) {
        apps.push_back({macs[2 * i].c_str(), macs[2 * i + 1].c_str()});
    }
    only_link({.apps = apps});
    const Bytes bytes = reply();
    EXPECT_EQ(field(bytes, 40, 4), words({16}));
    apps.resize(16);
    EXPECT_EQ(field(bytes, 52, 192), fake::to_hex(app_link_array(apps)));
    EXPECT_EQ(field(bytes, 244, 4), words({0}));
}

TEST_F(ShellLinkList, LeavesTheNearEndMacOutWhileTheManagerIsNotInitiated)
{
    only_link();
    set_manager_state(KAP_VORN_FAULTY_STATE);
    EXPECT_EQ(field(reply(), 9, 6), "000000000000");
    EXPECT_THAT(traces_of(7), ElementsAre("Could not fetch MAC. VORN manager is not initiated",
                                          "Could not fetch near end cpm mac, reason: 99"));
}

TEST_F(ShellLinkList, LeavesTheNearEndMacOutForAnUnknownPort)
{
    only_link({.port = "IDL_B1"});
    const Bytes bytes = reply();
    EXPECT_EQ(field(bytes, 9, 6), "000000000000");
    EXPECT_EQ(field(bytes, 15, 6), "020000000c01");
    EXPECT_THAT(traces_of(7), ElementsAre("Could not fetch near end cpm mac, reason: 4"));
}

TEST_F(ShellLinkList, CutsThePortNameToItsField)
{
    iml_link *link = only_link();
    memcpy(link->link_data->imlPortName, "ABCDEFGHIJKLMNOP", 17);
    EXPECT_EQ(field(reply(), 21, 17), fake::to_hex(Builder().text("ABCDEFGHIJKLMNO", 17)));
}

TEST_F(ShellLinkList, MapsStatesItDoesNotKnow)
{
    iml_link *link = only_link();
    const uint32_t rtt_states[][2] = {{0, 0}, {1, 1}, {2, 2}, {7, 2}};
    for (const auto &[stored, listed] : rtt_states) {
        link->rtt_enabled = stored;
        EXPECT_EQ(field(reply(), 244, 4), words({listed}));
    }
    const uint32_t supervision_states[][2] = {{0, 0}, {1, 1}, {2, 2}, {3, 0}};
    for (const auto &[stored, listed] : supervision_states) {
        link->supervision_state = static_cast<supervision_run_state>(stored);
        EXPECT_EQ(field(reply(), 248, 4), words({listed}));
    }
}

TEST_F(ShellLinkList, SaysSoWithoutAnRttSample)
{
    iml_link *link = only_link();
    add_sample(link, 0, 9, 9);
    const Bytes bytes = reply();
    EXPECT_EQ(field(bytes, 270, 1), "00");
    EXPECT_EQ(field(bytes, 320, 24), words({0, 0, 0, 0, 0, 0}));
}

TEST_F(ShellLinkList, GivesMinimumAverageAndMaximumOfTheValidSamples)
{
    iml_link *link = only_link();
    add_sample(link, 1, 0, 20050);
    add_sample(link, 0, 0, 1);
    add_sample(link, 1, 0, 10010);
    add_sample(link, 0, 4, 0);
    add_sample(link, 1, 0, 30999);
    EXPECT_EQ(rtt_fields(), words({10, 1, 20, 35, 30, 99}));
}

TEST_F(ShellLinkList, ComparesSamplesOnSecondsFirst)
{
    iml_link *link = only_link();
    add_sample(link, 1, 1, 0);
    add_sample(link, 1, 0, 999999990);
    add_sample(link, 1, 1, 10);
    EXPECT_EQ(rtt_fields(), words({999999, 99, 1000000, 0, 1000000, 1}));
}

TEST_F(ShellLinkList, ListsOnlyTheLow32BitsOfALongRoundTrip)
{
    iml_link *link = only_link();
    add_sample(link, 1, 4, 300000000); // 4,300,000,000 - 4,294,967,296 = 5,032,704
    EXPECT_EQ(rtt_fields(), words({5032, 70, 5032, 70, 5032, 70}));
}

TEST_F(ShellLinkList, SumsIn64Bits)
{
    iml_link *link = only_link();
    add_sample(link, 1, 4, 0);
    add_sample(link, 1, 2, 0);
    EXPECT_EQ(rtt_fields(), words({2000000, 0, 3000000, 0, 4000000, 0}));
}

TEST_F(ShellLinkList, TreatsTheLargestSampleAsItsLow32Bits)
{
    iml_link *link = only_link();
    add_sample(link, 1, 0xFFFFFFFF, 0xFFFFFFFF);
    // (2^32 - 1) * 1,000,000,000 + 2^32 - 1 = 3,294,967,295 modulo 2^32
    EXPECT_EQ(rtt_fields(), words({3294967, 29, 3294967, 29, 3294967, 29}));
}

TEST_F(ShellLinkList, CountsLinksOfATable)
{
    EXPECT_EQ(count_links(nullptr), 0U);
    add_link(1, {});
    add_link(1, {.vlan = 101});
    EXPECT_EQ(count_links(iml_link_first()), 2U);
}

} // namespace
