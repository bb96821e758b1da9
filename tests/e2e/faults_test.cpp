// Every process of the scene is killed, and stopped for a while, at moments that chance chooses, while two clients are
// busy. After a death the operator's order (docs/operations.md) brings the service back; after a stop nobody does
// anything. Then clients, daemon and lower layers have to agree again.
//
// KAP_FAULT_ROUNDS=N (10): one process each, in turn. KAP_LONGEST_STOP_MS=N (3000). KAP_SEED=N repeats a run,
// KAP_VICTIM=NAME has it be that process each time.
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "e2e.hpp"
#include "link_list/link_list.hpp"
#include "support/seeded.hpp"

#include <poll.h>

using namespace std::chrono_literals;

namespace
{

constexpr const char *CLIENTS[] = {"busy-a", "busy-b"};
constexpr uint16_t FIRST_VLANS[] = {101, 201};
constexpr const char *HOLD = "/run/hold";
constexpr const char *OWN_MAILBOX = "faults";
constexpr std::chrono::milliseconds BOUND = 30s; // for what follows by itself
// Six pings: from here on the far end that does not answer is a loss, and rightly reported.
constexpr int LOSS_MS = 4500;

int number_from(const char *variable, int usual)
{
    const char *text = getenv(variable);
    return text == nullptr ? usual : static_cast<int>(strtol(text, nullptr, 10));
}

// What a client or the daemon has of a link.
struct held_link {
    uint32_t link_ref;
    uint32_t vlan;
    bool enabled;
    auto operator<=>(const held_link &) const = default;
};

using held_links = std::set<held_link>;

std::ostream &operator<<(std::ostream &to, const held_link &l)
{
    return to << l.link_ref << " in VLAN " << l.vlan << (l.enabled ? "" : ", disabled");
}

class Faults : public EndToEnd
{
protected:
    Seeded chance;

    void start_scene()
    {
        stage_start(d.stage, OWN_MAILBOX);
        for (size_t i = 0; i < std::size(CLIENTS); i++) {
            start_busy_client(i);
        }
        expect_agreement("at the start");
    }

    void start_busy_client(size_t which)
    {
        const char *name = CLIENTS[which];
        d.stage.processes[name] =
            process_start(name,
                          {d.stage.bin_dir + "/e2e-busy", name, std::to_string(FIRST_VLANS[which]),
                           std::to_string(chance.number(0, 1 << 30))},
                          log_of(name));
    }

    std::string log_of(const std::string &name) const { return d.stage.log_dir + "/" + name + ".log"; }

    static std::string victim_of(const std::vector<std::string> &victims, int round)
    {
        const char *only = getenv("KAP_VICTIM");
        return only != nullptr ? only : victims[static_cast<size_t>(round) % victims.size()];
    }

    void let_time_pass(int low_ms, int high_ms)
    {
        poll(nullptr, 0, chance.number(low_ms, high_ms)); // the moment is what is tried here
    }

    // ---- Agreement ----

    // Nothing: the clients have not all said what they hold.
    static std::optional<held_links> links_of_clients()
    {
        held_links all;
        for (const char *client : CLIENTS) {
            std::ifstream file(std::string("/run/") + client + ".links");
            size_t own = 0;
            for (held_link link{}; file >> link.link_ref >> link.vlan >> link.enabled; own++) {
                all.insert(link);
            }
            if (own == 0) {
                return std::nullopt;
            }
        }
        return all;
    }

    static held_links links_of_daemon()
    {
        std::string error;
        held_links all;
        for (const auto &link : link_list::fetch(5000, &error).value_or(std::vector<link_list::link>{})) {
            all.insert({link.link_ref, link.vlan, link.enabled});
        }
        return all;
    }

    static std::set<uint32_t> vlans_of(const char *service, const char *list)
    {
        std::set<uint32_t> vlans;
        const nlohmann::json shown = stage_control(service, {"show"});
        for (const auto &entry : shown[list]) {
            vlans.insert(entry["vlan_id"].get<uint32_t>());
        }
        return vlans;
    }

    static std::string text_of(const held_links &links)
    {
        std::ostringstream text;
        for (const held_link &link : links) {
            text << "[" << link << "] ";
        }
        return text.str();
    }

