// The node's configuration. Whatever the text is: it is read, or it is refused with a config_error, and what was read
// fits the fields that it goes into.
#include <sstream>

#include "config.hpp"
#include "input.hpp"

namespace
{

void check(const kap_node::node_config &config)
{
    using fuzz::require;
    for (const kap_node::port_config &port : config.ports) {
        require(!port.name.empty() && port.name.size() <= 15, "a port's name fits");
        require(!port.fmi_name.empty() && port.fmi_name.size() <= 63, "its other name fits");
        require(!port.interface.empty() && port.interface.size() <= 15, "its interface's name fits");
        require(port.name_space.find('/') == std::string::npos, "a namespace is no path");
    }
    for (const kap_node::far_end_config &place : config.far_end) {
        require(!place.interfaces.empty(), "a far end has an interface");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::istringstream text(std::string(reinterpret_cast<const char *>(data), size));
    try {
        check(kap_node::read_config(text, "fuzz"));
    } catch (const kap_node::config_error &refused) {
        fuzz::require(std::string(refused.what()).starts_with("fuzz:"), "who refuses says where");
        return 0;
    }
    return 0;
}
