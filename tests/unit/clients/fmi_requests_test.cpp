// One request to the flow manager and its answer: bytes, traces, and everything that can go wrong with the answer.
#include "clients/fmi_requests.hpp"
#include "fmi_test.hpp"

using namespace client_test;
using namespace fmi_test;

namespace
{

class FmiRequests : public ClientTest
{
protected:
    FmiRequests() : ClientTest(FMI) {}

    void SetUp() override
    {
        ClientTest::SetUp();
        restart();
    }

    void restart()
    {
        client_.enter(3);
        server_ = {};
        fake::on_send([this](const fake::Sent &request) { server_.answer(request); });
    }

    FlowManager server_;
};

const char *const PORT = "DiPort_A1";

TEST_F(FmiRequests, AppendsAStaticRule)
{
    EXPECT_EQ(fmi_append_static_rule(PORT, 3), 1000U);
    const fake::Sent req = fake::take_sent();
    EXPECT_EQ(req.to, SERVER);
    EXPECT_EQ(req.from, fake::OWN_MBOX);
    EXPECT_EQ(req.bytes, Bytes(Builder().u32(0x1B0F5B).hex("00000005 00000055 00000003").text(PORT, 64)));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {18, "FMI_ACL_APPEND_STATIC_RULE_REQ: proc_ref: 5, conn_ref: 85, port_name: DiPort_A1, rule_type 3"},
                  {17, "FMI_ACL_APPEND_STATIC_RULE_CFM: connection_ref =85, procedure_ref=5, port_name: DiPort_A1, "
                       "rule_type= 7, id= 1000"}}));
}

TEST_F(FmiRequests, RemovesAStaticRule)
{
    fmi_remove_static_rule(PORT, 44);
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B0F5E).hex("00000005 00000055 0000002c").text(PORT, 64)));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {18, "FMI_ACL_REMOVE_STATIC_RULE_REQ: proc_ref: 5, conn_ref: 85, port_name: DiPort_A1, id 44"},
                  {17, "FMI_ACL_REMOVE_STATIC_RULE_CFM: connection_ref =85, procedure_ref=5, rule id=1000, "
                       "port name=DiPort_A1"}}));
}

TEST_F(FmiRequests, AppendsADynamicRuleWithItsMacsBeforeItsEtherType)
{
    const mac_address macs[] = {{{2, 0, 0, 0, 0, 1}}, {{2, 0, 0, 0, 0, 2}}};
    EXPECT_EQ(fmi_append_dynamic_rule(PORT, macs, 2, 0xEBC0, 9), 1000U);
    EXPECT_EQ(fake::take_sent().bytes,
              Bytes(Builder()
                        .u32(0x1B0F61)
                        .hex("00000005 00000055")
                        .text(PORT, 64)
                        .hex("00000001 00000000 00000009 00000003")
                        .hex("00000002 000000000000000000000000 020000000001 ffffffffffff 0000000000000000")
                        .hex("00000002 000000000000000000000000 020000000002 ffffffffffff 0000000000000000")
                        .hex("00000008 000000000000000000000000 000000000000 000000000000 00000000 ebc0 0000")));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{{18, "FMI_ACL_APPEND_DYNAMIC_RULE_REQ: proc_ref: 5, conn_ref: 85, port_name: "
                                             "DiPort_A1, no_of_entries 3, policer_id 9"},
                                        {17, "FMI_ACL_APPEND_DYNAMIC_RULE_CFM: connection_ref =85, procedure_ref=5, "
                                             "port name=DiPort_A1, rule_id=1000 "}}));
}

TEST_F(FmiRequests, SendsARuleWithoutMacsIn128Bytes)
{
    EXPECT_EQ(fmi_append_dynamic_rule(PORT, nullptr, 0, 0xAEFE, 0), 1000U);
    EXPECT_EQ(fake::take_sent().bytes,
              Bytes(Builder()
                        .u32(0x1B0F61)
                        .hex("00000005 00000055")
                        .text(PORT, 64)
                        .hex("00000001 00000000 00000000 00000001")
                        .hex("00000008 000000000000000000000000 000000000000 000000000000 00000000 aefe 0000")));
}

