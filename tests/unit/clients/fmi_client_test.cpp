// The FMI client's connection: set-up, capabilities, every message in every state.
#include "fmi_test.hpp"

using namespace client_test;
using namespace fmi_test;

namespace
{

class FmiClient : public ClientTest
{
protected:
    FmiClient() : ClientTest(FMI) {}
};

TEST_F(FmiClient, LooksForItsServerMonitorsItAndAsksForAConnection)
{
    fmi_client_init(record_event);
    EXPECT_EQ(fake::calls(), (std::vector<std::string>{"itc_locate_async(flow-manager,65537)"}));
    fake::name("flow-manager", SERVER);
    EXPECT_EQ(deliver_next(fmi_client_dispatch), Bytes(Builder().u32(0x1B0F56).n32(1).zeros(4)));
    ASSERT_EQ(fake::monitors().size(), 1U);
    EXPECT_EQ(fake::monitors()[0].bytes, Bytes(Builder().u32(0x1B0F57).n32(2).zeros(4)));
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B0F50).hex("00000003 00000190 00000001 00000001")));
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{17, "FMI_SERVER_UP"},
                                                        {18, "FMI_CONN_ESTABLISH_REQ: connection_ref = 400, "
                                                             "procedure_ref=0x3, number_of_revisions=1, "
                                                             "protocol_rev[0]=1"}}));
}

TEST_F(FmiClient, RefusesToStartWithoutAHandler)
{
    fmi_client_init(nullptr);
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{1, "CB event is NULL"}}));
    EXPECT_EQ(fmi_client_state(), 0U);
}

TEST_F(FmiClient, IsFaultyWithoutAMailbox)
{
    fake::set_current_mbox(ITC_NO_MBOX);
    fmi_client_init(record_event);
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{1, "Own mailbox is 0!"}}));
    EXPECT_EQ(fmi_client_state(), 4U);
    ASSERT_EQ(raised(), (std::vector<uint32_t>{FMI_SERVICE_FAULTY}));
    EXPECT_EQ(events()[0].state, 4U);
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(FmiClient, AsksForCapabilities)
{
    client_.enter(1);
    EXPECT_TRUE(client_.receive(message(0x1B0F51, 3, 0xABCD).n32(1)));
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B0F53).hex("00000004 0000abcd")));
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{
                                  {17, "FMI_CONN_ESTABLISH_CFM: connection_ref =0, procedure_ref=0x3, protocol_rev=1"},
                                  {18, "FMI_GET_CAPABILITY_REQ: proc_ref: 4, conn_ref: 43981"}}));
}

TEST_F(FmiClient, IsUpWithAllSixCapabilities)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(capabilities({9, 6, 5, 4, 3, 2, 1})));
    EXPECT_EQ(fmi_client_state(), 3U);
    ASSERT_EQ(raised(), (std::vector<uint32_t>{FMI_SERVICE_UP}));
    EXPECT_EQ(events()[0].state, 3U);
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{
                                  {17, "FMI_GET_CAPABILITIES_CFM: connection_ref =85, procedure_ref=33, num_caps=7"}}));
}

TEST_F(FmiClient, NamesEveryMissingCapability)
{
    client_.enter(2);
    EXPECT_TRUE(client_.receive(capabilities({1, 2, 4, 5})));
    EXPECT_EQ(fmi_client_state(), 4U);
    EXPECT_EQ(raised(), (std::vector<uint32_t>{FMI_SERVICE_FAULTY}));
    ASSERT_EQ(fake::traces().size(), 3U);
    const std::string text = "FMI_GET_CAPABILITIES_CFM does not contain ";
    EXPECT_EQ(fake::traces()[1], (fake::Trace{1, text + "FMI_CAPABILITY_ACL_POLICER"}));
    EXPECT_EQ(fake::traces()[2], (fake::Trace{1, text + "FMI_CAPABILITY_ACL_REMOVE_STATIC_RULE"}));
    client_.enter(2);
    EXPECT_TRUE(client_.receive(capabilities({})));
    const char *order[] = {"FMI_CAPABILITY_ACL_APPEND_DYNAMIC_RULE", "FMI_CAPABILITY_ACL_APPEND_STATIC_RULE",
                           "FMI_CAPABILITY_ACL_DEFAULT_ACTION",      "FMI_CAPABILITY_ACL_POLICER",
                           "FMI_CAPABILITY_ACL_REMOVE_DYNAMIC_RULE", "FMI_CAPABILITY_ACL_REMOVE_STATIC_RULE"};
    ASSERT_EQ(fake::traces().size(), 7U);
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(fake::traces()[1 + i], (fake::Trace{1, text + order[i]}));
    }
}

