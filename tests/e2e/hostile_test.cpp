// A client that keeps to nothing, beside one that does: the good one keeps its link and its answers, and the daemon its
// size.
#include <fstream>

#include "e2e.hpp"

using namespace std::chrono_literals;

namespace
{

constexpr const char *MESSAGES_PER_FLOOD = "20000";
constexpr auto FLOOD_BOUND = 60s;
// What the second flood may add after the first has filled what the process keeps for reuse.
#ifdef KAP_SANITIZED
constexpr long MOST_GROWTH_KB = 512 * 1024; // a sanitizer keeps freed memory, and shadows of it
#else
constexpr long MOST_GROWTH_KB = 1024;
#endif

class Hostile : public EndToEnd
{
protected:
    // Floods the daemon while the good client keeps asking. Its link must not be told of once.
    void flood(const std::string &name, const std::string &seed)
    {
        const std::string log = d.stage.log_dir + "/" + name + ".log";
        child_process hostile =
            process_start(name, {d.stage.bin_dir + "/e2e-hostile", name, MESSAGES_PER_FLOOD, seed}, log);
        const auto deadline = std::chrono::steady_clock::now() + FLOOD_BOUND * slowness();
        unsigned asked = 0;
        while (process_running(hostile) && std::chrono::steady_clock::now() < deadline && !HasFailure()) {
            const iemli_answer answer = iemli_client_get_mac(d.client, "IDL_A1", 5);
            EXPECT_EQ(answer.outcome, iemli_outcome::confirmed) << iemli_client_reason_name(answer.reason);
            EXPECT_EQ(mac_to_text(answer.mac), "02:00:00:00:A1:01");
            asked++;
        }
        process_kill(hostile);
        EXPECT_EQ(process_status_text(hostile), "exit status 0") << read_log(name);
        EXPECT_GE(asked, 10u);
        while (const auto event = iemli_client_next_event(d.client, 0)) {
            ADD_FAILURE() << "told " << iemli_client_message_name(event->msgno) << " " << event->text;
        }
    }

    long daemon_size_kb()
    {
        std::ifstream file("/proc/" + std::to_string(daemon().pid) + "/status");
        for (std::string line; std::getline(file, line);) {
            if (line.rfind("VmRSS:", 0) == 0) {
                return std::stol(line.substr(line.find(':') + 1));
            }
        }
        ADD_FAILURE() << "the kernel does not say";
        return 0;
    }
};

} // namespace

TEST_F(Hostile, AFloodOfNonsenseDisturbsNobody)
{
    start();
    const uint32_t link_ref = demo_create(d, demo_first_wish(d)).link_ref;
    demo_wait_status(d, link_ref, IML_LINK_ENABLED, 0, 10s);
    flood("hostile-1", "1");
    const long size = daemon_size_kb();
    flood("hostile-2", "2");
    EXPECT_NE(read_log(DAEMON).find("Client session terminated"), std::string::npos) << "it had a session of its own";
    EXPECT_LE(daemon_size_kb() - size, MOST_GROWTH_KB) << "from " << size << " kB";
    const uint64_t answered = demo_far_end_counts(demo_find(d, link_ref)).answered;
    stage_wait(d.stage, "the link's pings go on", 10s,
               [&] { return demo_far_end_counts(demo_find(d, link_ref)).answered > answered; });
    EXPECT_EQ(iemli_client_delete_link(d.client, link_ref).outcome, iemli_outcome::confirmed);
    EXPECT_EQ(vlans(), 0u);
    EXPECT_EQ(endpoints_in_vlan(100), 0u);
}
