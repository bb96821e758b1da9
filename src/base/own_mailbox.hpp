// The daemon's only mailbox: what is sent to oneself goes there, also from another thread.
#pragma once

#include <cstdint>

uint32_t vorn_own_mailbox();
// Once, before anybody else runs.
void vorn_set_own_mailbox(uint32_t mailbox);
