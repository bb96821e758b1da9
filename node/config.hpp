// The configuration of the reference node: one TOML file, read by every service. A key that nobody knows, a value of
// the wrong kind or a name that cannot be is an error with its line and column; all errors of a file are told together.
//
//   backend = "kernel"            or "memory": what is asked for is kept and shown, and nothing is done
//   max_clients = 64              connections per service
//   [emi]
//   max_endpoints = 65536
//   [fmi]
//   max_rules = 65536
//   [ports.IDL_A1]                one of IDL_A1 IDL_A2 IDL_B1 IDL_B2 TN_A TN_B TN_C TN_D
//   interface = "eth1"
//   namespace = "near"            where the interface is (default: where the service is)
//   admin = "unlocked"            or "locked"
//   vlan = "device"               what opening a VLAN means here; or "bridge", "none"
//   capability = 2                bit 2: can carry links
//   vlan_interfaces = false       VLAN devices on the interface are announced as the port's VLANs (true for TN ports,
//                                 whose links live on them)
//   reported_namespace = "near"   what clients are told (default: namespace; for the service's own a name that the port
//                                 control server gives to it, see own_namespace.hpp)
//   name = "IDLA1"                as the port control and port management servers call it
//   fmi_name = "DiPort_A1"        as the endpoint manager and the flow manager call it
//   [[far_end]]                   where "kap-node far-end" answers
//   namespace = "far"
//   interfaces = ["eth1"]
//
// All keys but "interface" and "interfaces" may be left out; the values shown are those for a missing key, except for
// namespaces.
#pragma once

#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kap_node
{

// What is wrong with a file, a line for each mistake: "FILE:LINE:COLUMN: what".
struct config_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class backend_kind {
    memory,
    kernel
};

// What opening a VLAN on a port does: a VLAN device on the interface; the VLAN let through on the bridge port that the
// interface is; nothing, since whoever sends tags for itself.
enum class vlan_mode {
    device,
    bridge,
    none
};

struct file_place {
    uint32_t line = 0;
    uint32_t column = 0;
};

struct port_config {
    std::string people_name; // "IDL_A1", as the file, the clients of the daemon and people call it
    std::string name;        // "IDLA1"
    std::string fmi_name;    // "DiPort_A1"
    std::string interface;
    file_place interface_at; // where the file says so
    std::string name_space;  // "": the one that the service is in
    std::string reported_name_space;
    bool unlocked = false;
    vlan_mode vlan = vlan_mode::device;
    uint32_t capability = 2;
    bool vlan_interfaces = false;
};

// The interfaces of a namespace on which the far end answers.
struct far_end_config {
    std::string name_space;
    std::vector<std::string> interfaces;
    std::vector<file_place> interfaces_at; // where the file says so
};

struct node_config {
    backend_kind backend = backend_kind::kernel;
    size_t max_clients = 64;
    std::vector<port_config> ports; // in the order of the file
    size_t max_endpoints = 65536;
    size_t max_rules = 65536;
    std::vector<far_end_config> far_end;
};

// The name under which the machine's own network namespace is found in /run/netns where it is installed.
inline constexpr const char *HOST_NAMESPACE = "kap-host";

// Whatever is wrong with the text, and nothing else, is a config_error; `name` is what it calls the file.
node_config read_config(std::istream &text, const std::string &name);
node_config read_config_file(const std::string &path);

} // namespace kap_node
