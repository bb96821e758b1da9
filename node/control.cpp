// The client side of the control protocol (control.hpp).
#include "control.hpp"
#include "control_wire.hpp"

#include "itc.h"

#include <chrono>

namespace kap_node
{

namespace
{

// Delivered by the monitor when the service ends while its reply is awaited.
constexpr uint32_t SERVICE_GONE = 0x1B9004;

using clock = std::chrono::steady_clock;

json error_reply(const std::string &text) { return {{"ok", false}, {"error", text}}; }

uint32_t remaining_ms(clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock::now()).count();
    return left > 0 ? static_cast<uint32_t>(left) : 0;
}

void send_request(uint32_t to, uint32_t tag, const json &request)
{
    const bytes content = control_message(CONTROL_REQUEST, tag, request);
    itc_msg *message = itc_alloc(content.size(), CONTROL_REQUEST);
    memcpy(message, content.data(), content.size());
    itc_send(&message, to, ITC_MY_MBOX);
}

// Replies of earlier calls that came too late are passed over.
json await_reply(const std::string &name, uint32_t from, uint32_t tag, uint32_t timeout_ms)
{
    const uint32_t filter[] = {2, CONTROL_REPLY, SERVICE_GONE};
    const auto end = clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        itc_msg *message = itc_receive(filter, remaining_ms(end), from);
        if (message == nullptr) {
            return error_reply(name + " does not answer");
        }
        const std::span<const uint8_t> data(reinterpret_cast<const uint8_t *>(message), itc_size(message));
        const bool gone = message->msgno == SERVICE_GONE;
        const bool ours = !gone && control_tag(data) == tag;
        json reply = ours ? control_content(data) : json();
        itc_free(&message);
        if (gone) {
            return error_reply(name + " has ended");
        }
        if (ours) {
            return reply.is_object() && reply.contains("ok") ? reply : error_reply(name + " answers without sense");
        }
    }
}

} // namespace

std::string control_mailbox(const std::string &service)
{
    static const std::pair<const char *, const char *> names[] = {
        {"iepcsi", "iepcsi-server"}, {"pmi", "pmi-server"},         {"emi", "endpoint_mgr"},
        {"fmi", "flow-manager"},     {"aasi", "automationagentsi"}, {"far-end", "kap-node-far-end"},
    };
    for (const auto &[short_name, mailbox_name] : names) {
        if (service == short_name) {
            return mailbox_name;
        }
    }
    return "";
}

json control_call(const std::string &mailbox_name, const json &request, uint32_t timeout_ms)
{
    static thread_local uint32_t last_tag = 0;
    const uint32_t to = itc_locate(mailbox_name.c_str());
    if (to == ITC_NO_MBOX) {
        return error_reply(mailbox_name + " is not there");
    }
    itc_msg *gone = itc_alloc(sizeof *gone, SERVICE_GONE);
    const uint32_t monitor = itc_monitor(to, &gone);
    send_request(to, ++last_tag, request);
    json reply = await_reply(mailbox_name, to, last_tag, timeout_ms);
    itc_unmonitor(monitor);
    return reply;
}

json control_command(const std::string &service, const std::vector<std::string> &words, uint32_t timeout_ms)
{
    const std::string name = control_mailbox(service);
    if (name.empty()) {
        throw std::runtime_error("no service \"" + service + "\"; there are iepcsi, pmi, emi, fmi, aasi and far-end");
    }
    return control_result(control_call(name, {{"command", words}}, timeout_ms));
}

} // namespace kap_node
