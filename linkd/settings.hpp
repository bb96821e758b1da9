// The settings of kap-linkd: linkd.toml, all of it with a default, and the paths that options change.
//
//   [history]
//   days = 30                      changes and samples older than that are forgotten
//   max_mib = 256                  the oldest are forgotten when the file is larger
//   [notify]
//   directory = "/etc/kap-vorn/notify.d"
//   flap_changes = 6               a link that changes more often than that ...
//   flap_seconds = 60              ... within so long is flapping: no more notices ...
//   hold_down_s = 60               ... until it has been calm for so long; then one that sums up; 0: never held down
//   seconds = 10                   a program that runs longer is ended
//   [http]
//   address = "127.0.0.1"          only addresses of loopback; "": nobody is listened to
//   port = 9643
//   group = ""                     only root, kap-linkd itself and this group's members are answered; "": whoever is on
//                                  this machine
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace linkd
{

struct settings {
    uint32_t history_days = 30;
    uint32_t history_max_mib = 256;
    std::string notify_directory = "/etc/kap-vorn/notify.d";
    uint32_t notify_flap_changes = 6;
    uint32_t notify_flap_seconds = 60;
    uint32_t notify_hold_down_s = 60;
    uint32_t notify_seconds = 10;
    std::string http_address = "127.0.0.1";
    uint16_t http_port = 9643;
    std::string http_group;
};

// Where things are; each is changed by an option.
struct paths {
    std::string settings = "/etc/kap-vorn/linkd.toml";
    std::string links = "/etc/kap-vorn/links.toml"; // and links.d beside it
    std::string state = "/var/lib/kap-linkd";       // links.toml, history.db
    std::string control = "/run/kap-linkd/control.sock";
};

// Reads a text, and a file; one that is not there is all defaults. Each mistake is a line "FILE:LINE:COLUMN: what".
settings read_settings_text(const std::string &text, const std::string &file, std::vector<std::string> &mistakes);
settings read_settings(const std::string &path, std::vector<std::string> &mistakes);

} // namespace linkd