TEST_F(FmiRequests, RemovesADynamicRule)
{
    fmi_remove_dynamic_rule(PORT, 0);
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder().u32(0x1B0F64).hex("00000005 00000055 00000000").text(PORT, 64)));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {18, "FMI_ACL_REMOVE_DYNAMIC_RULE_REQ: proc_ref: 5, conn_ref: 85, port_name: DiPort_A1, id 0"},
                  {17, "FMI_ACL_REMOVE_DYNAMIC_RULE_CFM: connection_ref =85, procedure_ref=5, rule id=1000, "
                       "port name=DiPort_A1"}}));
}

TEST_F(FmiRequests, SetsADefaultAction)
{
    EXPECT_TRUE(fmi_request_default_action(PORT, 1));
    EXPECT_EQ(fake::take_sent().bytes,
              Bytes(Builder().u32(0x1B0F58).hex("00000005 00000055 00000001").text(PORT, 64).zeros(4)));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {18, "FMI_ACL_SET_DEFAULT_ACTION_REQ: proc_ref: 5, conn_ref: 85, port_name: DiPort_A1, type 1"},
                  {17, "FMI_ACL_SET_DEFAULT_ACTION_CFM: connection_ref =85, procedure_ref=5, port_name: DiPort_A1"}}));
}

TEST_F(FmiRequests, CreatesAPolicer)
{
    fmi_create_policer(0, PORT);
    EXPECT_EQ(fake::take_sent().bytes, Bytes(Builder()
                                                 .u32(0x1B0F67)
                                                 .hex("00000005 00000055 00989680 00040000 00000000 00000000 00000001")
                                                 .text(PORT, 64)));
    EXPECT_EQ(fake::traces(),
              (std::vector<fake::Trace>{
                  {18, "FMI_ACL_CREATE_POLICER_REQ: connection_ref =85, procedure_ref=0x5, port_name=DiPort_A1, "
                       "commitedRate = 10000000, commitedMaxBurstSize = 262144, peakRate = 0, peakMaxBurstSize = 0, "
                       "useCommitedRateOnly = 1"},
                  {17, "FMI_ACL_CREATE_POLICER_CFM: connection_ref =85, procedure_ref=5, port_name: DiPort_A1, "
                       "id= 1000"}}));
}

TEST_F(FmiRequests, CutsAPortNameTo63Characters)
{
    fmi_append_static_rule(std::string(70, 'p').c_str(), 3);
    const Bytes bytes = fake::take_sent().bytes;
    EXPECT_EQ(Bytes(bytes.begin() + 16, bytes.end()), Bytes(Builder().text(std::string(63, 'p'), 64)));
}

// Every request, by its number; true when it was confirmed.
struct Request {
    uint32_t number;
    std::function<bool()> send;
    std::string rejected; // the trace of its reject
    size_t cfm_needs;
    size_t rej_needs;
};