TEST_F(FmiClient, FollowsItsTableInEveryState)
{
    const uint32_t down = FMI_SERVICE_DOWN;
    const uint32_t faulty = FMI_SERVICE_FAULTY;
    const std::vector<std::vector<uint32_t>> fault_but_in_faulty = {{faulty}, {faulty}, {faulty}, {faulty}, {}};
    walk(FMI, {
                  {"FMI_SERVER_UP",
                   message(0x1B0F56),
                   {1, 4, 4, 4, 4},
                   {{}, {faulty}, {faulty}, {faulty}, {}},
                   1,
                   "FMI_SERVER_UP_IND received in wrong state, state_%s",
                   {1, 2, 3, 4}},
                  {"FMI_SERVER_DOWN",
                   message(0x1B0F57),
                   {0, 0, 0, 0, 0},
                   {{down}, {down}, {down}, {down}, {down}},
                   17,
                   "FMI_SERVER_DOWN",
                   {0, 1, 2, 3, 4}},
                  {"FMI_CONN_ESTABLISH_CFM",
                   message(0x1B0F51).n32(1),
                   {4, 2, 4, 4, 4},
                   {{faulty}, {}, {faulty}, {faulty}, {}},
                   1,
                   "FMI_CONN_ESTABLISH_CFM received in wrong state, state_=%s",
                   {0, 2, 3, 4}},
                  {"FMI_CONN_ESTABLISH_REJ",
                   message(0x1B0F52).n32(8),
                   {4, 4, 4, 4, 4},
                   fault_but_in_faulty,
                   1,
                   "FMI_CONN_ESTABLISH_REJ received",
                   {0, 1, 2, 3, 4}},
                  {"FMI_GET_CAPABILITIES_CFM",
                   capabilities({1, 2, 3, 4, 5, 6}),
                   {4, 4, 3, 4, 4},
                   {{faulty}, {faulty}, {FMI_SERVICE_UP}, {faulty}, {}},
                   1,
                   "FMI_GET_CAPABILITIES_CFM received in wrong state, state_=%s",
                   {0, 1, 3, 4}},
                  {"FMI_GET_CAPABILITIES_REJ",
                   message(0x1B0F55).n32(7),
                   {4, 4, 4, 4, 4},
                   fault_but_in_faulty,
                   17,
                   "FMI_GET_CAPABILITIES_REJ: connection_ref =85, procedure_ref=0x21, reason=FMI_ERROR_ACL_NOT_READY",
                   {0, 1, 2, 3, 4}},
              });
}

TEST_F(FmiClient, DropsEveryMessageThatIsTooShort)
{
    shorten(FMI, {{"FMI_SERVER_UP", message(0x1B0F56), 0},
                  {"FMI_SERVER_DOWN", message(0x1B0F57), 3},
                  {"FMI_CONN_ESTABLISH_CFM", message(0x1B0F51).n32(1), 1},
                  {"FMI_CONN_ESTABLISH_REJ", message(0x1B0F52).n32(1), 1},
                  {"FMI_GET_CAPABILITIES_CFM", capabilities({1, 2, 3, 4, 5, 6}), 2},
                  {"FMI_GET_CAPABILITIES_REJ", message(0x1B0F55).n32(1), 2}});
}

TEST_F(FmiClient, RaisesAFaultBeforeItEntersFaultyButAfterACapabilityReject)
{
    client_.enter(1);
    EXPECT_TRUE(client_.receive(message(0x1B0F52).n32(1)));
    ASSERT_EQ(events().size(), 1U);
    EXPECT_EQ(events()[0].state, 1U);
    client_.enter(2);
    EXPECT_TRUE(client_.receive(message(0x1B0F55).n32(1)));
    ASSERT_EQ(events().size(), 1U);
    EXPECT_EQ(events()[0].state, 4U);
}

