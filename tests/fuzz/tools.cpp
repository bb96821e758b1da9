// What programs beside the daemon read from others: the link list (and its two printed forms), a service's reply to a
// command, and the messages that an IEMLI client gets. The first byte says which.
#include <algorithm>

#include "control_wire.hpp"
#include "iemli_client.hpp"
#include "input.hpp"
#include "link_list/link_list.hpp"

namespace
{

using fuzz::Input;
using fuzz::require;
using nlohmann::json;

void read_list(Input input)
{
    std::vector<uint8_t> bytes;
    const uint8_t count = input.byte();
    if (count < 4) { // a list with its head in place
        const uint32_t head[2] = {IECTM_COLI_IML_LINK_LIST_RSP, count};
        bytes.resize(sizeof head);
        memcpy(bytes.data(), head, sizeof head);
    }
    const std::vector<uint8_t> rest = input.bytes(8192);
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    // A block of its own, so that a read behind its end is seen.
    std::string error;
    const auto links = link_list::decode(bytes.data(), bytes.size(), &error);
    if (!links) {
        require(!error.empty(), "who refuses says why");
        return;
    }
    const std::string table = link_list::to_table(*links);
    require(static_cast<size_t>(std::count(table.begin(), table.end(), '\n')) >= links->size() + 1, "a line per link");
    const json read = json::parse(link_list::to_json(*links), nullptr, false);
    require(read.is_object() && read["links"].size() == links->size(), "the JSON form is JSON, with every link");
}

void read_reply(Input input)
{
    const std::vector<uint8_t> bytes = input.bytes(8192);
    try {
        (void)kap_node::control_result(kap_node::control_content(bytes))
            .dump(-1, ' ', false, json::error_handler_t::replace);
    } catch (const kap_node::command_error &) {
        return; // refused
    }
}

// One request is under way, so that there is something to answer.
void take_messages(Input input)
{
    iemli_client client;
    client.client_ref = 7;
    client.server_mbox = 0x1001;
    client.subscription = 3;
    client.requests.push_back({1, IEMLI_CREATE_INTER_ME_LINK_REQ, false, {}});
    client.requests.push_back({2, IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ, false, {}});
    client.requests.push_back({3, IEMLI_INIT_SERVICE_REQ, false, {}});
    while (input.more()) {
        const uint8_t which = input.byte();
        const uint32_t number = (which & 0x80) != 0 ? 0x1900000u + which % 4 : IEMLI_CLIENT_DOWN_IND + which % 32;
        const size_t length = input.byte();
        const std::vector<uint8_t> bytes = input.bytes(length);
        itc_msg *message = itc_alloc(4 + bytes.size(), number);
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t *>(message) + 4);
        iemli_client_handle(client, message);
        itc_free(&message);
    }
    for (const iemli_event &event : client.events) {
        require(event.kind != iemli_event_kind::malformed || !event.text.empty(), "who refuses says why");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input(data, size);
    switch (input.pick(3)) {
    case 0:
        read_list(input);
        break;
    case 1:
        read_reply(input);
        break;
    default:
        take_messages(input);
        break;
    }
    return 0;
}
