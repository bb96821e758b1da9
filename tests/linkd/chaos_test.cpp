// The keeper and the history in a world in which nothing can be relied on: the daemon dies, loses messages both ways
// and refuses what it likes, links flap, others take links, declarations change, and the program itself ends and begins
// again. When all is well for a while, the daemon has exactly what is declared, and the history says so.
//
// KAP_SEED=N repeats a run, KAP_CHAOS_WALKS=N (20) makes it longer.
#include "../support/seeded.hpp"
#include "daemon_in_memory.hpp"
#include "history.hpp"
#include "hub.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <unistd.h>

namespace
{

using namespace linkd;

constexpr int STEPS = 500;
constexpr int64_t A_WHILE_MS = 900'000;
constexpr uint32_t SOME_REASONS[] = {IEMLI_REJ_UNKNOWN_PORT_NAME, IEMLI_REJ_MP_ID_NOT_READY,
                                     IEMLI_REJ_PORT_NOT_RESERVED, IEMLI_REJ_APP_LINK_ALREADY_USED,
                                     IEMLI_REJ_OTHER_REASON};

// What a process has, from its start to its end.
struct program {
    program(daemon_in_memory &daemon, const std::string &directory, const std::atomic<int64_t> &boot_us, size_t window)
        : history(options_of(directory, boot_us)), told(history), keeps(daemon, told, window)
    {
        told.add(history);
        keeps.remember(history.standing());
    }