std::vector<Request> requests()
{
    const std::string refs = "connection_ref =85, procedure_ref=5, ";
    const std::string code = "FMI_ERROR_ACL_INVALID_ARGS";
    static const mac_address MAC = {{2, 0, 0, 0, 0, 1}};
    return {
        {SET_DEFAULT_ACTION, [] { return fmi_request_default_action(PORT, 1); },
         "FMI_ACL_SET_DEFAULT_ACTION_REJ: " + refs + "port_name: DiPort_A1, error code=" + code +
             ", error description=no",
         12, 80},
        {APPEND_STATIC, [] { return fmi_append_static_rule(PORT, 1) != FMI_NONE; },
         "FMI_ACL_APPEND_STATIC_RULE_REJ: " + refs + "port_name: DiPort_A1, rule_type= 7, error code=" + code +
             ", error description=no",
         20, 148},
        {REMOVE_STATIC,
         [] {
             fmi_remove_static_rule(PORT, 7);
             return false;
         },
         "FMI_ACL_REMOVE_STATIC_RULE_REJ: " + refs + "rule id=7, port name=DiPort_A1,error code=" + code +
             " error description=no",
         16, 148},
        {APPEND_DYNAMIC, [] { return fmi_append_dynamic_rule(PORT, &MAC, 1, 1, 0) != FMI_NONE; },
         "FMI_ACL_APPEND_DYNAMIC_RULE_REJ: " + refs + "port name=DiPort_A1,error code=" + code +
             " error description=no",
         80, 80},
        {REMOVE_DYNAMIC,
         [] {
             fmi_remove_dynamic_rule(PORT, 7);
             return false;
         },
         "FMI_ACL_REMOVE_DYNAMIC_RULE_REJ: " + refs + "port_name: DiPort_A1, rule_id= 7, error code=" + code +
             ", error description=no",
         16, 84},
        {CREATE_POLICER,
         [] {
             fmi_create_policer(1, PORT);
             return false;
         },
         "FMI_ACL_CREATE_POLICER_REJ: " + refs + "port_name: DiPort_A1, error code=" + code + ", error description=no",
         16, 80},
    };
}

TEST_F(FmiRequests, TracesARejectWithItsCodeAndText)
{
    for (const auto &request : requests()) {
        restart();
        server_.refused = {request.number};
        EXPECT_FALSE(request.send());
        ASSERT_EQ(fake::traces().size(), 2U);
        EXPECT_EQ(fake::traces()[1], (fake::Trace{17, request.rejected}));
        EXPECT_EQ(fake::queued(), 0U);
    }
}

TEST_F(FmiRequests, GivesUpAfter500Milliseconds)
{
    for (const auto &request : requests()) {
        restart();
        server_.ignored = {request.number};
        EXPECT_FALSE(request.send());
        EXPECT_EQ(fake::receive_timeouts(), (std::vector<uint32_t>{500}));
        ASSERT_EQ(fake::traces().size(), 2U);
        EXPECT_EQ(fake::traces()[1], (fake::Trace{4, "WARNING: Fmi server didn't send response in expected time."}));
    }
}

TEST_F(FmiRequests, LetsALateAnswerFailTheNextRequestToo)
{
    for (const auto &request : requests()) {
        restart();
        fake::on_send(nullptr);
        fake::push(SERVER, confirm(request.number, 4, 77));
        EXPECT_FALSE(request.send());
        EXPECT_TRUE(fake::traced(4, "Received wrong rsp. Waiting proc_ref  5, received proc_ref 4"));
        EXPECT_EQ(fake::queued(), 0U) << "the stale answer is consumed";
        EXPECT_TRUE(fake::receive_timeouts().empty()) << "there is no second receive";
    }
}

TEST_F(FmiRequests, FailsOnAnAnswerOfAnyLengthTooShort)
{
    for (const auto &request : requests()) {
        for (bool rejected : {false, true}) {
            const size_t needs = rejected ? request.rej_needs : request.cfm_needs;
            const std::string name = fmi_msg_to_string(request.number + (rejected ? 2 : 1));
            for (size_t size = 4; size < needs; ++size) {
                restart();
                Bytes answer = rejected ? reject(request.number, 5, 6) : confirm(request.number, 5, 77);
                answer.resize(size);
                fake::on_send(nullptr);
                fake::push(SERVER, answer);
                EXPECT_FALSE(request.send());
                EXPECT_EQ(fake::traces().back(),
                          (fake::Trace{1, name + " too short: " + std::to_string(size) + " bytes"}));
            }
        }
    }
}

