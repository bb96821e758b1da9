// Names, sizes, and what goes out for every answer: the exact bytes and the exact trace.
#include <map>

#include <gmock/gmock.h>

#include "iemli/iemli_send.hpp"
#include "neighbours.hpp"

namespace
{

using testing::ElementsAre;

class IemliMessages : public IemliTest
{
};

constexpr iemli_peer TO = {CLIENT_A, 0x11, 0x22};

TEST_F(IemliMessages, AreNamedOverTheWholeRange)
{
    const char *names[] = {"IEMLI_CLIENT_DOWN_IND",
                           "IEMLI_SERVER_UP_IND",
                           "IEMLI_SERVER_DOWN_IND",
                           "IEMLI_INIT_SERVICE_REQ",
                           "IEMLI_INIT_SERVICE_CFM",
                           "IEMLI_INIT_SERVICE_REJ",
                           "IEMLI_TERM_SERVICE_REQ",
                           "IEMLI_TERM_SERVICE_CFM",
                           "IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ",
                           "IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM",
                           "IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ",
                           "IEMLI_CREATE_INTER_ME_LINK_REQ",
                           "IEMLI_CREATE_INTER_ME_LINK_CFM",
                           "IEMLI_CREATE_INTER_ME_LINK_REJ",
                           "IEMLI_UPDATE_INTER_ME_LINK_REQ",
                           "IEMLI_UPDATE_INTER_ME_LINK_CFM",
                           "IEMLI_UPDATE_INTER_ME_LINK_REJ",
                           "IEMLI_DELETE_INTER_ME_LINK_REQ",
                           "IEMLI_DELETE_INTER_ME_LINK_CFM",
                           "IEMLI_INTER_ME_LINK_STATUS_IND",
                           "IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ",
                           "IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM",
                           "IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ",
                           "IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ",
                           "IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM",
                           "IEMLI_INTER_ME_LINK_RTT_IND"};
    for (uint32_t i = 0; i < 26; ++i) {
        EXPECT_STREQ(iemli_msg_to_string(0x1B0E00 + i), names[i]);
    }
}

TEST_F(IemliMessages, AreUnknownOutsideTheRange)
{
    for (const uint32_t msgno : {0x1B0E1AU, 0x1B0DFFU, 0U, 0xFFFFFFFFU}) {
        EXPECT_STREQ(iemli_msg_to_string(msgno), "<Unknown>");
    }
}

TEST_F(IemliMessages, RejectReasonsAreTheirNamesAndAllOthersAreUnknown)
{
    const std::map<uint32_t, const char *> names = {{0, "IEMLI_REJ_SERVICE_NOT_INITIATED"},
                                                    {1, "IEMLI_REJ_SERVICE_INITIATED"},
                                                    {2, "IEMLI_REJ_SERVICE_INVALID_PV"},
                                                    {3, "IEMLI_REJ_UNKNOWN_LINK_REF"},
                                                    {4, "IEMLI_REJ_UNKNOWN_PORT_NAME"},
                                                    {5, "IEMLI_REJ_PORT_ALREADY_USED"},
                                                    {6, "IEMLI_REJ_LINK_ALREADY_CREATED"},
                                                    {7, "IEMLI_REJ_INVALID_VLAN_ID"},
                                                    {8, "IEMLI_REJ_LINK_DATA_NO_CHANGE"},
                                                    {9, "IEMLI_REJ_MP_ID_NOT_READY"},
                                                    {11, "IEMLI_REJ_REMOTE_CPM_MAC_CONFLICT"},
                                                    {12, "IEMLI_REJ_SAME_CPM_APP_MAC"},
                                                    {13, "IEMLI_REJ_SAME_SRC_DST_APP_MAC"},
                                                    {14, "IEMLI_REJ_APP_LINK_ALREADY_USED"},
                                                    {15, "IEMLI_REJ_DUPLICATE_APP_LINKS"},
                                                    {16, "IEMLI_REJ_PORT_NOT_RESERVED"},
                                                    {17, "IEMLI_REJ_INVALID_RTT_CONFIG_PARAM"},
                                                    {18, "IEMLI_REJ_RTT_ALREADY_ENABLED"},
                                                    {99, "IEMLI_REJ_OTHER_REASON"}};
    for (uint32_t reason = 0; reason < 1000; ++reason) {
        const auto found = names.find(reason);
        EXPECT_STREQ(iemli_rej_reason_to_string(reason),
                     found != names.end() ? found->second : "UNKNOWN REJECT REASON");
    }
    EXPECT_STREQ(iemli_rej_reason_to_string(0xFFFFFFFF), "UNKNOWN REJECT REASON");
}

TEST_F(IemliMessages, ReturnCodesAreTheirNames)
{
    EXPECT_STREQ(iemli_ret_to_string(0), "IEMLI_RET_OK");
    EXPECT_STREQ(iemli_ret_to_string(1), "IEMLI_RET_ERR_NGNS");
    EXPECT_STREQ(iemli_ret_to_string(2), "IEMLI_RET_ERR_ITC");
    EXPECT_STREQ(iemli_ret_to_string(3), "<Unknown>");
}

uint64_t min_size(const Bytes &message)
{
    itc_msg *msg = fake::make(CLIENT_A, message);
    const uint64_t size = iemli_message_min_size(msg);
    itc_free(&msg);
    return size;
}

TEST_F(IemliMessages, NeedTheSizeOfTheirLayout)
{
    const uint64_t sizes[] = {12, 0,  0,  24, 16, 16, 12, 12, 14, 36, 16, 56, 16,
                              16, 32, 12, 16, 16, 12, 24, 24, 12, 16, 16, 12, 44};
    for (uint32_t i = 0; i < 26; ++i) {
        EXPECT_EQ(min_size(Builder().u32(0x1B0E00 + i).zeros(60)), sizes[i]) << iemli_msg_to_string(0x1B0E00 + i);
    }
    EXPECT_EQ(min_size(Builder().u32(0x1B0E1A)), 0U);
}

TEST_F(IemliMessages, CreateNeedsWhatItsCountAsksFor)
{
    EXPECT_EQ(create_req(1, 1, {}).size(), 56U);
    EXPECT_EQ(create_req(1, 1, {.apps = {APP_1, APP_2, APP_3}}).size(), 80U);
    EXPECT_EQ(min_size(create_req(1, 1, {})), 56U);
    EXPECT_EQ(min_size(create_req(1, 1, {.apps = {APP_1}})), 56U);
    EXPECT_EQ(min_size(create_req(1, 1, {.apps = {APP_1, APP_2, APP_3}})), 80U);
}

TEST_F(IemliMessages, UpdateNeedsWhatItsCountAsksFor)
{
    EXPECT_EQ(min_size(update_req(1, 1, 1, {})), 32U);
    EXPECT_EQ(min_size(update_req(1, 1, 1, {APP_1})), 32U);
    EXPECT_EQ(min_size(update_req(1, 1, 1, {APP_1, APP_2, APP_3})), 56U);
}

TEST_F(IemliMessages, ACountNearTheEndOfItsWordDoesNotWrapTheSize)
{
    EXPECT_EQ(min_size(Builder{header(0x1B0E0B, 1, 1)}.zeros(28).u32(0xFFFFFFFF).zeros(12)), 51539607584ULL);
    EXPECT_EQ(min_size(Builder{header(0x1B0E0E, 1, 1)}.zeros(4).u32(0x15555556).zeros(12)), 4294967324ULL);
}

TEST_F(IemliMessages, InitCfm)
{
    send_init_cfm(TO, 1);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E04).u32(0x11).u32(0x22).u32(1));
    expect_traces({{18, "IEMLI_INIT_SERVICE_CFM: procedure_ref=0x11, connection_ref=0x22, pv_selected=0x1"}});
}

