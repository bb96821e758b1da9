// The PTP and LLDP endpoints of a port, from its unlock or lock to the last answer.
#include "manager/rules/port_endpoints.hpp"

#include <gmock/gmock.h>

#include "manager/links/procedure_record.hpp"
#include "support/daemon.hpp"

namespace
{

using daemon_test::answer;
using daemon_test::Message;
using fake::Builder;
using fake::Bytes;
using fake::Trace;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t ADD_ENDPOINT = 0x1B10C6;
constexpr uint32_t REMOVE_ENDPOINT = 0x1B10C9;
constexpr uint32_t SET_DEFAULT_ACTION = 0x1B0F58;
constexpr uint32_t APPEND_STATIC = 0x1B0F5B;
constexpr uint32_t APPEND_DYNAMIC = 0x1B0F61;

// Every port is locked at first, and the test answers EMI.
class PortEndpoints : public daemon_test::DaemonTest
{
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        for (daemon_test::Port &port : ports) {
            port.adm_state = 0;
        }
        emi_answers = answer::never;
    }
    void unlock(const std::string &port) { set_port(port, 1, 1); }
    void lock(const std::string &port) { set_port(port, 0, 1); }

    static std::string record(const char *port, const char *mac)
    {
        return fake::to_hex(Builder().text(port, 64).mac(mac).zeros(2).n32(1).n32(10).zeros(12).n32(0).u8(0).zeros(3));
    }
    static std::string records_of(const Message &message)
    {
        return fake::to_hex({message.bytes.begin() + 16, message.bytes.end()});
    }
    static bool asked_of_fmi(uint32_t msgno, const std::string &port)
    {
        for (const Message &m : messages_to(daemon_test::FMI)) {
            if (m.msgno() == msgno && m.text(msgno == APPEND_DYNAMIC ? 12 : 16) == port) {
                return true;
            }
        }
        return false;
    }
};

const char *const PTP = "01:1B:19:00:00:00";
const char *const LLDP = "01:80:C2:00:00:0E";

TEST_F(PortEndpoints, AreAskedForWhenAPortIsUnlocked)
{
    start();
    unlock("IDLA1");
    ASSERT_THAT(numbers_to(daemon_test::EMI), ElementsAre(ADD_ENDPOINT, ADD_ENDPOINT));
    const Message ptp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    EXPECT_EQ(ptp.net_word(3), 2u);
    EXPECT_EQ(records_of(ptp), record("DiPort_A1", PTP) + record("DiPort_A1", LLDP));
    const Message lldp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    EXPECT_EQ(lldp.net_word(3), 1u);
    EXPECT_EQ(records_of(lldp), record("DiPort_A1", LLDP));
    EXPECT_TRUE(fake::sent().empty());
}

TEST_F(PortEndpoints, SetThePortUpOnceAfterTheLastAnswer)
{
    start();
    unlock("IDLA1");
    const Message ptp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    const Message lldp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    forget_records();
    confirm(ptp);
    EXPECT_THAT(notices(), ElementsAre(Trace{6, "Added ptp endpoints for port IDLA1"}));
    EXPECT_THAT(numbers_to(daemon_test::FMI), IsEmpty());
    confirm(lldp);
    EXPECT_TRUE(fake::traced(6, "Added lldp endpoints for port IDLA1"));
    EXPECT_TRUE(asked_of_fmi(APPEND_STATIC, "DiPort_A1"));
    EXPECT_TRUE(asked_of_fmi(APPEND_DYNAMIC, "DiPort_A1"));
    forget_records();
    confirm(lldp);
    EXPECT_THAT(numbers_to(daemon_test::FMI), IsEmpty()) << "answered once";
}

