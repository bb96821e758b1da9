// The daemon's state and its services, kept; nothing follows from them here: see daemon_state.hpp.
#include "daemon_state.hpp"

#include "itc.h"

namespace
{

kap_vorn_state state = KAP_VORN_INIT;
uint32_t services = KAP_VORN_NO_SERVICE;
bool aasi_up;
uint32_t own_mailbox = ITC_NO_MBOX;

} // namespace

uint32_t vorn_own_mailbox() { return own_mailbox; }

void vorn_set_own_mailbox(uint32_t mailbox) { own_mailbox = mailbox; }

void manager_state_reset()
{
    state = KAP_VORN_INIT;
    services = KAP_VORN_NO_SERVICE;
    aasi_up = false;
}

kap_vorn_state manager_state() { return state; }

void set_manager_state(kap_vorn_state new_state) { state = new_state; }

uint32_t manager_service_mask() { return services; }

bool is_service_up(kap_vorn_service service) { return (services & service) != 0; }

void set_service_up(kap_vorn_service service, bool up) { services = up ? services | service : services & ~service; }

bool is_aasi_service_up() { return aasi_up; }

void set_aasi_service_up(bool up) { aasi_up = up; }
