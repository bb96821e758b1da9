// The process: start-up in its fixed order, the receive loop, and what signals do.
#pragma once

#include "itc.h"

// Start-up, loop and leaving ITC. Returns the exit status: 0 after the loop ended, 1 when ITC or the mailbox is not to
// be had.
int vorn_manager_run();

// Offers every received message to all dispatchers until itc_receive returns NULL.
void receive_loop();

// True when the message number is one of the dispatcher's own. The message stays the caller's.
using message_dispatcher = bool (*)(const itc_msg *msg);

// Offers a message to every dispatcher, in their order, whether or not one has taken it. True when one did.
bool offer_message(const message_dispatcher *dispatchers, size_t count, const itc_msg *msg);

// What set_signal_handler is given.
void handle_signal(int signo);
