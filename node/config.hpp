// The configuration of the reference node: one JSON file, read by every service. A key that nobody knows, a value of
// the wrong kind or a name that does not fit its field in the messages is an error that says where.
//
//   {
//     "max_clients": 64,                          connections per service
//     "ports": [{
//       "name": "IDLA1",                          as the port control and port management servers call it
//       "fmi_name": "DiPort_A1",                  as the endpoint manager and the flow manager call it (default: name)
//       "interface": "idl_a1",
//       "namespace": "near",                      of the interface; "" is the service's own
//       "reported_namespace": "near",             what clients are told (default: namespace; for "" a name that the
//                                                 port control server gives to its own, see own_namespace.hpp)
//       "adm_state": "unlocked",                  or "locked" (the default)
//       "capability": 2,                          bit 2 (the default): can carry links
//       "vlan_interfaces": false                  true: its VLAN devices are reported as its VLANs
//     }],
//     "emi": {"max_endpoints": 65536},
//     "fmi": {"max_rules": 65536},
//     "far_end": [{"namespace": "far", "interfaces": ["idl_a1"]}]
//   }
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kap_node
{

struct config_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct port_config {
    std::string name;
    std::string fmi_name;
    std::string interface;
    std::string name_space;
    std::string reported_name_space;
    bool unlocked = false;
    uint32_t capability = 2;
    bool vlan_interfaces = false;
};

// The interfaces of a namespace on which the far end answers.
struct far_end_config {
    std::string name_space;
    std::vector<std::string> interfaces;
};

struct node_config {
    size_t max_clients = 64;
    std::vector<port_config> ports;
    size_t max_endpoints = 65536;
    size_t max_rules = 65536;
    std::vector<far_end_config> far_end;
};

node_config parse_config(const nlohmann::json &document);
// Whatever is wrong with the text, and nothing else, is a config_error that begins with `name`.
node_config read_config(std::istream &text, const std::string &name);
node_config read_config_file(const std::string &path);

} // namespace kap_node