TEST_F(PortEndpoints, SetThePortUpAlsoWhenAnAddFails)
{
    start();
    unlock("IDLA1");
    const Message ptp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    const Message lldp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    forget_records();
    reject(lldp);
    EXPECT_THAT(notices(), ElementsAre(Trace{6, "FAILED adding lldp endpoints for port IDLA1"}));
    EXPECT_THAT(numbers_to(daemon_test::FMI), IsEmpty());
    reject(ptp);
    EXPECT_TRUE(fake::traced(6, "FAILED adding ptp endpoints for port IDLA1"));
    EXPECT_TRUE(asked_of_fmi(APPEND_STATIC, "DiPort_A1"));
}

TEST_F(PortEndpoints, OfTwoPortsDoNotWaitForEachOther)
{
    start();
    unlock("IDLA1");
    const Message ptp_a = take_to(daemon_test::EMI, ADD_ENDPOINT);
    const Message lldp_a = take_to(daemon_test::EMI, ADD_ENDPOINT);
    unlock("IDLB1");
    forget_records();
    confirm(lldp_a);
    confirm(ptp_a);
    EXPECT_TRUE(asked_of_fmi(APPEND_STATIC, "DiPort_A1"));
    EXPECT_FALSE(asked_of_fmi(APPEND_STATIC, "DiPort_B1"));
}

TEST_F(PortEndpoints, DoNotSetThePortUpWhileFmiIsDown)
{
    start({"iepcsi-server", "endpoint_mgr"});
    unlock("IDLA1");
    confirm(take_to(daemon_test::EMI, ADD_ENDPOINT));
    confirm(take_to(daemon_test::EMI, ADD_ENDPOINT));
    EXPECT_TRUE(fake::traced(6, "Added lldp endpoints for port IDLA1"));
    EXPECT_THAT(numbers_to(daemon_test::FMI), IsEmpty());
}

TEST_F(PortEndpoints, AreTakenBackWhenAPortIsLocked)
{
    emi_answers = answer::confirm;
    start();
    unlock("IDLB1");
    unlock("IDLA1");
    emi_answers = answer::never;
    forget_records();
    lock("IDLA1");
    ASSERT_THAT(numbers_to(daemon_test::EMI), ElementsAre(REMOVE_ENDPOINT, REMOVE_ENDPOINT));
    const Message ptp = take_to(daemon_test::EMI, REMOVE_ENDPOINT);
    const Message lldp = take_to(daemon_test::EMI, REMOVE_ENDPOINT);
    EXPECT_EQ(records_of(ptp), record("DiPort_A1", PTP) + record("DiPort_A1", LLDP));
    EXPECT_EQ(records_of(lldp), record("DiPort_A1", LLDP));
    EXPECT_TRUE(fake::sent().empty());
    confirm(ptp);
    EXPECT_TRUE(fake::traced(6, "Ptp endpoints removed for port IDLA1"));
    EXPECT_TRUE(asked_of_fmi(APPEND_DYNAMIC, "DiPort_B1")) << "the supervision rule of the ports that are left";
    EXPECT_FALSE(asked_of_fmi(APPEND_DYNAMIC, "DiPort_A1"));
    EXPECT_TRUE(asked_of_fmi(0x1B0F5E, "DiPort_A1")) << "the port's own rules are gone";
    EXPECT_FALSE(asked_of_fmi(SET_DEFAULT_ACTION, "DiPort_A1")) << "and nothing else of it is touched";
    forget_records();
    confirm(lldp);
    EXPECT_TRUE(fake::traced(6, "Ptp endpoints removed for port IDLA1")) << "the same text for LLDP";
}

TEST_F(PortEndpoints, FallBackOnAPortThatRefusesItsSupervisionRuleAfterALock)
{
    emi_answers = answer::confirm;
    start();
    unlock("IDLB1");
    unlock("IDLA1");
    fmi_refused.insert(APPEND_DYNAMIC);
    forget_records();
    lock("IDLA1");
    EXPECT_TRUE(asked_of_fmi(APPEND_DYNAMIC, "DiPort_B1"));
    EXPECT_TRUE(asked_of_fmi(SET_DEFAULT_ACTION, "DiPort_B1"));
}

