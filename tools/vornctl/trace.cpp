// vornctl trace: what kap-trace does, here.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "command.hpp"
#include "masks.hpp"
#include "output.hpp"

namespace vornctl
{

namespace
{

std::string process_name;
std::string mask_text;

std::string hex(uint32_t mask)
{
    char text[16];
    (void)snprintf(text, sizeof text, "0x%08x", mask);
    return text;
}

std::vector<trace_masks::process> find(const std::string &name)
{
    auto found = trace_masks::find(name);
    if (found.empty()) {
        throw failure(exits::failed, "no process \"" + name + "\" shares its trace mask");
    }
    return found;
}

struct shown_mask {
    std::string name;
    uint32_t mask;
};

exits print_masks(const call &c, const std::vector<shown_mask> &masks)
{
    json list = json::array();
    std::vector<text_table::row> rows = {{"NAME.PID", "MASK", "LEVELS"}};
    for (const shown_mask &one : masks) {
        json levels = json::array();
        for (unsigned level = 0; level < 32; ++level) {
            if ((one.mask >> level & 1U) != 0) {
                levels.push_back(level);
            }
        }
        list.push_back({{"name", one.name}, {"mask", one.mask}, {"levels", levels}});
        rows.push_back({one.name, hex(one.mask), trace_masks::levels_of(one.mask)});
    }
    if (c.json) {
        print_json(json{{"traces", list}});
    } else {
        print_table(rows);
    }
    return exits::well;
}

exits list(const call &c, const std::vector<trace_masks::process> &processes, bool with_default)
{
    std::vector<shown_mask> masks;
    for (const auto &p : processes) {
        masks.push_back({p.file, mask_of(p)});
    }
    if (with_default) {
        masks.push_back({"default", trace_masks::default_mask()});
    }
    return print_masks(c, masks);
}

uint32_t read_mask(uint32_t now)
{
    const auto mask = trace_masks::changed_mask(now, mask_text);
    if (!mask) {
        throw failure(exits::wrong_use, "\"" + mask_text + "\" " + trace_masks::NO_MASK);
    }
    return *mask;
}

failure cannot(const std::string &what)
{
    const bool forbidden = errno == EACCES || errno == EPERM;
    return {forbidden ? exits::not_allowed : exits::failed, what + ": " + strerror(errno)};
}

exits set()
{
    if (process_name == "default") {
        std::string file;
        if (!trace_masks::set_default(read_mask(trace_masks::default_mask()), &file)) {
            throw cannot(file);
        }
        return exits::well;
    }
    for (const auto &p : find(process_name)) {
        if (!set_mask(p, read_mask(mask_of(p)))) {
            throw cannot(p.file);
        }
    }
    return exits::well;
}

} // namespace

void add_trace(CLI::App &app, call &c)
{
    CLI::App *trace =
        app.add_subcommand("trace", "what running processes trace: seen and changed, as kap-trace(1) does");
    trace->require_subcommand(1);
    CLI::App *all = trace->add_subcommand("list", "every process that shares its mask, and the default");
    add_json(*all, c);
    all->callback([&c] { c.run = [&c] { return list(c, trace_masks::processes(), true); }; });

    CLI::App *get = trace->add_subcommand("get", "the mask of a process, or \"default\"");
    get->add_option("NAME", process_name, "a process's name in its traces, or NAME.PID")->required()->type_name("");
    add_json(*get, c);
    get->callback([&c] {
        c.run = [&c] { return process_name == "default" ? list(c, {}, true) : list(c, find(process_name), false); };
    });

    CLI::App *change = trace->add_subcommand("set", "changes it");
    change->add_option("NAME", process_name, "a process's name in its traces, NAME.PID, or default")
        ->required()
        ->type_name("");
    change->add_option("MASK", mask_text, "a number, or +L,L,... or -L,L,... to switch levels on or off")
        ->required()
        ->type_name("");
    change->callback([&c] { c.run = [] { return set(); }; });
}

} // namespace vornctl
