// vornctl capture: its words. What it does stands in tools/capture.
#include "capture.hpp"

#include <unistd.h>

#include "asking.hpp"
#include "output.hpp"

namespace vornctl
{

namespace
{

capture::capture_options options;
std::string name;

void check_words(bool file_given)
{
    const int kinds = (name.empty() ? 0 : 1) + (options.ports.empty() ? 0 : 1) + (options.link_ref ? 1 : 0) +
                      (options.interface.empty() ? 0 : 1);
    if (kinds > 1) {
        throw failure(exits::wrong_use, "one of NAME, --port, --link and --interface, please");
    }
    if (kinds == 0 && !options.messages) {
        throw failure(exits::wrong_use, "what is to be captured? NAME, --port, --link, --interface or --messages");
    }
    if (!options.name_space.empty() && options.interface.empty()) {
        throw failure(exits::wrong_use, "--namespace goes with --interface");
    }
    if (kinds == 0 && (options.all || options.vlan || !options.far_ends.empty())) {
        throw failure(exits::wrong_use, "--all, --vlan and --far go with frames");
    }
    if (!file_given && isatty(STDOUT_FILENO) != 0) {
        throw failure(exits::wrong_use, "where to? -w FILE");
    }
}

// The port, the VLAN and the far ends of a link that kap-linkd knows.
void take_link(const call &c)
{
    (void)link_name_word(name);
    const nlohmann::json link = ask_linkd(c, "link", {{"name", name}}).value("link", nlohmann::json::object());
    options.ports = {text_in(link, "port")};
    options.vlan = static_cast<uint16_t>(number_in(link, "vlan"));
    options.far_ends.push_back(text_in(link, "far"));
    for (const nlohmann::json &app : link.value("app_links", nlohmann::json::array())) {
        options.far_ends.push_back(text_in(app, "far"));
    }
}

exits run(const call &c, bool file_given)
{
    check_words(file_given);
    if (!name.empty()) {
        take_link(c);
    }
    return static_cast<exits>(capture::capture_command(options));
}

void add_frames(CLI::App &to)
{
    to.add_option("NAME", name, "the frames of this link of kap-linkd's: of its port, its VLAN and its far ends")
        ->type_name("");
    to.add_option("--port", options.ports, "the frames of this port, which port control finds; may be given again")
        ->type_name("PORT")
        ->allow_extra_args(false);
    to.add_option("--link", options.link_ref, "the frames of this link of \"vornctl links\"")->type_name("REF");
    to.add_option("--interface", options.interface, "the frames of this interface")->type_name("IFACE");
    to.add_option("--namespace", options.name_space, "the network namespace of the interface")->type_name("NETNS");
    to.add_option("--vlan", options.vlan, "only frames of this VLAN")->type_name("ID")->check(CLI::Range(1, 4094));
    to.add_option("--far", options.far_ends, "only frames from or to this address; may be given again")
        ->type_name("MAC")
        ->allow_extra_args(false);
    to.add_flag("--all", options.all, "every frame, not supervision frames alone");
    to.add_option("--node-config", options.node_config, "where ports are, when port control does not run")
        ->type_name("FILE");
}

} // namespace

void add_capture(CLI::App &app, call &c)
{
    CLI::App *capture = app.add_subcommand("capture", "frames and ITC messages into a file, for Wireshark");
    CLI::Option *file =
        capture->add_option("-w,--write", options.file, "the file; - is standard output")->type_name("FILE");
    add_frames(*capture);
    capture->add_flag("--messages", options.messages, "ITC messages as kap-vorn receives and sends them");
    capture->add_option("--count", options.count, "ends after so many packets")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    capture->add_option("--duration", options.duration_s, "ends after so many seconds")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 1e9));
    capture->add_option("--snap-length", options.snap_length, "keeps so much of each packet (262144)")
        ->type_name("BYTES")
        ->check(CLI::Range(64, 262144));
    capture->callback([&c, file] { c.run = [&c, given = file->count() > 0] { return run(c, given); }; });
}

} // namespace vornctl