TEST_F(IemliMessages, InitRej)
{
    send_init_rej(TO, 2);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E05).u32(0x11).u32(0x22).u32(2));
    expect_traces({{18, "IEMLI_INIT_SERVICE_REJ: procedure_ref=0x11, connection_ref=0x22, "
                        "reason=IEMLI_REJ_SERVICE_INVALID_PV"}});
}

TEST_F(IemliMessages, TermCfm)
{
    send_term_cfm(TO);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E07).u32(0x11).u32(0x22));
    expect_traces({{18, "IEMLI_TERM_SERVICE_CFM: procedure_ref=0x11, connection_ref=0x22"}});
}

TEST_F(IemliMessages, GetMacCfm)
{
    send_get_local_supervision_mac_cfm(TO, 7, "IDL_A1", {{0x02, 0, 0, 0, 0xAB, 0x1C}});
    expect_sent(CLIENT_A,
                Builder().u32(0x1B0E09).u32(0x11).u32(0x22).u8(7).text("IDL_A1", 16).mac("02:00:00:00:AB:1C").u8(0));
    expect_traces({{18, "IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM: procedure_ref=0x11, connection_ref=0x22,  "
                        "port_name=IDL_A1, 02:00:00:00:AB:1C"}});
}

TEST_F(IemliMessages, GetMacCfmCutsTheNameToFifteenCharacters)
{
    send_get_local_supervision_mac_cfm(TO, 7, "ABCDEFGHIJKLMNOP", {{2, 0, 0, 0, 0, 1}});
    expect_sent(
        CLIENT_A,
        Builder().u32(0x1B0E09).u32(0x11).u32(0x22).u8(7).text("ABCDEFGHIJKLMNO", 16).mac("02:00:00:00:00:01").u8(0));
}

