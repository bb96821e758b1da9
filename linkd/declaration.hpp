// What is declared: links in TOML (links.toml, links.d/*.toml, the state directory's) and in the control protocol's
// JSON, and everything that is wrong with them, also what the daemon would refuse.
//
//   [links.to-north]                   # letters, digits, "-", "_" and "."; at most 64
//   port = "IDL_A1"                    # or "IDLA1"
//   vlan = 100
//   far = "02:00:00:00:00:02"          # the far end's CPM
//   near_mp = 1                        # default
//   app_links = [{ near = "02:00:00:00:01:01", far = "02:00:00:00:01:02" }]
//   rtt = true                         # default false; or { batch = 5, interval = 1, frame_bytes = 64 }
#pragma once

#include "view.hpp"

#include <map>
#include <string>
#include <vector>

namespace linkd
{

struct file_place {
    std::string file;
    uint32_t line = 0;
    uint32_t column = 0;
};

// "FILE:LINE:COLUMN: "; of a place without a line "FILE: "
std::string text_of(const file_place &place);

// What the daemon knows a link by.
struct link_key {
    std::string port; // as people write it
    uint16_t vlan = 0;
    mac_bytes far = {};
    uint8_t near_mp = 1;
    auto operator<=>(const link_key &) const = default;
};

struct declaration {
    std::string name;
    link_key key;
    std::vector<app_pair> app_links; // ascending: their order means nothing
    std::optional<rtt_wish> rtt;
    bool declared = true; // or asked for at run time
    file_place at;        // of the name
    // Of what is compared with other links; without a line where it was not read from a file.
    file_place far_at;
    std::vector<file_place> app_links_at; // as app_links

    link_identity identity() const { return {name, key.port, key.vlan, text_of(key.far)}; }
};

// By name.
using declarations = std::map<std::string, declaration>;

// Reads a text. What is sound is added; each mistake is a line "FILE:LINE:COLUMN: what".
void read_links(const std::string &text, const std::string &file, bool declared, declarations &links,
                std::vector<std::string> &mistakes);

// The file, then DIRECTORY/*.toml by name (`file` with ".d" in place of ".toml"). Neither needs to be there.
// Mistakes that only show between links are among them.
declarations read_link_files(const std::string &file, std::vector<std::string> &mistakes);
// These files and no other.
declarations read_link_files(const std::vector<std::string> &files, std::vector<std::string> &mistakes);

// What cannot be between links, in the order of their places: told for the later of the two.
std::vector<std::string> conflicts(const declarations &links);
// What keeps this one out from beside the others; empty: nothing. One of its own name is not among the others.
std::string conflict_of(const declaration &link, const declarations &others);

// A request of the control protocol: all of a link, or what changes of `link`. The text says what is wrong; empty:
// nothing, and `link` is changed.
std::string take_json(const nlohmann::json &request, bool all, declaration &link);

// As read_links reads it.
std::string toml_of(const declarations &links);

bool is_link_name(const std::string &name);
// "IDL_A1" for this and for "IDLA1"; empty: no port is called so.
std::string port_name_of(const std::string &written);

} // namespace linkd
