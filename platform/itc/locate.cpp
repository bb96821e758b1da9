/*
 * Finding mailboxes and watching them: names looked up now or as soon as they appear, and monitors. The registry keeps
 * who waits for what; the message that is to be delivered stays here, under the token that the registry will answer.
 */
#include "state.hpp"

using namespace itc;

namespace
{

// Takes the message of that monitor out of whatever queue it was delivered to.
void take_back(uint32_t monitor_id)
{
    for (thread *t : g().threads) {
        t->queue.take_all([monitor_id](const block *b) { return b->monitor_id == monitor_id; },
                          [](block *b) {
                              account_take(b);
                              block_free(b);
                          });
    }
}

} // namespace

extern "C" {

uint32_t itc_locate(const char *name)
{
    hold lock = call_lock();
    if (!name_is_good(name)) {
        return ITC_NO_MBOX;
    }
    uint32_t mbox = ITC_NO_MBOX;
    itc_wire::writer request(itc_wire::locate, 0);
    return registry_call(lock, request.text(name), &mbox) == 0 ? mbox : ITC_NO_MBOX;
}

void itc_locate_async(const char *name, itc_msg **msg, uint32_t deliver_to)
{
    block *b = block_take(msg);
    const hold lock = call_lock();
    if (b == nullptr) {
        return;
    }
    if (!name_is_good(name) || !mbox_is_own(deliver_to)) {
        note_drop(&g().statistics.dropped_no_mailbox, "it was to tell of a name, but to no mailbox of this process");
        block_free(b);
        return;
    }
    const uint32_t token = new_serial();
    g().awaiting[token] = {b, deliver_to};
    itc_wire::writer request(itc_wire::await_name, token);
    registry_send(request.text(name));
}

uint32_t itc_monitor(uint32_t mbox, itc_msg **msg)
{
    block *b = block_take(msg);
    const hold lock = call_lock();
    const uint32_t id = new_serial();
    const thread *t = thread_current();
    if (b == nullptr || t == nullptr) {
        block_free(b); // nobody would ever receive it
        return id;
    }
    g().monitors[id] = {b, t->mbox};
    itc_wire::writer request(itc_wire::monitor, id);
    registry_send(request.u32(mbox));
    return id;
}

void itc_unmonitor(uint32_t monitor_id)
{
    const hold lock = call_lock();
    if (monitor_id == 0) {
        return;
    }
    const auto found = g().monitors.find(monitor_id);
    if (found == g().monitors.end()) {
        take_back(monitor_id);
        return;
    }
    block_free(found->second.message);
    g().monitors.erase(found);
    itc_wire::writer request(itc_wire::unmonitor, monitor_id);
    registry_send(request);
}

} // extern "C"