TEST_F(PortEndpoints, LeaveFmiAloneAfterALockWhileItIsDown)
{
    emi_answers = answer::confirm;
    start({"iepcsi-server", "endpoint_mgr"});
    unlock("IDLA1");
    forget_records();
    lock("IDLA1");
    EXPECT_EQ(fake::count_traced(6, "Ptp endpoints removed for port IDLA1"), 2u);
    EXPECT_THAT(numbers_to(daemon_test::FMI), IsEmpty());
}

TEST_F(PortEndpoints, AreOnlyTracedWhenTheyCannotBeTakenBack)
{
    emi_answers = answer::confirm;
    start();
    unlock("IDLA1");
    emi_answers = answer::reject;
    forget_records();
    lock("IDLA1");
    EXPECT_EQ(fake::count_traced(1, "Ptp endpoints not removed successfuly"), 2u);
    EXPECT_THAT(numbers_to(daemon_test::FMI), IsEmpty());
}

TEST_F(PortEndpoints, OfAnUnlockAndALockInARowAreMatchedEachByItself)
{
    start();
    unlock("IDLA1");
    lock("IDLA1");
    const Message add_ptp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    const Message add_lldp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    const Message remove_ptp = take_to(daemon_test::EMI, REMOVE_ENDPOINT);
    const Message remove_lldp = take_to(daemon_test::EMI, REMOVE_ENDPOINT);
    forget_records();
    confirm(remove_lldp);
    confirm(add_lldp);
    confirm(add_ptp);
    confirm(remove_ptp);
    std::vector<std::string> texts;
    for (const Trace &trace : notices()) {
        texts.push_back(trace.text);
    }
    EXPECT_THAT(texts, ElementsAre("Ptp endpoints removed for port IDLA1", "Added lldp endpoints for port IDLA1",
                                   "Added ptp endpoints for port IDLA1", "Ptp endpoints removed for port IDLA1"));
}

TEST_F(PortEndpoints, DoNotWaitWithTheSetUpForARemovalThatIsAwaited)
{
    start();
    unlock("IDLA1");
    lock("IDLA1");
    const Message ptp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    const Message lldp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    forget_records();
    confirm(ptp);
    confirm(lldp);
    EXPECT_TRUE(asked_of_fmi(APPEND_STATIC, "DiPort_A1"));
}

TEST_F(PortEndpoints, ThatAwaitARemovalAreNoAddsAndTheOtherWayRound)
{
    start();
    lock("IDLA1");
    set_port("IDLA1", 1, 1);
    lock("IDLA1");
    forget_records();
    // No add of the requests that remove, and no removal of those that add, was ever asked for under a reference.
    EXPECT_FALSE(handle_port_endpoint_result(EMI_ADD_ENDPOINT_DONE, 0));
    EXPECT_FALSE(handle_port_endpoint_result(EMI_ADD_ENDPOINT_FAILED, 0));
    EXPECT_FALSE(handle_port_endpoint_result(EMI_REMOVE_ENDPOINT_DONE, 0));
    EXPECT_FALSE(handle_port_endpoint_result(EMI_REMOVE_ENDPOINT_FAILED, 0));
}

TEST_F(PortEndpoints, OfOneReferenceAreAnsweredInTheOrderInWhichTheyWereAskedFor)
{
    start();
    for (const char *port : {"IDLB1", "IDLA1"}) {
        emi_client_forget_all(); // which counts its references from 1 again
        handle_port_adm_event(port, PORT_ADM_UNLOCKED);
    }
    forget_records();
    EXPECT_TRUE(handle_port_endpoint_result(EMI_ADD_ENDPOINT_DONE, 1));
    EXPECT_TRUE(fake::traced(6, "Added ptp endpoints for port IDLB1"));
    EXPECT_TRUE(handle_port_endpoint_result(EMI_ADD_ENDPOINT_DONE, 1));
    EXPECT_TRUE(fake::traced(6, "Added ptp endpoints for port IDLA1"));
    EXPECT_FALSE(handle_port_endpoint_result(EMI_ADD_ENDPOINT_DONE, 1));
}