TEST_F(IemliMessages, GetMacRej)
{
    send_get_local_supervision_mac_rej(TO, 4);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E0A).u32(0x11).u32(0x22).u32(4));
    expect_traces({{18, "IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ: procedure_ref=0x11, connection_ref=0x22, "
                        "reason=IEMLI_REJ_UNKNOWN_PORT_NAME"}});
}

TEST_F(IemliMessages, CreateCfm)
{
    send_create_cfm(TO, 12);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E0C).u32(0x11).u32(0x22).u32(12));
    expect_traces({{18, "IEMLI_CREATE_IML_LINK_CFM: procedure_ref=0x11, connection_ref=0x22, link_ref = 12"}});
}

TEST_F(IemliMessages, CreateRej)
{
    send_create_rej(TO, 10);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E0D).u32(0x11).u32(0x22).u32(10));
    expect_traces({{18, "IEMLI_CREATE_IML_LINK_REJ: procedure_ref=0x11, connection_ref=0x22, "
                        "reason = UNKNOWN REJECT REASON"}});
}

TEST_F(IemliMessages, UpdateCfm)
{
    send_update_cfm(TO);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E0F).u32(0x11).u32(0x22));
    expect_traces({{18, "IEMLI_UPDATE_IML_LINK_CFM: procedure_ref=0x11, connection_ref=0x22"}});
}

TEST_F(IemliMessages, UpdateRej)
{
    send_update_rej(TO, 8);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E10).u32(0x11).u32(0x22).u32(8));
    expect_traces({{18, "IEMLI_UPDATE_IML_LINK_REJ: procedure_ref=0x11, connection_ref=0x22, "
                        "reason = IEMLI_REJ_LINK_DATA_NO_CHANGE"}});
}

TEST_F(IemliMessages, DeleteCfm)
{
    send_delete_cfm(TO);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E12).u32(0x11).u32(0x22));
    expect_traces({{18, "IEMLI_DELETE_IML_LINK_CFM: procedure_ref=0x11, connection_ref=0x22"}});
}

TEST_F(IemliMessages, EnableRttCfm)
{
    send_enable_rtt_cfm(TO);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E15).u32(0x11).u32(0x22));
    expect_traces({{18, "IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM: procedure_ref=0x11, connection_ref=0x22"}});
}

TEST_F(IemliMessages, EnableRttRej)
{
    send_enable_rtt_rej(TO, 17);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E16).u32(0x11).u32(0x22).u32(17));
    expect_traces({{18, "IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ: procedure_ref=0x11, connection_ref=0x22, "
                        "reason=IEMLI_REJ_INVALID_RTT_CONFIG_PARAM"}});
}

TEST_F(IemliMessages, DisableRttCfm)
{
    send_disable_rtt_cfm(TO);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E18).u32(0x11).u32(0x22));
    expect_traces({{18, "IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM: procedure_ref=0x11, connection_ref=0x22"}});
}

TEST_F(IemliMessages, StatusInd)
{
    send_link_status_ind(TO, 3, 0, 4);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E13).u32(0x11).u32(0x22).u32(3).u32(0).u32(4));
    expect_traces({{18, "IEMLI_INTER_ME_LINK_STATUS_IND: procedure_ref=0x11, connection_ref=0x22, status=0x0, "
                        "disabled_reason=0x4"}});
}

TEST_F(IemliMessages, RttIndGoesOutWithoutATrace)
{
    send_link_rtt_ind(TO, 3, {1, 2, 3, 4, 5, 6, 1, {}});
    expect_sent(
        CLIENT_A,
        Builder().u32(0x1B0E19).u32(0x11).u32(0x22).u32(3).u32(1).u32(2).u32(3).u32(4).u32(5).u32(6).u8(1).zeros(3));
    expect_traces({});
}

TEST_F(IemliMessages, NothingIsFormattedWhileTheMaskIsClear)
{
    fake::set_trace_mask(0);
    open_both();
    EXPECT_TRUE(offer(CLIENT_A, create_req(1, 1, {.mp_id = 0})));
    expect_sent(CLIENT_A, rej(0x1B0E0D, 1, A_REF, 9));
    expect_traces({});
}

} // namespace