    // Empty: clients and daemon have the same links, all enabled, and the lower layers have their VLANs open: those
    // and no others while `exact`.
    std::string disagreement() const
    {
        const auto clients = links_of_clients();
        if (!clients) {
            return "a client has no link";
        }
        const held_links daemon = links_of_daemon();
        std::set<uint32_t> wanted;
        for (const held_link &link : *clients) {
            wanted.insert(link.vlan);
            if (!link.enabled) {
                return "not enabled: " + text_of({link});
            }
        }
        if (daemon != *clients) {
            return "clients: " + text_of(*clients) + "daemon: " + text_of(daemon);
        }
        const std::set<uint32_t> open = vlans_of("pmi", "vlans");
        if (!std::includes(open.begin(), open.end(), wanted.begin(), wanted.end()) || (exact && open != wanted)) {
            return "open VLANs: " + testing::PrintToString(open) + ", of links: " + testing::PrintToString(wanted);
        }
        return "";
    }

    // Has the clients begin nothing, and waits until everybody agrees.
    void expect_agreement(const std::string &when)
    {
        for (const char *client : CLIENTS) {
            std::filesystem::remove(std::string("/run/") + client + ".links");
        }
        std::ofstream(HOLD) << "hold\n";
        std::string last;
        try {
            stage_wait(d.stage, "agreement", BOUND, [&] { return (last = disagreement()).empty(); });
        } catch (const stage_failure &failure) {
            FAIL() << when << ": " << last << "; " << failure.what();
        }
        std::filesystem::remove(HOLD);
    }

    // What a dead daemon had set up stays in services that count who wants a thing.
    bool exact = true;
};

} // namespace

// ---- Deaths ---------------------------------------------------------------------------------------------------------

class Killed : public Faults
{
protected:
    void end_daemon()
    {
        child_process ended = stage_stop_process(d.stage, DAEMON, SIGTERM, 10s);
        EXPECT_EQ(process_status_text(ended), "exit status 0");
    }

    void start_service(const std::string &name)
    {
        stage_start_process(d.stage, name);
        stage_wait_node(d.stage, name);
    }

    // Every process ends by itself; then the registry, the services and the daemon, and the clients.
    void restart_after_registry()
    {
        auto rest = std::exchange(d.stage.processes, {});
        for (auto &[name, child] : rest) {
            EXPECT_TRUE(process_wait(child, 10s)) << name << " goes on without a registry";
            EXPECT_EQ(process_status_text(child), name == DAEMON ? "exit status 0" : "exit status 1") << name;
            process_kill(child);
        }
        itc_exit();
        stage_start_process(d.stage, REGISTRY);
        stage_wait(d.stage, "the new registry lets us in", 10s,
                   [] { return itc_init(1, 0, nullptr, nullptr, 0) == 0; });
        ASSERT_NE(itc_create_mailbox(OWN_MAILBOX, 0), ITC_NO_MBOX);
        for (const char *service : {"iepcsi", "pmi", "emi", "fmi", AGENT, FAR_END}) {
            start_service(service);
        }
        stage_start_process(d.stage, DAEMON);
        start_busy_client(0);
        start_busy_client(1);
    }

    // As docs/operations.md lays down.
    void restart_after(const std::string &ended)
    {
        if (ended == REGISTRY) {
            restart_after_registry();
        } else if (ended == DAEMON) {
            stage_start_process(d.stage, DAEMON);
        } else if (ended == CLIENTS[0] || ended == CLIENTS[1]) {
            start_busy_client(ended == CLIENTS[0] ? 0 : 1);
        } else if (ended == AGENT || ended == FAR_END) {
            start_service(ended);
        } else {
            start_service(ended);
            end_daemon();
            stage_start_process(d.stage, DAEMON);
        }
    }
};