TEST_F(FmiRequests, TakesAnAnswerWhoseLastStringIsCutOrMissing)
{
    fake::on_send(nullptr);
    Bytes answer = confirm(APPEND_STATIC, 5, 77);
    answer.resize(20 + 4);
    fake::push(SERVER, answer);
    EXPECT_EQ(fmi_append_static_rule(PORT, 1), 77U);
    EXPECT_EQ(fake::traces().back(), (fake::Trace{17, "FMI_ACL_APPEND_STATIC_RULE_CFM: connection_ref =85, "
                                                      "procedure_ref=5, port_name: DiPo, rule_type= 7, id= 77"}));
    answer = reject(SET_DEFAULT_ACTION, 6, 1, std::string(128, 'w'));
    fake::push(SERVER, answer);
    EXPECT_FALSE(fmi_request_default_action(PORT, 1));
    EXPECT_EQ(fake::traces().back(),
              (fake::Trace{17, "FMI_ACL_SET_DEFAULT_ACTION_REJ: connection_ref =85, procedure_ref=6, port_name: "
                               "DiPort_A1, error code=FMI_ERROR_UNSUCCESSFUL, error description=" +
                                   std::string(128, 'w')}));
    answer = confirm(SET_DEFAULT_ACTION, 7, 0);
    answer.resize(12);
    fake::push(SERVER, answer);
    EXPECT_TRUE(fmi_request_default_action(PORT, 1));
}

TEST_F(FmiRequests, TakesAnAnswerFromAnyMailbox)
{
    fake::on_send(nullptr);
    fake::push(SERVER + 1, confirm(APPEND_STATIC, 5, 77));
    EXPECT_EQ(fmi_append_static_rule(PORT, 1), 77U);
}

TEST_F(FmiRequests, LeavesEveryOtherMessageQueuedInItsOrder)
{
    fake::on_send(nullptr);
    fake::push(SERVER, message(0x1B0F57));
    fake::push(SERVER, message(0x1B0F62, 5).zeros(68)); // another request's confirm
    fake::push(SERVER, confirm(APPEND_STATIC, 5, 77));
    fake::push(SERVER, message(0x1B1042));
    EXPECT_EQ(fmi_append_static_rule(PORT, 1), 77U);
    ASSERT_EQ(fake::queued(), 3U);
    for (uint32_t number : {0x1B0F57U, 0x1B0F62U, 0x1B1042U}) {
        itc_msg *msg = itc_receive(nullptr, 0, ITC_FROM_ANY);
        EXPECT_EQ(msg->msgno, number);
        itc_free(&msg);
    }
}

TEST_F(FmiRequests, FailsOnAMessageThatIsNeitherConfirmNorReject)
{
    fmi_append_static_rule(PORT, 1);
    static constexpr fmi_exchange EXCHANGE = {{0x1B0F5C, 12, 0, 0, 0, nullptr}, {0x1B0F5D, 12, 0, 0, 0, nullptr}};
    itc_msg *msg = fake::make(SERVER, message(0x1B0F5F, 5));
    uint32_t id = 0;
    EXPECT_FALSE(fmi_take_answer(EXCHANGE, msg, &id));
    EXPECT_EQ(fake::traces().back(), (fake::Trace{4, "WARNING:Unexpected message received, msg_no=0x1b0f5f"}));
    itc_free(&msg);
}

TEST_F(FmiRequests, TracesEveryErrorCode)
{
    for (uint32_t code = 0; code < 10; ++code) {
        restart();
        fake::on_send(nullptr);
        fake::push(SERVER, reject(APPEND_STATIC, 5, code, "because"));
        EXPECT_EQ(fmi_append_static_rule(PORT, 1), FMI_NONE);
        EXPECT_EQ(fake::traces().back(),
                  (fake::Trace{17, std::string("FMI_ACL_APPEND_STATIC_RULE_REJ: connection_ref =85, procedure_ref=5, "
                                               "port_name: DiPort_A1, rule_type= 7, error code=") +
                                       fmi_rej_reason_to_string(code) + ", error description=because"}));
    }
}

} // namespace
