// Where the numbers of the daemon's messages lie, for those who make messages up: a protocol's first number and room
// behind it for more. What has no message in there is a number that nobody has, and of use too.
//
// A number outside of every window does not compile. One that is added within a window is made up without a change, and
// what bytes of an old corpus mean stays as it is.
#pragma once

#include "clients/aasi_messages.hpp"
#include "clients/emi_messages.hpp"
#include "clients/fmi_messages.hpp"
#include "clients/iepcsi_messages.hpp"
#include "clients/pmi_messages.hpp"
#include "iemli/iemli_messages.hpp"
#include "manager/links/link_supervision.hpp"
#include "ns.h"
#include "shell/shell_messages.hpp"

namespace message_windows
{

struct window {
    uint32_t first;
    uint32_t room;

    // Every byte is a number in here.
    [[nodiscard]] constexpr uint32_t number(uint32_t index) const { return first + index % room; }
    [[nodiscard]] constexpr bool has(uint32_t number) const { return number >= first && number - first < room; }
};

inline constexpr window iemli = {IEMLI_CLIENT_DOWN_IND, 32};
inline constexpr window iepcsi = {IEPCSI_SERVER_UP_IND, 64};
inline constexpr window pmi = {PMI_SERVER_UP_IND, 32};
inline constexpr window emi = {EMI_CONN_ESTABLISH_REQ, 32};
inline constexpr window fmi = {FMI_CONN_ESTABLISH_REQ, 32};
inline constexpr window aasi = {AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM, 16};
inline constexpr window aasi_requests = {AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ, 16};
inline constexpr window shell = {IECTM_COLI_IML_LINK_LIST_RSP, 8}; // and what the daemon makes for itself
inline constexpr window supervision = {SUPERVISION_IND, 1};
inline constexpr window ns = {NS_SUBSCRIBE_RSP, 4};

inline constexpr window EVERY[] = {iemli, iepcsi, pmi, emi, fmi, aasi, shell, ns, aasi_requests};

constexpr bool is_in_a_window(uint32_t number)
{
    for (const window &one : EVERY) {
        if (one.has(number)) {
            return true;
        }
    }
    return false;
}

#define VORN_IS_IN_A_WINDOW(number, ...) static_assert(is_in_a_window(number));
IEMLI_MESSAGES(VORN_IS_IN_A_WINDOW)
IEPCSI_MESSAGES(VORN_IS_IN_A_WINDOW)
PMI_MESSAGES(VORN_IS_IN_A_WINDOW)
EMI_MESSAGES(VORN_IS_IN_A_WINDOW)
FMI_MESSAGES(VORN_IS_IN_A_WINDOW)
AASI_MESSAGES(VORN_IS_IN_A_WINDOW)
#undef VORN_IS_IN_A_WINDOW
static_assert(is_in_a_window(SUPERVISION_IND) && is_in_a_window(IECTM_COLI_IML_LINK_LIST_REQ) &&
              is_in_a_window(NS_SERVICE_ADDED_IND) && is_in_a_window(NS_SERVICE_REMOVED_IND));

} // namespace message_windows
