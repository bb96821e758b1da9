#include "port_control.hpp"

#include <unistd.h>

#include "asking.hpp"
#include "control.hpp"
#include "iemli_client.hpp"
#include "output.hpp"
#include "words.hpp"

namespace vornctl
{

namespace
{

constexpr uint32_t PUBLISHED_BOUND_MS = 500;
constexpr uint32_t CAPABILITY_LINK = 2;
constexpr const char *PORT_CONTROL = "iepcsi-server";

std::optional<bool> state_in(const nlohmann::json &port, const char *name)
{
    const auto found = port.find(name);
    return found != port.end() && found->is_number() ? std::optional(found->get<int>() == 1) : std::nullopt;
}

// A session with the daemon, as long as it lives.
class daemon_session
{
public:
    daemon_session()
    {
        const bool there = iemli_client_start(client_, static_cast<uint32_t>(getpid())) &&
                           iemli_client_wait_published(client_, PUBLISHED_BOUND_MS);
        const iemli_answer answer = there ? iemli_client_open(client_) : iemli_answer();
        if (!there || answer.outcome != iemli_outcome::confirmed) {
            iemli_client_stop(client_);
            throw failure(there && answer.outcome == iemli_outcome::rejected ? exits::failed : exits::no_daemon,
                          there
                              ? "port control does not take commands, and the daemon gives no session for the question"
                              : "port control does not take commands, and the daemon offers no links");
        }
    }
    ~daemon_session()
    {
        (void)iemli_client_close(client_);
        iemli_client_stop(client_);
    }
    daemon_session(const daemon_session &) = delete;
    daemon_session &operator=(const daemon_session &) = delete;

    // The address of a port; nothing where there is no such port.
    std::optional<std::string> address_of(const std::string &port)
    {
        const iemli_answer answer = iemli_client_get_mac(client_, port, 1);
        if (answer.outcome != iemli_outcome::confirmed) {
            return std::nullopt;
        }
        char text[32];
        (void)snprintf(text, sizeof text, MAC_FMT, MAC_ARGS(answer.mac));
        return text;
    }

private:
    iemli_client client_;
};

std::vector<port_facts> ask_daemon(const std::vector<link_list::link> &links)
{
    daemon_session session;
    std::vector<port_facts> ports;
    for (const std::string &name : port_names()) {
        if (const auto mac = session.address_of(name)) {
            port_facts port;
            port.name = name;
            port.mac = *mac;
            port.source = "daemon";
            add_states_of_links(port, links);
            ports.push_back(port);
        }
    }
    return ports;
}

} // namespace

std::vector<port_facts> ports_shown(const nlohmann::json &shown)
{
    std::vector<port_facts> ports;
    for (const nlohmann::json &one : shown.value("ports", nlohmann::json::array())) {
        port_facts port;
        port.name = people_port(text_in(one, "name"));
        port.mac = text_in(one, "mac");
        port.interface = text_in(one, "interface");
        port.name_space = text_in(one, "namespace");
        port.carries_links = (static_cast<uint32_t>(number_in(one, "capability")) & CAPABILITY_LINK) != 0;
        port.unlocked = state_in(one, "adm_state");
        port.operational = state_in(one, "oper_state");
        port.source = "port control";
        ports.push_back(port);
    }
    return ports;
}

// A link that is disabled because of its port says so; one that is enabled, or has only lost its far end, has a port
// that is well.
void add_states_of_links(port_facts &port, const std::vector<link_list::link> &links)
{
    for (const link_list::link &l : links) {
        if (!same_port(l.port, port.name)) {
            continue;
        }
        if (l.reason == "locked") {
            port.unlocked = false;
            port.operational = false;
        } else if (l.reason == "down") {
            port.operational = false;
        } else if (l.enabled || l.reason == "no connectivity") {
            port.unlocked = true;
            port.operational = true;
        }
    }
}

std::vector<port_facts> ask_for_ports(const std::optional<std::vector<link_list::link>> &links)
{
    if (itc_locate(PORT_CONTROL) == ITC_NO_MBOX) {
        throw failure(exits::no_daemon, std::string("port control (") + PORT_CONTROL + ") is not there");
    }
    const auto reply = kap_node::control_call(PORT_CONTROL, {{"command", {"show"}}});
    if (reply.value("ok", false) && reply.contains("result") && reply["result"].is_object()) {
        return ports_shown(reply["result"]);
    }
    return ask_daemon(links.value_or(std::vector<link_list::link>()));
}

} // namespace vornctl
