// The process: brings everything up in a fixed order, offers every received message to every dispatcher, and leaves on
// SIGINT and SIGTERM. What a message means is its dispatcher's business.
#include "vorn_manager.hpp"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "base/daemon_state.hpp"
#include "clients/aasi_client.hpp"
#include "clients/emi_client.hpp"
#include "clients/fmi_client.hpp"
#include "clients/iepcsi_client.hpp"
#include "clients/pmi_client.hpp"
#include "iemli/iemli_server.hpp"
#include "manager/links/supervision_results.hpp"
#include "manager_state.hpp"
#include "shell/shell_client.hpp"
#include "sighandler.h"
#include "vorn_trace.hpp"

namespace
{

constexpr const char *MAILBOX_NAME = "kap-vorn";
constexpr const char *THREAD_NAME = "kap_vorn_manager";
constexpr int TRI_OPEN_ALREADY = 4;

// Every message is offered to all of them, in this order.
constexpr message_dispatcher DISPATCHERS[] = {
    iemli_server_dispatch, shell_client_dispatch, iepcsi_client_dispatch, pmi_client_dispatch,
    emi_client_dispatch,   fmi_client_dispatch,   aasi_client_dispatch,   supervision_dispatch,
};
static_assert(std::size(DISPATCHERS) == 8);

void start_tracing()
{
    const int result = tri_init();
    if (result == 0 || result == TRI_OPEN_ALREADY) {
        tri_register_thread_name(THREAD_NAME);
    } else {
        VORN_TRACE(TRACE_ERROR, "Tri init failed. Provider name will be empty in traces.");
    }
}

bool create_own_mailbox()
{
    const int result = itc_init(1, 0, nullptr, nullptr, 0);
    if (result != 0) {
        VORN_TRACE(TRACE_ERROR, "itc_init failed, result %u", static_cast<unsigned>(result));
        return false;
    }
    vorn_set_own_mailbox(itc_create_mailbox(MAILBOX_NAME, 0));
    if (vorn_own_mailbox() == ITC_NO_MBOX) {
        itc_exit();
        VORN_TRACE(TRACE_ERROR, "VORN Mailbox not initialized %s", MAILBOX_NAME);
        return false;
    }
    VORN_TRACE(TRACE_WARNING, "VORN Mailbox initialized");
    return true;
}

void dispatch_message(const itc_msg *msg)
{
    if (!offer_message(DISPATCHERS, std::size(DISPATCHERS), msg)) {
        VORN_TRACE(TRACE_WARNING, "Message 0x%x not handled in VORN manager!", msg->msgno);
    }
}

} // namespace

int vorn_manager_run()
{
    set_signal_handler(handle_signal);
    manager_state_reset();
    start_tracing();
    if (!create_own_mailbox()) {
        return 1;
    }
    enter_initiating_state();
    receive_loop();
    itc_delete_mailbox(vorn_own_mailbox());
    itc_exit();
    return 0;
}

void receive_loop()
{
    for (itc_msg *msg = itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY); msg != nullptr;
         msg = itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY)) {
        dispatch_message(msg);
        itc_free(&msg);
    }
}

bool offer_message(const message_dispatcher *dispatchers, size_t count, const itc_msg *msg)
{
    bool handled = false;
    for (size_t i = 0; i < count; ++i) {
        handled |= dispatchers[i](msg);
    }
    return handled;
}

void handle_signal(int signo)
{
    switch (signo) {
    case SIGINT:
    case SIGTERM:
        iemli_unpublish();
        itc_delete_mailbox(itc_current_mbox());
        itc_exit();
        exit(0);
    case SIGHUP:
        VORN_TRACE(TRACE_WARNING, "WARNING: Received SIGHUP signal.");
        break;
    default:
        VORN_TRACE(TRACE_WARNING, "WARNING: Unhandled signal %s", strsignal(signo));
        break;
    }
}