TEST_F(PortEndpoints, TakeAnAnswerBeforeALinkProcedureOfTheSameReference)
{
    start();
    unlock("IDLA1");
    const Message ptp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    const Message lldp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    iml_link_proc *proc = link_proc_alloc();
    link_proc_open(proc);
    link_proc_step_sent(proc, PROC_STEP_EMI_ADD, ptp.net_word(1));
    confirm(ptp);
    EXPECT_EQ(link_procedure_count(), 1u);
    confirm(ptp);
    EXPECT_EQ(link_procedure_count(), 0u) << "the second one is the procedure's";
    confirm(lldp);
}

TEST_F(PortEndpoints, AreNotForTnPorts)
{
    start();
    unlock("TNA");
    EXPECT_THAT(numbers_to(daemon_test::EMI), IsEmpty());
    EXPECT_TRUE(asked_of_fmi(SET_DEFAULT_ACTION, "TNA"));
    EXPECT_TRUE(asked_of_fmi(APPEND_STATIC, "TNA"));
    forget_records();
    lock("TNA");
    EXPECT_THAT(numbers_to(daemon_test::EMI), IsEmpty());
    EXPECT_TRUE(asked_of_fmi(0x1B0F5E, "TNA")) << "the static rule is removed";
    EXPECT_TRUE(asked_of_fmi(SET_DEFAULT_ACTION, "TNA"));
}

TEST_F(PortEndpoints, OfATnPortAreNotSetUpByAnotherEvent)
{
    start();
    handle_port_adm_event("TNA", 5);
    EXPECT_FALSE(asked_of_fmi(APPEND_STATIC, "TNA"));
    EXPECT_TRUE(asked_of_fmi(SET_DEFAULT_ACTION, "TNA"));
    EXPECT_THAT(numbers_to(daemon_test::EMI), IsEmpty());
}

TEST_F(PortEndpoints, OfATnPortLeaveFmiAloneWhileItIsDown)
{
    start({"iepcsi-server", "endpoint_mgr"});
    unlock("TNA");
    lock("TNA");
    EXPECT_THAT(numbers_to(daemon_test::FMI), IsEmpty());
    EXPECT_THAT(numbers_to(daemon_test::EMI), IsEmpty());
}

TEST_F(PortEndpoints, AreLeftAloneWhileEmiIsDown)
{
    start({"iepcsi-server", "flow-manager"});
    unlock("IDLA1");
    lock("IDLA1");
    EXPECT_TRUE(fake::sent().empty());
}

TEST_F(PortEndpoints, AreNotAskedForByAnotherEvent)
{
    start();
    handle_port_adm_event("IDLA1", 5);
    EXPECT_THAT(notices(), ElementsAre(Trace{4, "WARNING: Unknown port_event(5) received!"}));
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_FALSE(handle_port_endpoint_result(EMI_ADD_ENDPOINT_DONE, 0));
}

TEST_F(PortEndpoints, AreNotAskedForWhenMemoryIsOut)
{
    start();
    for (unsigned nth = 1; nth <= 4; ++nth) {
        forget_records();
        fake::fail_allocation(nth);
        handle_port_adm_event("IDLA1", PORT_ADM_UNLOCKED);
        fake::fail_allocation(0);
        EXPECT_THAT(notices(), ElementsAre(Trace{1, nth <= 2 ? "Out of memory" : "Memory error"})) << nth;
        EXPECT_TRUE(fake::sent().empty());
    }
}

TEST_F(PortEndpoints, TakeOnlyTheAnswersOfEmi)
{
    start();
    unlock("IDLA1");
    const Message ptp = take_to(daemon_test::EMI, ADD_ENDPOINT);
    for (uint32_t code : {1u, 2u, 3u, 4u, 7u, 8u, 9u}) {
        EXPECT_FALSE(handle_port_endpoint_result(code, ptp.net_word(1))) << code;
    }
    EXPECT_TRUE(handle_port_endpoint_result(EMI_ADD_ENDPOINT_FAILED, ptp.net_word(1)));
}

} // namespace
