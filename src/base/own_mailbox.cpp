// Remembers the id, and nothing else: see own_mailbox.hpp.
#include "own_mailbox.hpp"

#include "itc.h"

namespace
{

uint32_t own_mailbox = ITC_NO_MBOX;

} // namespace

uint32_t vorn_own_mailbox() { return own_mailbox; }

void vorn_set_own_mailbox(uint32_t mailbox) { own_mailbox = mailbox; }
