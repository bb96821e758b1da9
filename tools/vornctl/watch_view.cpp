#include "watch_view.hpp"

#include <algorithm>
#include <cstdio>

#include "link_facts.hpp"
#include "output.hpp"
#include "text_table.hpp"
#include "times.hpp"

namespace vornctl
{

namespace
{

using text_table::colour;

constexpr size_t MOST_CHANGES = 200;
constexpr size_t MOST_PAST = 400;
constexpr size_t GAP = 2;
constexpr size_t LEAST_SPARKS = 8;
constexpr size_t MOST_SPARKS = 60;

const char *name_of(order what)
{
    switch (what) {
    case order::by_state:
        return "state";
    case order::by_name:
        return "name";
    case order::by_since:
        return "since";
    case order::by_flaps:
        return "flaps";
    default:
        return "RTT";
    }
}

int rank_of(const std::string &state)
{
    const char *const ranks[] = {"rejected", "disabled", "waiting", "enabled"};
    for (int i = 0; i < 4; ++i) {
        if (state == ranks[i]) {
            return i;
        }
    }
    return 4;
}

std::string number_text(double value)
{
    char text[32];
    (void)snprintf(text, sizeof text, "%.1f", value);
    return value < 0 ? "-" : text;
}

// The columns in the order in which they are given up when the screen is too narrow: the last first.
enum column_kind {
    NAME,
    STATE,
    SINCE,
    REASON,
    FLAPS,
    RTT,
    PORT,
    VLAN,
    FAR,
    COLUMNS
};
constexpr const char *HEADS[COLUMNS] = {"NAME",   "STATE", "SINCE", "REASON", "FLAPS",
                                        "RTT us", "PORT",  "VLAN",  "FAR END"};
// Where they stand.
constexpr column_kind PLACES[COLUMNS] = {NAME, PORT, VLAN, FAR, STATE, SINCE, REASON, FLAPS, RTT};

std::string cell_of(const watched_link &link, column_kind column, int64_t now)
{
    switch (column) {
    case NAME:
        return link.name;
    case STATE:
        return link.state;
    case SINCE:
        return link.since_us == 0 ? "-" : span_text(now - link.since_us);
    case REASON:
        return link.reason.empty() ? "-" : link.reason;
    case FLAPS:
        return std::to_string(link.flaps_today);
    case RTT:
        return number_text(link.rtt_us);
    case PORT:
        return link.port;
    case VLAN:
        return std::to_string(link.vlan);
    default:
        return link.far;
    }
}

struct layout {
    size_t widths[COLUMNS] = {}; // 0: not shown
    size_t sparks = 0;           // columns for the round trips; 0: not shown
};

layout fit(const std::vector<const watched_link *> &links, size_t columns, int64_t now)
{
    layout fitted;
    size_t widths[COLUMNS];
    for (int i = 0; i < COLUMNS; ++i) {
        widths[i] = text_table::width_of(HEADS[i]);
        for (const watched_link *link : links) {
            widths[i] = std::max(widths[i], text_table::width_of(cell_of(*link, static_cast<column_kind>(i), now)));
        }
    }
    size_t used = 0;
    for (int i = 0; i < COLUMNS; ++i) {
        const size_t more = widths[i] + (i == 0 ? 0 : GAP);
        if (i > 0 && used + more > columns) {
            break;
        }
        fitted.widths[i] = std::min(widths[i], columns); // the name is there in any case, and cut where it must be
        used += more;
        // Before anything that does not change, the round trips have their place.
        if (i == RTT && used + GAP + LEAST_SPARKS <= columns) {
            fitted.sparks = LEAST_SPARKS;
            used += GAP + LEAST_SPARKS;
        }
    }
    if (fitted.sparks > 0 && used < columns) {
        fitted.sparks = std::min(MOST_SPARKS, fitted.sparks + columns - used);
    }
    return fitted;
}

std::string sparks_of(const watched_link &link, size_t columns)
{
    const size_t count = std::min(columns, link.past.size());
    return sparkline({link.past.end() - static_cast<std::ptrdiff_t>(count), link.past.end()});
}

std::string first_lines(const std::string &text, size_t count)
{
    size_t end = 0;
    for (size_t i = 0; i < count && end != std::string::npos; ++i) {
        end = text.find('\n', end);
        end = end == std::string::npos ? end : end + 1;
    }
    return text.substr(0, end);
}

colour paint_of(column_kind column, const watched_link &link)
{
    return column == STATE || column == REASON ? colour_of_state(link.state) : colour::none;
}

} // namespace

// ---- What is known --------------------------------------------------------------------------------------------------

void watch_view::take_links(const nlohmann::json &links)
{
    std::map<std::string, watched_link> fresh;
    for (const nlohmann::json &one : links) {
        watched_link link;
        link.name = text_in(one, "name");
        link.port = text_in(one, "port");
        link.vlan = static_cast<unsigned>(number_in(one, "vlan"));
        link.far = text_in(one, "far");
        link.state = text_in(one, "state");
        link.reason = text_in(one, "reason");
        link.since_us = number_in(one, "since_us");
        link.flaps_today = static_cast<uint64_t>(number_in(one, "flaps_today"));
        const nlohmann::json rtt = one.value("rtt_us", nlohmann::json());
        if (rtt.is_object() && rtt.contains("avg") && rtt["avg"].is_number()) {
            link.rtt_us = rtt["avg"].get<double>();
        }
        const auto known = links_.find(link.name);
        if (known != links_.end()) {
            link.past = std::move(known->second.past);
            link.past_is_known = known->second.past_is_known;
        }
        fresh[link.name] = std::move(link);
    }
    links_ = std::move(fresh);
}

void watch_view::take_change(const nlohmann::json &change)
{
    changes_.push_back(change);
    if (changes_.size() > MOST_CHANGES) {
        changes_.pop_front();
    }
    const auto found = links_.find(text_in(change, "link"));
    if (found == links_.end()) {
        return;
    }
    found->second.state = text_in(change, "to");
    found->second.reason = text_in(change, "reason");
    found->second.since_us = number_in(change, "at_us");
    if (found->second.state == "gone") {
        links_.erase(found);
    }
}

void watch_view::take_samples(const std::string &name, const nlohmann::json &samples)
{
    const auto found = links_.find(name);
    if (found == links_.end()) {
        return;
    }
    found->second.past_is_known = true;
    found->second.past.clear();
    for (const nlohmann::json &sample : samples) {
        const auto average = sample.find("avg_us");
        const bool valid = number_in(sample, "valid") > 0 && average != sample.end() && average->is_number();
        found->second.past.push_back(valid ? average->get<double>() : -1);
    }
    if (found->second.past.size() > MOST_PAST) {
        found->second.past.erase(found->second.past.begin(),
                                 found->second.past.end() - static_cast<std::ptrdiff_t>(MOST_PAST));
    }
}

void watch_view::set_connected(bool connected, const std::string &trouble)
{
    connected_ = connected;
    trouble_ = trouble;
}

// ---- Choice and order -----------------------------------------------------------------------------------------------

bool watch_view::less(const watched_link &one, const watched_link &other) const
{
    switch (order_) {
    case order::by_state:
        if (rank_of(one.state) != rank_of(other.state)) {
            return rank_of(one.state) < rank_of(other.state);
        }
        break;
    case order::by_since:
        if (one.since_us != other.since_us) {
            return one.since_us > other.since_us;
        }
        break;
    case order::by_flaps:
        if (one.flaps_today != other.flaps_today) {
            return one.flaps_today > other.flaps_today;
        }
        break;
    case order::by_rtt:
        if (one.rtt_us < other.rtt_us || other.rtt_us < one.rtt_us) {
            return one.rtt_us > other.rtt_us;
        }
        break;
    default:
        break;
    }
    return one.name < other.name;
}

std::vector<const watched_link *> watch_view::listed() const
{
    std::vector<const watched_link *> all;
    for (const auto &[name, link] : links_) {
        const bool passes =
            chosen.takes(link.port, link.state, link.reason) && (!only_troubled_ || link.state != "enabled");
        const std::string words = link.name + " " + link.port + " " + link.far + " " + link.state + " " + link.reason;
        if (passes && (filter_.empty() || words.find(filter_) != std::string::npos)) {
            all.push_back(&link);
        }
    }
    std::sort(all.begin(), all.end(), [this](const watched_link *one, const watched_link *other) {
        return reversed_ ? less(*other, *one) : less(*one, *other);
    });
    return all;
}

// ---- Drawing --------------------------------------------------------------------------------------------------------

std::string watch_view::head(size_t shown) const
{
    std::map<std::string, size_t> counts;
    for (const auto &[name, link] : links_) {
        ++counts[link.state];
    }
    std::string text = std::to_string(links_.size()) + (links_.size() == 1 ? " link" : " links");
    for (const auto &[state, count] : counts) {
        text += ", " + std::to_string(count) + " " + state;
    }
    if (shown != links_.size()) {
        text += "; " + std::to_string(shown) + " shown";
    }
    return text;
}

std::string watch_view::help_line() const
{
    if (typing_filter_) {
        return "filter: " + filter_ + "_";
    }
    if (help_) {
        return "q quit  s order  r reverse  d only troubled  / filter  arrows, page keys: scroll";
    }
    return std::string("order: ") + name_of(order_) + (reversed_ ? ", reversed" : "") +
           (filter_.empty() ? "" : "  filter: " + filter_) + (only_troubled_ ? "  only troubled" : "") + "  ? keys";
}

std::string watch_view::draw(screen_size size, int64_t now)
{
    std::vector<std::pair<std::string, colour>> lines;
    const auto links = listed();
    lines.emplace_back(head(links.size()), colour::bold);
    lines.emplace_back(connected_ ? help_line() : "kap-linkd: " + trouble_ + "; trying again",
                       connected_ ? colour::faint : colour::bad);
    // The last row stays free: a line feed there would scroll.
    const size_t rows = size.rows > 1 ? size.rows - 1 : 1;
    const size_t for_changes = rows > 12 ? std::min<size_t>(changes_.size() + 1, rows / 4) : 0;
    page_ = rows > 3 + for_changes ? rows - 3 - for_changes : 1;
    top_ = links.size() > page_ ? std::min(top_, links.size() - page_) : 0;
    const std::vector<const watched_link *> page(links.begin() + static_cast<std::ptrdiff_t>(top_),
                                                 links.begin() +
                                                     static_cast<std::ptrdiff_t>(std::min(links.size(), top_ + page_)));
    const layout fitted = fit(page, size.columns, now);
    std::string text;
    const auto line_of = [&](const watched_link *link) {
        std::string line;
        for (const column_kind column : PLACES) {
            if (fitted.widths[column] == 0) {
                continue;
            }
            const std::string cell =
                text_table::fill(link == nullptr ? HEADS[column] : cell_of(*link, column, now), fitted.widths[column]);
            line += (line.empty() ? "" : std::string(GAP, ' ')) +
                    (painted && link != nullptr ? text_table::painted(cell, paint_of(column, *link)) : cell);
        }
        if (fitted.sparks > 0) {
            line += std::string(GAP, ' ') + (link == nullptr ? text_table::cut("RTT, LAST 10 MIN", fitted.sparks)
                                                             : sparks_of(*link, fitted.sparks));
        }
        return line;
    };
    for (const auto &[line, paint] : lines) {
        const std::string cut = text_table::cut(line, size.columns);
        text += (painted ? text_table::painted(cut, paint) : cut) + "\x1b[K\n";
    }
    text += line_of(nullptr) + "\x1b[K\n";
    visible_.clear();
    for (const watched_link *link : page) {
        visible_.push_back(link->name);
        text += line_of(link) + "\x1b[K\n";
    }
    size_t drawn = lines.size() + 1 + page.size();
    for (; drawn + for_changes < rows && for_changes > 0; ++drawn) {
        text += "\x1b[K\n";
    }
    for (size_t i = 0; i + 1 < for_changes; ++i) {
        const nlohmann::json &change = changes_[changes_.size() - (for_changes - 1) + i];
        const std::string line = short_clock_text(number_in(change, "at_us"), now) + " " + text_in(change, "link") +
                                 ": " + text_in(change, "from") + " -> " +
                                 state_and_reason(text_in(change, "to"), text_in(change, "reason")) + ", after " +
                                 span_text(number_in(change, "lasted_us"));
        text += text_table::cut(line, size.columns) + "\x1b[K\n";
    }
    return first_lines(text, rows);
}

// ---- Keys -----------------------------------------------------------------------------------------------------------

bool watch_view::press_in_filter(const std::string &key)
{
    if (key == "\r" || key == "\n") {
        typing_filter_ = false;
    } else if (key == "\x1b") {
        typing_filter_ = false;
        filter_.clear();
    } else if (key == "\x7f" || key == "\b") {
        filter_.resize(filter_.empty() ? 0 : filter_.size() - 1);
    } else if (key.size() == 1 && key[0] >= ' ') {
        filter_ += key;
    }
    return true;
}

bool watch_view::press(const std::string &key, bool &quit)
{
    if (typing_filter_) {
        return press_in_filter(key);
    }
    if (key == "q") {
        quit = true;
    } else if (key == "s") {
        order_ = order_ == order::by_rtt ? order::by_state : static_cast<order>(static_cast<int>(order_) + 1);
    } else if (key == "r") {
        reversed_ = !reversed_;
    } else if (key == "d") {
        only_troubled_ = !only_troubled_;
    } else if (key == "/") {
        typing_filter_ = true;
    } else if (key == "?" || key == "h") {
        help_ = !help_;
    } else if (key == "\x1b") {
        filter_.clear();
    } else if (key == "\x1b[B" || key == "j") {
        ++top_;
    } else if (key == "\x1b[A" || key == "k") {
        top_ -= top_ > 0 ? 1 : 0;
    } else if (key == "\x1b[6~" || key == " ") {
        top_ += page_;
    } else if (key == "\x1b[5~" || key == "b") {
        top_ -= std::min(top_, page_);
    } else if (key == "\x1b[H" || key == "g") {
        top_ = 0;
    } else if (key == "\x1b[F" || key == "G") {
        top_ = links_.size();
    } else {
        return false;
    }
    return true;
}

} // namespace vornctl
