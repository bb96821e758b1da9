// What links are declared in, and the settings. Whatever the text is: what is read of it makes sense and can be written
// and read again, and what is refused is said with its place. The first byte says which of the two it is.
#include <algorithm>

#include "declaration.hpp"
#include "input.hpp"
#include "settings.hpp"

namespace
{

using namespace linkd;
using fuzz::Input;
using fuzz::require;

constexpr const char *FILE_NAME = "fuzz.toml";

void require_places(const std::vector<std::string> &mistakes)
{
    for (const std::string &line : mistakes) {
        require(line.starts_with(std::string(FILE_NAME) + ":"), "who refuses says where");
    }
}

bool is_of_one_station(const mac_bytes &mac) { return mac != mac_bytes{} && (mac[0] & 1) == 0; }

void require_sense(const declaration &link)
{
    require(is_link_name(link.name), "a link's name is one");
    require(port_name_of(link.key.port) == link.key.port, "its port is there, as people write it");
    require(link.key.vlan >= 1 && link.key.vlan <= 4094, "its VLAN is one");
    require(is_of_one_station(link.key.far), "its far end is one station");
    require(link.key.near_mp >= 1 && link.key.near_mp <= 63, "its processor is one");
    require(std::is_sorted(link.app_links.begin(), link.app_links.end()), "its pairs are in order");
    require(std::adjacent_find(link.app_links.begin(), link.app_links.end()) == link.app_links.end(), "each once");
    for (const app_pair &pair : link.app_links) {
        require(is_of_one_station(pair.near) && is_of_one_station(pair.far), "a pair is of two stations");
    }
    if (link.rtt) {
        const uint32_t seconds = uint32_t{link.rtt->batch} * link.rtt->interval;
        require(seconds > 0 && 60 % seconds == 0, "a minute holds a whole number of batches");
        require(link.rtt->frame_bytes >= 64 && link.rtt->frame_bytes <= 1500, "a frame is one");
    }
}

void read_declarations(const std::string &text)
{
    declarations links;
    std::vector<std::string> mistakes;
    read_links(text, FILE_NAME, true, links, mistakes);
    require_places(mistakes);
    for (const auto &[name, link] : links) {
        require(name == link.name && link.at.file == FILE_NAME && link.at.line > 0, "what is read has a place");
        require_sense(link);
    }
    require_places(conflicts(links));
    declarations again;
    std::vector<std::string> wrong;
    read_links(toml_of(links), FILE_NAME, true, again, wrong);
    require(wrong.empty() && again.size() == links.size(), "what is written can be read");
    for (const auto &[name, link] : links) {
        const auto found = again.find(name);
        require(found != again.end() && found->second.key == link.key && found->second.app_links == link.app_links &&
                    found->second.rtt == link.rtt,
                "and is the same");
    }
}

void read_the_settings(const std::string &text)
{
    std::vector<std::string> mistakes;
    const settings read = read_settings_text(text, FILE_NAME, mistakes);
    require_places(mistakes);
    require(read.history_days >= 1 && read.history_max_mib >= 1, "a history keeps something");
    require(read.notify_directory.starts_with('/') && read.notify_seconds >= 1, "a program has its time");
    require(read.notify_flap_changes >= 1 && read.notify_flap_seconds >= 1, "what flaps can be told");
    require(read.http_port >= 1, "a port");
    require(read.http_address.empty() || read.http_address == "127.0.0.1" || read.http_address == "::1",
            "nobody on a network is listened to");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input(data, size);
    const bool are_settings = input.byte() == 's';
    const std::string text = input.text(size);
    if (are_settings) {
        read_the_settings(text);
    } else {
        read_declarations(text);
    }
    return 0;
}
