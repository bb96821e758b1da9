#include "screen.hpp"

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

volatile sig_atomic_t asked_to_end = 0;

void ask_to_end(int) { asked_to_end = 1; }

constexpr auto REDRAW_EVERY = 200ms;
constexpr auto LISTEN_FOR = 50ms;

constexpr const char *GREEN = "\x1b[32m";
constexpr const char *RED = "\x1b[31m";
constexpr const char *BOLD = "\x1b[1m";
constexpr const char *PLAIN = "\x1b[0m";

// ---- Drawing --------------------------------------------------------------------------------------------------------

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

void add_scene(canvas &c, const demo &d, const screen_view &view)
{
    std::string scene = std::string("  far end: ") + (d.far_end_answers ? "answers" : "silent");
    for (size_t i = 0; i < d.stage.ports.size(); i++) {
        scene += "    " + d.stage.ports[i].wire.interface + ": " + (view.port_up.at(i) ? "up" : "down");
    }
    add_line(c, scene);
}

void add_keys(canvas &c, const demo &d)
{
    std::string keys = "  f cut or mend the far end";
    for (size_t i = 0; i < d.stage.ports.size(); i++) {
        keys += "   " + std::to_string(i + 1) + " " + d.stage.ports[i].wire.interface + " down or up";
    }
    add_line(c, keys + "   q end", BOLD);
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

// ---- Running --------------------------------------------------------------------------------------------------------

struct live {
    std::vector<bool> port_up;
    clock_type::time_point next_draw;
    bool colour;
};

void draw(demo &d, live &l)
{
    screen_view view;
    view.now = std::chrono::system_clock::now();
    view.port_up = l.port_up;
    view.colour = l.colour;
    for (const demo_link &link : d.links) {
        view.answered.push_back(demo_far_end_counts(link).answered);
    }
    terminal_draw(screen_render(d, view, terminal_get_size()));
    l.next_draw = clock_type::now() + REDRAW_EVERY;
}

void flip_port(demo &d, live &l, size_t index)
{
    if (index < d.stage.ports.size()) {
        l.port_up[index] = !l.port_up[index];
        wires_set_near(d.stage.ports[index].wire.interface, l.port_up[index]);
    }
}

// True: the key ends the show.
bool handle_key(demo &d, live &l, char key)
{
    if (key == 'q' || key == 'Q') {
        return true;
    }
    if (key == 'f' || key == 'F') {
        demo_set_far_end(d, !d.far_end_answers);
    } else if (key >= '1' && key <= '9') {
        flip_port(d, l, static_cast<size_t>(key - '1'));
    }
    l.next_draw = clock_type::now();
    return false;
}

void show(demo &d)
{
    live l{std::vector<bool>(d.stage.ports.size(), true), clock_type::now(), getenv("NO_COLOR") == nullptr};
    while (asked_to_end == 0) {
        char key = terminal_key();
        if (key != 0 && handle_key(d, l, key)) {
            return;
        }
        demo_listen(d, LISTEN_FOR);
        if (clock_type::now() >= l.next_draw) {
            draw(d, l);
        }
    }
}

void end_in_order(demo &d)
{
    demo_delete_all(d);
    printf("links deleted\n");
    demo_stop_daemon(d);
    printf("kap-vorn ended with exit status 0\n");
    demo_stop_rest(d);
    printf("nothing is left behind\n");
}

} // namespace

std::string screen_render(const demo &d, const screen_view &view, terminal_size size)
{
    canvas c{size, view.colour, "", 0};
    add_line(c, text("  kap-vorn: the links of this node%*s", 12, clock_text(view.now).c_str()), BOLD);
    add_line(c, "");
    add_links(c, d, view);
    add_line(c, "");
    add_scene(c, d, view);
    add_line(c, "");
    add_keys(c, d);
    add_line(c, "");
    add_notes(c, d);
    return c.text;
}

int screen_run(demo &d)
{
    (void)signal(SIGINT, ask_to_end);
    (void)signal(SIGTERM, ask_to_end);
    (void)signal(SIGHUP, ask_to_end);
    try {
        printf("starting the registry, the node's services, the far end and kap-vorn\n");
        demo_start(d);
        demo_create(d, demo_first_wish(d));
        demo_create(d, demo_second_wish(d));
        terminal_take();
        show(d);
        terminal_restore();
        end_in_order(d);
        return 0;
    } catch (const std::exception &failure) {
        terminal_restore();
        printf("%s\nthe logs of the processes are in %s\n", failure.what(), d.stage.log_dir.c_str());
        return 1;
    }
}
