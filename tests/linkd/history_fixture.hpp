// A history in a directory of the test's own, with clocks that the test sets.
#pragma once

#include "history.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/mount.h>
#include <unistd.h>

namespace linkd
{

class HistoryTest : public testing::Test
{
protected:
    static constexpr int64_t SECOND = 1'000'000, MINUTE = 60 * SECOND, HOUR = 60 * MINUTE, DAY = 24 * HOUR;
    static constexpr int64_t PATIENCE_MS = 20'000;

    HistoryTest()
    {
        // In memory: what is synced there costs nothing.
        const bool memory = access("/dev/shm", W_OK) == 0;
        std::string name = (memory ? std::filesystem::path("/dev/shm") : std::filesystem::temp_directory_path()) /
                           "kap-history-XXXXXX";
        directory_ = mkdtemp(name.data());
    }
    ~HistoryTest() override
    {
        (void)umount2(directory_.c_str(), MNT_DETACH); // where the test gave it a disk of its own
        std::filesystem::remove_all(directory_);
    }

    link_history::options options()
    {
        link_history::options wanted;
        wanted.directory = directory_;
        wanted.write_every_ms = 2;
        wanted.clocks = [this] {
            const std::lock_guard lock(mutex_);
            return now_;
        };
        wanted.boot = boot_;
        wanted.say = [this](const std::string &what) {
            const std::lock_guard lock(mutex_);
            said_.push_back(what);
        };
        return wanted;
    }

    void pass(int64_t us)
    {
        const std::lock_guard lock(mutex_);
        now_.real_us += us;
        now_.boot_us += us;
    }
    void set_clock(int64_t real_us)
    {
        const std::lock_guard lock(mutex_);
        now_.real_us = real_us;
    }
    clock_reading now()
    {
        const std::lock_guard lock(mutex_);
        return now_;
    }
    std::vector<std::string> said()
    {
        const std::lock_guard lock(mutex_);
        return said_;
    }

    // As the keeper tells it: numbered first.
    uint64_t tell(link_history &to, const std::string &name, link_state from, link_state into, int64_t lasted_us,
                  const std::string &reason = "")
    {
        link_change change{0, now().real_us, {name, "IDL_A1", 100, "02:00:00:00:00:02"}, from, into, reason, lasted_us,
                           {}};
        to.number(change);
        to.changed(change);
        return change.id;
    }

    std::string directory_;
    std::string boot_ = "one";

private:
    std::mutex mutex_;
    clock_reading now_{1'700'000'000 * SECOND, 1000 * SECOND};
    std::vector<std::string> said_;
};

} // namespace linkd
