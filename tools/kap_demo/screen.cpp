// Drawing: what is known becomes lines of text. Nothing is asked here.
#include "screen.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sstream>

namespace
{

constexpr const char *GREEN = "\x1b[32m";
constexpr const char *RED = "\x1b[31m";
constexpr const char *BOLD = "\x1b[1m";
constexpr const char *PLAIN = "\x1b[0m";

__attribute__((format(printf, 1, 2))) std::string text(const char *format, ...)
{
    char buffer[512];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

std::string clock_text(std::chrono::system_clock::time_point when)
{
    time_t seconds = std::chrono::system_clock::to_time_t(when);
    tm parts{};
    localtime_r(&seconds, &parts);
    char buffer[16];
    (void)strftime(buffer, sizeof buffer, "%H:%M:%S", &parts);
    return buffer;
}

// A screen under construction: lines cut to the width, no more lines than fit.
struct canvas {
    terminal_size size;
    bool colour;
    std::string text;
    int lines = 0;
};

void add_line(canvas &c, const std::string &line, const char *colour = nullptr)
{
    if (c.lines >= c.size.rows - 1) {
        return;
    }
    std::string cut = line.substr(0, static_cast<size_t>(c.size.columns));
    bool coloured = colour != nullptr && c.colour;
    c.text += (coloured ? colour + cut + PLAIN : cut) + "\x1b[K\n";
    c.lines++;
}

// The whole text of a status needs a wide screen; on a narrow one the reason alone says enough.
constexpr int WIDE_COLUMNS = 96;

const char *status_text(const demo_link &link, bool wide)
{
    if (!link.told) {
        return "created";
    }
    const char *whole = iemli_client_status_text(link.status, link.reason);
    const char *reason = strstr(whole, "reason ");
    return wide || reason == nullptr ? whole : reason + strlen("reason ");
}

void add_link(canvas &c, const demo_link &link, uint64_t answered)
{
    bool wide = c.size.columns >= WIDE_COLUMNS;
    add_line(c,
             text(" %4u  %-6s %4u  %-17s %4zu  %-*s %-8s %8llu", link.link_ref, link.wish.port.c_str(), link.wish.vlan,
                  mac_to_text(link.wish.far_cpm_mac).c_str(), link.wish.app_links.size(), wide ? 36 : 15,
                  status_text(link, wide), clock_text(link.changed).c_str(), static_cast<unsigned long long>(answered)),
             link.status == IML_LINK_ENABLED ? GREEN : RED);
}

void add_links(canvas &c, const demo &d, const screen_view &view)
{
    add_line(c,
             text(" %4s  %-6s %4s  %-17s %4s  %-*s %-8s %8s", "link", "port", "VLAN", "far-end CPM MAC", "apps",
                  c.size.columns >= WIDE_COLUMNS ? 36 : 15, "status", "since", "answered"),
             BOLD);
    for (size_t i = 0; i < d.links.size(); i++) {
        add_link(c, d.links[i], view.answered.at(i));
    }
}

// What is known of a link's round trips: the last batch as the daemon reported it, and what the automation agent has.
void add_round_trip(canvas &c, uint32_t link_ref, const std::string &whose, double min, double avg, double max,
                    const std::string &remark)
{
    add_line(c, text(" %4u  %-16s %10.2f %10.2f %10.2f  %s", link_ref, whose.c_str(), min, avg, max, remark.c_str()));
}

// The same where no round trip was measured.
void add_no_round_trip(canvas &c, uint32_t link_ref, const std::string &whose, const std::string &remark)
{
    add_line(c, text(" %4u  %-16s %10s %10s %10s  %s", link_ref, whose.c_str(), "-", "-", "-", remark.c_str()));
}

void add_batch(canvas &c, const demo_link &link)
{
    if (link.batches.empty()) {
        add_no_round_trip(c, link.link_ref, "RTT", "no batch yet");
        return;
    }
    const std::string whose = "RTT, batch " + std::to_string(link.batches.size());
    const rtt_stats &last = link.batches.back();
    if (!demo_is_measured(last)) {
        add_no_round_trip(c, link.link_ref, whose, "not valid");
        return;
    }
    add_round_trip(c, link.link_ref, whose, demo_microseconds(last.min_sec, last.min_nsec),
                   demo_microseconds(last.avg_sec, last.avg_nsec), demo_microseconds(last.max_sec, last.max_nsec),
                   "valid");
}

void add_path(canvas &c, uint32_t link_ref, const std::optional<agent_path> &path)
{
    constexpr const char *WHOSE = "agent's path";
    if (!path) {
        add_no_round_trip(c, link_ref, WHOSE, "none");
        return;
    }
    const std::string remark = std::string(path->link_status == IML_LINK_ENABLED ? "enabled" : "disabled") + ", " +
                               std::to_string(path->reports) + " reports";
    if (path->max_nsec == 0) { // a report of the status alone, or of a batch that is not valid: no round trip takes 0
        add_no_round_trip(c, link_ref, WHOSE, remark);
        return;
    }
    add_round_trip(c, link_ref, WHOSE, demo_microseconds(0, path->min_nsec), demo_microseconds(0, path->avg_nsec),
                   demo_microseconds(0, path->max_nsec), remark);
}

void add_round_trips(canvas &c, const demo &d, const screen_view &view)
{
    add_line(c, text(" %4s  %-16s %10s %10s %10s", "link", "round trip", "min us", "avg us", "max us"), BOLD);
    for (size_t i = 0; i < d.links.size(); i++) {
        if (d.links[i].rtt.batchSize != 0) {
            add_batch(c, d.links[i]);
        }
        add_path(c, d.links[i].link_ref, view.paths.at(i));
    }
}

void add_list(canvas &c, const std::string &list)
{
    std::istringstream lines(list);
    size_t widest = 0;
    for (std::string line; std::getline(lines, line);) {
        widest = std::max(widest, line.size());
        add_line(c, line);
    }
    const auto columns = static_cast<size_t>(c.size.columns);
    if (widest > columns) {
        add_line(c, "");
        add_line(c, text("  (the list is %zu columns wider than this terminal)", widest - columns));
    }
}

void add_scene(canvas &c, const demo &d, const screen_view &view)
{
    std::string scene = std::string("  far end: ") + (d.far_end_answers ? "answers" : "silent");
    for (size_t i = 0; i < d.stage.ports.size(); i++) {
        scene += "    " + d.stage.ports[i].wire.interface + ": " + (view.port_up.at(i) ? "up" : "down") +
                 (i == 0 && d.port_locked ? ", locked" : "");
    }
    add_line(c, scene);
}

void add_keys(canvas &c, const demo &d)
{
    std::string keys = "  f cut or mend the far end";
    for (size_t i = 0; i < d.stage.ports.size(); i++) {
        keys += "   " + std::to_string(i + 1) + " " + d.stage.ports[i].wire.interface + " down or up";
    }
    add_line(c, keys, BOLD);
    add_line(c, "  k lock or unlock " + d.stage.ports.at(0).wire.interface + "   l link list   q end", BOLD);
}

// As many of the newest as fit, oldest first.
void add_notes(canvas &c, const demo &d)
{
    auto room = static_cast<size_t>(std::max(c.size.rows - 1 - c.lines, 0));
    size_t first = d.notes.size() - std::min(d.notes.size(), room);
    for (size_t i = first; i < d.notes.size(); i++) {
        add_line(c, "  " + clock_text(d.notes[i].when) + "  " + d.notes[i].text);
    }
}

} // namespace

std::string screen_render(const demo &d, const screen_view &view, terminal_size size)
{
    canvas c{size, view.colour, "", 0};
    add_line(c, text("  kap-vorn: the links of this node%*s", 12, clock_text(view.now).c_str()), BOLD);
    add_line(c, "");
    if (!view.list.empty()) {
        add_list(c, view.list);
        add_line(c, "");
        add_line(c, "  l back   q end", BOLD);
        return c.text;
    }
    add_links(c, d, view);
    add_line(c, "");
    add_round_trips(c, d, view);
    add_line(c, "");
    add_scene(c, d, view);
    add_line(c, "");
    add_keys(c, d);
    add_line(c, "");
    add_notes(c, d);
    return c.text;
}
