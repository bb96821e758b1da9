// The packaged policy against the protocols' own lists: no message number of a server, and none that the daemon makes
// for itself, is left open to others, and none that clients send is shut.
#include <gtest/gtest.h>

#include <set>

#include "clients/aasi_messages.hpp"
#include "clients/emi_messages.hpp"
#include "clients/fmi_messages.hpp"
#include "clients/iepcsi_messages.hpp"
#include "clients/pmi_messages.hpp"
#include "control_wire.hpp"
#include "iemli/iemli_messages.hpp"
#include "manager/links/link_supervision.hpp"
#include "ns.h"
#include "policy_file.hpp"
#include "shell/shell_messages.hpp"

namespace
{

constexpr const char *POLICY = KAP_SOURCE_DIR "/packaging/policy.d";
constexpr const char *DAEMON = "kap-vorn";
constexpr const char *OPEN = "anybody";
constexpr const char *SELF = "self";
constexpr const char *PEOPLE = "people";

policy packaged()
{
    policy p;
    size_t files = 0;
    for (const std::string &wrong : policy_read(p, POLICY, &files)) {
        EXPECT_NE(wrong.find("there is no "), std::string::npos) << wrong; // the machine need not have the users
    }
    EXPECT_EQ(files, 3u);
    return p;
}

std::set<std::string> senders_of(const policy_rule &rule)
{
    std::set<std::string> found(rule.from.begin(), rule.from.end());
    if (!rule.people.users.empty() || !rule.people.groups.empty()) {
        found.insert(PEOPLE);
    }
    return found.empty() ? std::set<std::string>{SELF} : found;
}

// Whom the mailbox of that name takes that number from.
std::set<std::string> senders(uint32_t number, const std::string &receiver = DAEMON)
{
    static const policy all = packaged();
    std::set<std::string> found;
    for (const policy_door &door : all.doors) {
        for (const policy_rule &rule : door.rules) {
            for (const auto &[first, last] : rule.numbers) {
                if (door.name == receiver && number >= first && number <= last) {
                    found.merge(senders_of(rule));
                }
            }
        }
    }
    return found.empty() ? std::set<std::string>{OPEN} : found;
}

struct protocol {
    const char *server;
    std::vector<uint32_t> numbers;
    std::vector<uint32_t> own; // that the daemon makes for itself
};

const std::vector<protocol> PROTOCOLS = {
#define X(number, name) name,
    {PMI_SERVER_NAME, {PMI_MESSAGES(X)}, {PMI_SERVER_UP_IND, PMI_SERVER_DOWN_IND}},
    {EMI_SERVER_NAME, {EMI_MESSAGES(X)}, {EMI_SERVER_UP, EMI_SERVER_DOWN}},
    {FMI_SERVER_NAME, {FMI_MESSAGES(X)}, {FMI_SERVER_UP, FMI_SERVER_DOWN}},
    {IEPCSI_SERVER_NAME, {IEPCSI_MESSAGES(X)}, {IEPCSI_SERVER_UP_IND, IEPCSI_SERVER_DOWN_IND}},
    {AASI_SERVICE_NAME, {AASI_MESSAGES(X)}, {NS_SUBSCRIBE_RSP, NS_SERVICE_ADDED_IND, NS_SERVICE_REMOVED_IND}},
#undef X
};

TEST(DoorNumbers, OfAProtocolComeFromItsServerAloneAndItsComingAndGoingFromTheDaemon)
{
    for (const protocol &p : PROTOCOLS) {
        const std::set<uint32_t> own(p.own.begin(), p.own.end());
        std::set<uint32_t> all(p.numbers.begin(), p.numbers.end());
        all.insert(own.begin(), own.end());
        EXPECT_GT(all.size(), own.size()) << p.server;
        for (const uint32_t number : all) {
            EXPECT_EQ(senders(number), std::set<std::string>{own.count(number) != 0 ? SELF : p.server})
                << std::hex << number;
        }
    }
}

// Who the people are, PackagedPolicy tells: this machine need not have them.
TEST(DoorNumbers, OfAProtocolAndOfPeopleAreTakenByItsServerFromKnownPeopleAlone)
{
    for (const protocol &p : PROTOCOLS) {
        for (const uint32_t number : p.numbers) {
            EXPECT_EQ(senders(number, p.server), std::set<std::string>{PEOPLE}) << p.server << std::hex << number;
        }
        EXPECT_EQ(senders(kap_node::CONTROL_REQUEST, p.server), std::set<std::string>{PEOPLE}) << p.server;
    }
}

TEST(DoorNumbers, OfSupervisionAndOfAClientsEndComeFromTheDaemonAlone)
{
    for (const uint32_t number : {+SUPERVISION_IND, +IEMLI_CLIENT_DOWN_IND}) {
        EXPECT_EQ(senders(number), std::set<std::string>{SELF}) << std::hex << number;
    }
}

TEST(DoorNumbers, ThatClientsSendAreTaken)
{
    for (const uint32_t number :
         {+IEMLI_INIT_SERVICE_REQ, +IEMLI_TERM_SERVICE_REQ, +IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ,
          +IEMLI_CREATE_INTER_ME_LINK_REQ, +IEMLI_UPDATE_INTER_ME_LINK_REQ, +IEMLI_DELETE_INTER_ME_LINK_REQ,
          +IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ, +IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ, +IECTM_COLI_IML_LINK_LIST_REQ}) {
        EXPECT_EQ(senders(number), std::set<std::string>{OPEN}) << std::hex << number;
    }
}

TEST(DoorNumbers, OfTheSharesAreThoseOfIemlisSessions)
{
    size_t shares = 0;
    for (const policy_door &door : packaged().doors) {
        for (const policy_share &share : door.shares) {
            EXPECT_EQ(share.opens, +IEMLI_INIT_SERVICE_REQ);
            EXPECT_EQ(share.opened, +IEMLI_INIT_SERVICE_CFM);
            EXPECT_EQ(share.refused, +IEMLI_INIT_SERVICE_REJ);
            EXPECT_EQ(share.closed, +IEMLI_TERM_SERVICE_CFM);
            EXPECT_EQ(share.session_at, offsetof(iemli_header, connection_ref));
            shares += share.at_most;
        }
    }
    EXPECT_EQ(shares, 2u); // that is all it has
}

} // namespace
