// The live table of vornctl watch: what is known, how it is chosen, ordered and drawn, and what keys do to it. It knows
// no terminal and no socket; what it draws fits the size that it is told.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "words.hpp"

namespace vornctl
{

struct watched_link {
    std::string name;
    std::string port;
    unsigned vlan = 0;
    std::string far;
    std::string state;
    std::string reason;
    int64_t since_us = 0;
    uint64_t flaps_today = 0;
    double rtt_us = -1;         // of the last batch; negative: none
    std::vector<double> past;   // averages, the oldest first; negative: none was answered
    bool past_is_known = false; // past has been asked for
};

enum class order {
    by_state, // what is not well first
    by_name,
    by_since, // the newest first
    by_flaps, // the most first
    by_rtt,   // the longest first
};

struct screen_size {
    size_t columns;
    size_t rows;
};

class watch_view
{
public:
    selection chosen;     // of the call
    bool painted = false; // in colours

    // The answer to "links"; the past that is known of a link stays.
    void take_links(const nlohmann::json &links);
    // A change, as it comes.
    void take_change(const nlohmann::json &change);
    // The answer to "samples".
    void take_samples(const std::string &name, const nlohmann::json &samples);
    void set_connected(bool connected, const std::string &trouble);

    // True: the table wants to be drawn anew. `quit` is set when that was the key.
    bool press(const std::string &key, bool &quit);

    std::string draw(screen_size size, int64_t now);
    // The links on the screen that was drawn last, of which "samples" may be asked.
    std::vector<std::string> visible() const { return visible_; }

private:
    std::vector<const watched_link *> listed() const;
    bool press_in_filter(const std::string &key);
    bool less(const watched_link &one, const watched_link &other) const;
    std::string head(size_t shown) const;
    std::string help_line() const;

    std::map<std::string, watched_link> links_;
    std::deque<nlohmann::json> changes_; // the newest last
    std::vector<std::string> visible_;
    std::string filter_;
    bool typing_filter_ = false;
    bool only_troubled_ = false;
    bool reversed_ = false;
    bool help_ = false;
    bool connected_ = false;
    std::string trouble_;
    order order_ = order::by_state;
    size_t top_ = 0;
    size_t page_ = 10;
};

} // namespace vornctl
