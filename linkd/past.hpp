// What the control socket asks of the history, and who gives changes their numbers. The history implements it; without
// one nothing is remembered.
#pragma once

#include "change.hpp"

#include <optional>
#include <vector>

namespace linkd
{

class past
{
public:
    virtual ~past() = default;

    // Called with every change before any listener is: gives it its id (ascending, never used twice, across restarts).
    virtual void number(link_change &change) = 0;

    // The changes with an id above `since`, ascending, at most `limit`; only of `link` where that is not empty.
    virtual std::vector<link_change> since(uint64_t since, const std::string &link, size_t limit) = 0;
    // The newest `limit` of those with an id above `since` and below `before`, ascending; likewise of a link.
    virtual std::vector<link_change> latest(uint64_t since, uint64_t before, const std::string &link, size_t limit) = 0;
    // The newest id that was given; 0: none yet.
    virtual uint64_t newest() = 0;
    // The id after which the first change is that was made at that moment of the clock or later; where there is none,
    // the newest.
    virtual uint64_t last_before(int64_t at_us) = 0;
    // Whether anything is remembered of such a link.
    virtual bool knows(const std::string &link) = 0;

    // The answer to "history": "events" (CHANGEs of that time, ascending), "availability", "flaps", "counters".
    virtual nlohmann::json history(const std::string &link, int64_t from_us, int64_t to_us, size_t limit) = 0;
    // The answer to "samples": the array of at most `points` SAMPLEs.
    virtual nlohmann::json samples(const std::string &link, int64_t from_us, int64_t to_us, size_t points) = 0;
    // How often the link was lost since midnight, local time.
    virtual uint64_t flaps_today(const std::string &link) = 0;
};

// Remembers nothing but the last number.
class no_past : public past
{
public:
    void number(link_change &change) override { change.id = ++last_; }
    std::vector<link_change> since(uint64_t, const std::string &, size_t) override { return {}; }
    std::vector<link_change> latest(uint64_t, uint64_t, const std::string &, size_t) override { return {}; }
    uint64_t newest() override { return last_; }
    uint64_t last_before(int64_t) override { return last_; }
    bool knows(const std::string &) override { return false; }
    nlohmann::json history(const std::string &, int64_t, int64_t, size_t) override { return nlohmann::json::object(); }
    nlohmann::json samples(const std::string &, int64_t, int64_t, size_t) override { return nlohmann::json::array(); }
    uint64_t flaps_today(const std::string &) override { return 0; }

private:
    uint64_t last_ = 0;
};

} // namespace linkd
