// Which of the node's services are there (services.hpp).
#include "services.hpp"

#include <cstring>

namespace linkd
{

namespace
{

constexpr uint32_t SERVICE_FOUND = 0x7D000001;
constexpr uint32_t SERVICE_GONE = 0x7D000002;

struct note {
    uint32_t msgno;
    uint32_t which;
};

struct known_service {
    const char *name;
    const char *mailbox;
};
constexpr known_service SERVICES[] = {
    {"vorn", "kap-vorn"},    {"iepcsi", "iepcsi-server"}, {"pmi", "pmi-server"},
    {"emi", "endpoint_mgr"}, {"fmi", "flow-manager"},     {"aasi", "automationagentsi"},
};

itc_msg *note_of(uint32_t msgno, size_t which)
{
    itc_msg *msg = itc_alloc(sizeof(note), msgno);
    const note content{msgno, static_cast<uint32_t>(which)};
    memcpy(msg, &content, sizeof content);
    return msg;
}

} // namespace

void node_services::await(size_t which)
{
    itc_msg *found = note_of(SERVICE_FOUND, which);
    itc_locate_async(SERVICES[which].mailbox, &found, itc_current_mbox());
}

void node_services::begin()
{
    static_assert(std::size(SERVICES) == COUNT);
    for (size_t which = 0; which < COUNT; which++) {
        await(which);
    }
}

bool node_services::take(const itc_msg *msg)
{
    if (msg->msgno != SERVICE_FOUND && msg->msgno != SERVICE_GONE) {
        return false;
    }
    note content{};
    if (itc_size(msg) != sizeof content) {
        return true;
    }
    memcpy(&content, msg, sizeof content);
    if (content.which >= COUNT) {
        return true;
    }
    state &of = states_.at(content.which);
    if (content.msgno == SERVICE_FOUND && of.mbox == ITC_NO_MBOX) {
        of.mbox = itc_sender(msg);
        of.starts++;
        itc_msg *gone = note_of(SERVICE_GONE, content.which);
        (void)itc_monitor(of.mbox, &gone);
    } else if (content.msgno == SERVICE_GONE && of.mbox != ITC_NO_MBOX && itc_sender(msg) == of.mbox) {
        of.mbox = ITC_NO_MBOX;
        await(content.which);
    }
    return true;
}

void node_services::registry_lost()
{
    for (state &each : states_) {
        each.mbox = ITC_NO_MBOX;
    }
}

std::vector<service_view> node_services::look() const
{
    std::vector<service_view> all;
    for (size_t which = 0; which < COUNT; which++) {
        const state &of = states_.at(which);
        all.push_back({SERVICES[which].name, of.mbox != ITC_NO_MBOX, of.starts});
    }
    return all;
}

} // namespace linkd
