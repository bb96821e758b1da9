// Links without anybody who serves them: what they report goes to whoever gave his functions.
#include "manager/links/link_reports.hpp"

#include <cstdlib>

#include "manager/links/rtt.hpp"
#include "support/daemon.hpp"

using namespace daemon_test;

namespace
{

std::vector<std::string> told;

void note(const std::string &what, uint32_t a, uint32_t b)
{
    told.push_back(what + " " + std::to_string(a) + " " + std::to_string(b));
}

void let_go(IemliPendingRequest **request)
{
    free(*request);
    *request = nullptr;
}

void confirmed(uint32_t link_ref, IemliPendingRequest **request)
{
    note("confirmed", link_ref, (*request)->procedure_ref);
    let_go(request);
}

void rejected(uint32_t reason, IemliPendingRequest **request)
{
    note("rejected", reason, (*request)->procedure_ref);
    let_go(request);
}

void status(uint32_t owner, uint32_t link_ref, iml_link_status status, iml_link_disabled_reason)
{
    note("status of " + std::to_string(owner), link_ref, status);
}

void rtt(uint32_t owner, uint32_t link_ref, const rtt_stats &stats)
{
    note("rtt of " + std::to_string(owner), link_ref, stats.rtt_validity);
}

constexpr link_reports OWN_REPORTS = {confirmed, rejected, status, rtt};

// No session exists; the owner 9 is a number and nothing else.
class LinkReports : public DaemonTest
{
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        told.clear();
        start();
        links_report_to(&OWN_REPORTS);
    }

    static void create(const Link &link)
    {
        IemliLinkData *data = make_link_data(link);
        IemliPendingRequest *request = make_request(IEMLI_PENDING_CREATE, 9);
        iml_link_create(data, &request);
        EXPECT_EQ(request, nullptr);
        free(data);
        run();
    }
};

} // namespace

TEST_F(LinkReports, TellOfALinksLifeWithoutAServer)
{
    create({.port = "IDL_A1", .vlan = 100});
    EXPECT_EQ(told, (std::vector<std::string>{"confirmed 1 77", "status of 9 1 0"}));
    told.clear();
    supervision(iml_link_first()->supervision_session_id, 0, 0, 1000);
    EXPECT_EQ(told, std::vector<std::string>{"status of 9 1 1"});
    told.clear();
    ASSERT_TRUE(rtt_enable(1, {2, 1, 64}));
    supervision(iml_link_first()->supervision_session_id, 0, 0, 1000);
    supervision(iml_link_first()->supervision_session_id, 0, 0, 1000);
    EXPECT_EQ(told, std::vector<std::string>{"rtt of 9 1 1"});
    told.clear();
    IemliPendingRequest *request = make_request(IEMLI_PENDING_DELETE, 9, 1);
    ASSERT_TRUE(iml_link_delete(1, 9, &request));
    run();
    EXPECT_EQ(told, std::vector<std::string>{"confirmed 1 77"});
}

TEST_F(LinkReports, TellOfARefusedStepWithoutAServer)
{
    emi_answers = answer::reject;
    create({.port = "IDL_A1", .vlan = 100});
    EXPECT_EQ(told, std::vector<std::string>{"rejected 99 77"});
    EXPECT_EQ(iml_link_first(), nullptr);
}
