// The live table at work: keys, redrawing, and an end in order.
#include "live.hpp"

#include <csignal>
#include <cstdio>

#include "link_list/link_list.hpp"
#include "screen.hpp"

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr auto REDRAW_EVERY = 200ms;
constexpr auto LISTEN_FOR = 50ms;
constexpr uint32_t FETCH_BOUND_MS = 2000;
constexpr rtt_settings LIVE_RTT = {5, 1, 64};

volatile sig_atomic_t asked_to_end = 0;

void ask_to_end(int) { asked_to_end = 1; }

struct live {
    std::vector<bool> port_up;
    clock_type::time_point next_draw;
    bool colour;
    bool list_shown = false;
};

std::string fetch_list(int columns)
{
    std::string error;
    auto links = link_list::fetch(FETCH_BOUND_MS, &error);
    return links ? link_list::to_table(*links, static_cast<size_t>(columns)) : error;
}

void draw(demo &d, live &l)
{
    screen_view view;
    view.now = std::chrono::system_clock::now();
    view.port_up = l.port_up;
    view.colour = l.colour;
    for (const demo_link &link : d.links) {
        view.answered.push_back(demo_far_end_counts(link).answered);
        view.paths.push_back(demo_agent_path(link.link_ref));
    }
    const terminal_size size = terminal_get_size();
    view.list = l.list_shown ? fetch_list(size.columns) : "";
    terminal_draw(screen_render(d, view, size));
    l.next_draw = clock_type::now() + REDRAW_EVERY;
}

void flip_port(demo &d, live &l, size_t index)
{
    if (index < d.stage.ports.size()) {
        l.port_up[index] = !l.port_up[index];
        demo_set_port(d, d.stage.ports[index], l.port_up[index]);
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
    } else if (key == 'k' || key == 'K') {
        demo_set_locked(d, d.stage.ports[0], !d.port_locked);
    } else if (key == 'l' || key == 'L') {
        l.list_shown = !l.list_shown;
    } else if (key >= '1' && key <= '9') {
        flip_port(d, l, static_cast<size_t>(key - '1'));
    }
    l.next_draw = clock_type::now();
    return false;
}

void show(demo &d)
{
    live l{std::vector<bool>(d.stage.ports.size(), true), clock_type::now(), terminal_wants_colour()};
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

int live_run(demo &d)
{
    (void)signal(SIGINT, ask_to_end);
    (void)signal(SIGTERM, ask_to_end);
    (void)signal(SIGHUP, ask_to_end);
    try {
        printf("starting the registry, the node's services, the far end and kap-vorn\n");
        if (!d.stage.kernel_lacks.empty()) {
            printf("rules and endpoints stay in memory, the kernel lacks: %s\n", d.stage.kernel_lacks.c_str());
        }
        demo_start(d);
        demo_create(d, demo_first_wish(d));
        demo_create(d, demo_second_wish(d));
        demo_enable_rtt(d, d.links[0], LIVE_RTT);
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