    static link_history::options options_of(const std::string &directory, const std::atomic<int64_t> &boot_us)
    {
        link_history::options wanted;
        wanted.directory = directory;
        wanted.write_every_ms = 2;
        wanted.boot = "one";
        wanted.clocks = [&boot_us] { return clock_reading{1'700'000'000'000'000 + boot_us, boot_us}; };
        return wanted;
    }

    link_history history;
    hub told;
    keeper keeps;
};

class chaos
{
public:
    chaos(Seeded &chance, const std::string &directory)
        : chance_(chance), directory_(directory), window_(static_cast<size_t>(chance.number(1, 9)))
    {
        daemon_.loses = [this] { return chance_.number(1, 100) <= loss_; };
        daemon_.mood = [this] {
            return chance_.number(1, 100) <= moods_ ? SOME_REASONS[chance_.number(0, std::size(SOME_REASONS) - 1)] : 0U;
        };
        pass(0);
        begin();
    }

    void step()
    {
        switch (chance_.number(0, 15)) {
        case 0:
            wanted_ = some_links();
            program_->keeps.declare(wanted_, daemon_.now);
            break;
        case 1:
            seldom();
            break;
        case 2:
            publish();
            break;
        case 3:
            pass(chance_.number(1, 3000));
            program_->keeps.tick(daemon_.now);
            break;
        case 4:
            turn_one();
            break;
        case 5:
            daemon_.list();
            break;
        case 6:
        case 7:
        case 8:
            (void)daemon_.complete();
            break;
        case 9:
        case 10:
        case 11:
            (void)daemon_.take();
            break;
        default:
            (void)deliver();
        }
    }

    // From here on all is well.
    void calm_down()
    {
        loss_ = 0;
        moods_ = 0;
        daemon_.take_down_what_is_others();
        for (const auto &[ref, link] : daemon_.links) {
            daemon_.turn(ref, true);
        }
        publish();
        settle(A_WHILE_MS);
    }

    void expect_what_is_declared()
    {
        std::map<link_key, std::pair<std::vector<app_pair>, bool>> wanted, had;
        for (const auto &[name, link] : wanted_) {
            wanted[link.key] = {link.app_links, link.rtt.has_value()};
            const auto view = program_->keeps.view(name, daemon_.now);
            EXPECT_EQ(name_of(view->state), std::string("enabled")) << name << ": " << view->reason;
        }
        for (const auto &[ref, link] : daemon_.links) {
            had[link.key] = {link.app_links, link.rtt};
        }
        EXPECT_EQ(had, wanted);
        const size_t before = daemon_.seen.size();
        settle(A_WHILE_MS);
        EXPECT_EQ(daemon_.seen.size(), before) << "nothing is different, so nothing is asked for";
    }

    // Each change begins with the state in which the one before ended, over all ends of the program; the last is true.
    void expect_a_true_history()
    {
        std::map<std::string, link_state> states;
        uint64_t last = 0;
        for (const link_change &change : program_->history.since(0, "", 100'000)) {
            EXPECT_GT(change.id, last);
            last = change.id;
            const auto at = states.find(change.link.name);
            EXPECT_EQ(name_of(change.from), std::string(name_of(at == states.end() ? link_state::gone : at->second)))
                << change.link.name << " in " << change.id;
            if (change.from == change.to) { // with another reason
                EXPECT_TRUE(change.to == link_state::rejected || change.to == link_state::disabled) << change.id;
            }
            EXPECT_GE(change.lasted_us, 0);
            states[change.link.name] = change.to;
        }
        for (const auto &[name, state] : states) {
            EXPECT_EQ(state, wanted_.contains(name) ? link_state::enabled : link_state::gone) << name;
        }
        for (const auto &[name, link] : wanted_) {
            EXPECT_TRUE(states.contains(name)) << name;
        }
        EXPECT_EQ(program_->history.standing().size(), wanted_.size());
    }

private:
    void begin()
    {
        program_ = std::make_unique<program>(daemon_, directory_, boot_us_, window_);
        program_->keeps.declare(wanted_, daemon_.now);
        for (const auto &[name, link] : wanted_) {
            program_->history.resume(name);
        }
        program_->keeps.lost("no daemon", daemon_.now);
        there_ = false;
    }

    void seldom()
    {
        switch (chance_.number(0, 11)) {
        case 0: // the daemon is killed
            daemon_.die();
            program_->keeps.lost("no daemon", daemon_.now);
            there_ = false;
            break;
        case 1: // the program is, and its declarations may change until it is there again
            program_.reset();
            daemon_.part();
            if (chance_.number(0, 1) == 0) {
                wanted_ = some_links();
            }
            pass(chance_.number(0, 5000));
            begin();
            break;
        case 2: // the daemon deletes without a word
            if (!daemon_.links.empty()) {
                daemon_.links.erase(daemon_.links.begin());
            }
            break;
        case 3:
            loss_ = chance_.number(0, 1) * chance_.number(0, 60);
            break;
        case 4:
            moods_ = chance_.number(0, 1) * chance_.number(0, 100);
            break;
        case 5:
            (void)daemon_.take_for_another(some_key());
            break;
        case 6:
        case 7:
            daemon_.take_down_what_is_others();
            break;
        case 8: // a long time without a word
            pass(chance_.number(10'000, 400'000));
            program_->keeps.tick(daemon_.now);
            break;
        default:
            for (int i = 0; i < 50; i++) {
                (void)(deliver() || daemon_.take() || daemon_.complete());
            }
        }
    }

    void publish()
    {
        if (!there_) {
            program_->keeps.published(daemon_.now);
            there_ = true;
        }
    }

    void turn_one()
    {
        if (!daemon_.links.empty()) {
            auto at = daemon_.links.begin();
            std::advance(at, chance_.number(0, static_cast<int>(daemon_.links.size()) - 1));
            daemon_.turn(at->first, chance_.number(0, 1) == 0);
        }
    }

    bool deliver()
    {
        if (daemon_.said.empty()) {
            return false;
        }
        const auto what = daemon_.said.front();
        daemon_.said.pop_front();
        what(program_->keeps);
        return true;
    }

    void quiet()
    {
        while (deliver() || daemon_.take() || daemon_.complete()) {
        }
    }

    void settle(int64_t ms)
    {
        constexpr int64_t BETWEEN_LISTS_MS = 10'000;
        const int64_t end = daemon_.now.ms() + ms;
        int64_t list_at = daemon_.now.ms();
        for (;;) {
            quiet();
            const int64_t due = std::min(program_->keeps.next_ms().value_or(end), list_at);
            if (due >= end) {
                return;
            }
            pass(std::max<int64_t>(due - daemon_.now.ms(), 1));
            program_->keeps.tick(daemon_.now);
            if (daemon_.now.ms() >= list_at) {
                daemon_.list();
                list_at = daemon_.now.ms() + BETWEEN_LISTS_MS;
            }
        }
    }

    void pass(int64_t ms)
    {
        daemon_.now.boot_us += ms * MS;
        daemon_.now.real_us += ms * MS;
        boot_us_ = daemon_.now.boot_us;
    }

    link_key some_key()
    {
        const bool second = chance_.number(0, 1) == 0;
        return {second ? "TN_A" : "IDL_A1", static_cast<uint16_t>(chance_.number(1, 3)),
                mac(static_cast<uint8_t>((second ? 8 : 0) + chance_.number(1, 2))), 1};
    }

    declarations some_links()
    {
        declarations links;
        for (int i = chance_.number(0, 7); i > 0; i--) {
            declaration link;
            link.name = "l" + std::to_string(chance_.number(1, 8));
            link.key = some_key();
            for (int pairs = chance_.number(0, 2); pairs > 0; pairs--) {
                link.app_links.push_back(
                    {mac(static_cast<uint8_t>(0x40 + pairs)), mac(static_cast<uint8_t>(0x50 + chance_.number(0, 3)))});
            }
            std::sort(link.app_links.begin(), link.app_links.end());
            if (chance_.number(0, 1) == 0) {
                link.rtt = rtt_wish{static_cast<uint16_t>(chance_.number(1, 3)), 1, 64};
            }
            links[link.name] = link;
        }
        for (auto at = links.begin(); at != links.end();) {
            at = conflict_of(at->second, links).empty() ? std::next(at) : links.erase(at);
        }
        return links;
    }

    Seeded &chance_;
    std::string directory_;
    size_t window_;
    std::atomic<int64_t> boot_us_{0};
    daemon_in_memory daemon_;
    std::unique_ptr<program> program_;
    declarations wanted_;
    bool there_ = false;
    int loss_ = 0;  // of a hundred messages
    int moods_ = 0; // of a hundred creates and updates
};

std::string temporary()
{
    const bool memory = access("/dev/shm", W_OK) == 0;
    std::string name =
        (memory ? std::filesystem::path("/dev/shm") : std::filesystem::temp_directory_path()) / "kap-chaos-XXXXXX";
    return mkdtemp(name.data());
}

TEST(Chaos, EndsInWhatIsDeclaredAndTheHistorySaysSo)
{
    Seeded chance;
    const char *const wanted = getenv("KAP_CHAOS_WALKS");
    const long walks = wanted == nullptr ? 20 : strtol(wanted, nullptr, 10);
    for (long i = 0; i < walks && !HasFailure(); i++) {
        SCOPED_TRACE("walk " + std::to_string(i));
        const std::string directory = temporary();
        {
            chaos world(chance, directory);
            for (int step = 0; step < STEPS; step++) {
                world.step();
            }
            world.calm_down();
            world.expect_what_is_declared();
            world.expect_a_true_history();
        }
        std::filesystem::remove_all(directory);
    }
}

} // namespace