TEST_F(Killed, AnyProcessAtAnyMomentAndTheOrderOfOperationsBringsServiceBack)
{
    const std::vector<std::string> victims = {"pmi", DAEMON,  REGISTRY, "emi",      CLIENTS[0],
                                              "fmi", FAR_END, "iepcsi", CLIENTS[1], AGENT};
    start_scene();
    exact = false;
    const int rounds = number_from("KAP_FAULT_ROUNDS", 10);
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        const std::string victim = victim_of(victims, round);
        let_time_pass(200, 1500);
        kill_process(victim);
        restart_after(victim);
        expect_agreement("round " + std::to_string(round) + ", " + victim + " was killed");
    }
}

// ---- Stops ----------------------------------------------------------------------------------------------------------

class Stopped : public Faults
{
protected:
    size_t downs_told() const
    {
        size_t downs = 0;
        for (const char *client : CLIENTS) {
            const std::string log = read_log(client);
            for (size_t at = 0; (at = log.find("down ", at)) != std::string::npos; at++) {
                downs++;
            }
        }
        return downs;
    }

    void stop_for(const std::string &victim, int ms)
    {
        const child_process &child = d.stage.processes.at(victim);
        process_signal(child, SIGSTOP);
        poll(nullptr, 0, ms); // so is the time for which it stands still
        process_signal(child, SIGCONT);
    }
};

TEST_F(Stopped, AnyProcessAtAnyMomentGoesOnAndNobodyTakesItForALossOfFrames)
{
    const std::vector<std::string> victims = {DAEMON, REGISTRY, "pmi",    CLIENTS[0], "fmi",
                                              DAEMON, FAR_END,  "iepcsi", "emi",      AGENT};
    start_scene();
    const int rounds = number_from("KAP_FAULT_ROUNDS", 10);
    const int longest = number_from("KAP_LONGEST_STOP_MS", 3000);
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        const std::string victim = victim_of(victims, round);
        const int stop_ms = chance.number(100, longest);
        const std::string what =
            "round " + std::to_string(round) + ", " + victim + " was stopped for " + std::to_string(stop_ms) + " ms";
        const size_t before = downs_told();
        let_time_pass(100, 1000);
        stop_for(victim, stop_ms);
        expect_agreement(what);
        if (victim != FAR_END || stop_ms < LOSS_MS) {
            EXPECT_EQ(downs_told(), before) << what;
        }
    }
}

// The two links of the demo, with RTT on one: as long as the far end answers whatever is asked, no standstill of
// anybody is a loss.
class StoodStill : public Faults, public testing::WithParamInterface<const char *>
{
protected:
    static constexpr int STANDSTILL_MS = 10000;
    static constexpr auto SIX_PINGS_MORE = 8s; // what comes of it has come by then

    std::vector<std::string> who_stops() const
    {
        if (GetParam() == std::string("Daemon")) {
            return {DAEMON};
        }
        std::vector<std::string> all;
        for (const auto &[name, child] : d.stage.processes) {
            all.push_back(name);
        }
        return all;
    }

    void signal_all(const std::vector<std::string> &names, int signo)
    {
        for (const std::string &name : names) {
            process_signal(d.stage.processes.at(name), signo);
            let_time_pass(0, 5);
        }
    }
};

TEST_P(StoodStill, LinksThatAreAnsweredStayUp)
{
    start();
    demo_create(d, demo_first_wish(d));
    demo_create(d, demo_second_wish(d));
    for (const demo_link &link : d.links) {
        demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 10s);
    }
    demo_enable_rtt(d, d.links.front(), {5, 1, 64});
    const int rounds = std::max(1, number_from("KAP_FAULT_ROUNDS", 10) / 10);
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        let_time_pass(0, 1000);
        const std::vector<std::string> stopped = who_stops();
        signal_all(stopped, SIGSTOP);
        poll(nullptr, 0, STANDSTILL_MS);
        signal_all(stopped, SIGCONT);
        const auto end = std::chrono::steady_clock::now() + SIX_PINGS_MORE;
        while (std::chrono::steady_clock::now() < end) {
            demo_listen(d, 50ms);
            for (const demo_link &link : d.links) {
                ASSERT_EQ(link.status, uint32_t{IML_LINK_ENABLED})
                    << "link on " << link.wish.port << ", reason " << link.reason << ", round " << round;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Of, StoodStill, testing::Values("Daemon", "Everything"),
                         [](const auto &who) { return std::string(who.param); });