TEST_F(FmiClient, TracesWithEveryRejectItsErrorCode)
{
    const char *texts[] = {"UNKNOWN_REJECT_REASON",        "FMI_ERROR_UNSUCCESSFUL",
                           "FMI_ERROR_ACL_NOT_SUPPORTED",  "FMI_ERROR_ACL_UNKNOWN_PORT",
                           "FMI_ERROR_ACL_UNKNOWN_ACTION", "FMI_ERROR_ACL_UNKNOWN_STATIC_RULE",
                           "FMI_ERROR_ACL_INVALID_ARGS",   "FMI_ERROR_ACL_NOT_READY",
                           "FMI_ERROR_MAX_NO_OF_CLIENTS",  "UNKNOWN_REJECT_REASON"};
    ASSERT_EQ(std::size(texts), 2 + CLIENT_TEST_ENTRIES(FMI_REJECT_REASONS));
    client_.enter(3);
    for (uint32_t code = 0; code < std::size(texts); ++code) {
        EXPECT_TRUE(client_.receive(message(0x1B0F52).n32(code)));
        EXPECT_TRUE(client_.receive(message(0x1B0F55).n32(code)));
        EXPECT_TRUE(fake::traced(17, std::string("FMI_CONN_ESTABLISH_REJ: connection_ref =85, procedure_ref=0x21, "
                                                 "reason=") +
                                         texts[code]));
        EXPECT_TRUE(fake::traced(17, std::string("FMI_GET_CAPABILITIES_REJ: connection_ref =85, procedure_ref=0x21, "
                                                 "reason=") +
                                         texts[code]));
    }
}

TEST_F(FmiClient, DeclinesAnswersToRequestsAndNumbersThatAreNotItsOwn)
{
    for (uint32_t number = 0x1B0F4F; number <= 0x1B0F6A; ++number) {
        const bool own = number == 0x1B0F51 || number == 0x1B0F52 || (number >= 0x1B0F54 && number <= 0x1B0F57);
        if (!own) {
            EXPECT_FALSE(client_.receive(message(number).zeros(200))) << number;
        }
    }
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(FmiClient, StartsAnewWhenInitialisedInAnyOtherState)
{
    for (uint32_t state = 1; state < 5; ++state) {
        client_.enter(state);
        fmi_client_init(record_event);
        EXPECT_EQ(fmi_client_state(), 0U);
        EXPECT_TRUE(fake::traced(4, "WARNING: Client in wrong state"));
        EXPECT_EQ(fake::calls(),
                  (std::vector<std::string>{"itc_unmonitor(1)", "itc_locate_async(flow-manager,65537)"}));
        EXPECT_EQ(deliver_next(fmi_client_dispatch), Bytes(Builder().u32(0x1B0F56).n32(1).zeros(4)));
    }
}

TEST_F(FmiClient, RaisesDownOnceForTwoNoticesOfOneDeath)
{
    client_.enter(3);
    EXPECT_TRUE(client_.receive(message(0x1B0F57)));
    EXPECT_TRUE(client_.receive(message(0x1B0F57)));
    EXPECT_EQ(raised(), (std::vector<uint32_t>{FMI_SERVICE_DOWN}));
}

TEST_F(FmiClient, NamesItsStatesMessagesAndCapabilities)
{
    const char *texts[] = {"INIT", "INITIATING", "GET_CAPABILITY", "INITIATED", "FAULTY", "UNKNOWN_STATE"};
    for (uint32_t state = 0; state < 6; ++state) {
        EXPECT_STREQ(fmi_client_state_to_string(state), texts[state]);
    }
    EXPECT_STREQ(fmi_msg_to_string(0x1B0F69), "FMI_ACL_CREATE_POLICER_REJ");
    EXPECT_STREQ(fmi_msg_to_string(0), "<Unknown>");
    EXPECT_STREQ(fmi_capability_to_string(1), "FMI_CAPABILITY_ACL_DEFAULT_ACTION");
    EXPECT_STREQ(fmi_capability_to_string(0), "UNKNOWN_CAPABILITY");
    EXPECT_STREQ(fmi_capability_to_string(7), "UNKNOWN_CAPABILITY");
}

} // namespace
