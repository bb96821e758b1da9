// The port control server's messages, and its client driven through its states.
#pragma once

#include "client_test.hpp"
#include "clients/iepcsi_client.hpp"

namespace iepcsi_test
{

using client_test::Builder;
using client_test::Bytes;

struct Port {
    std::string name;
    uint32_t capability;
};

// Port n has the MAC 02:aa:00:00:00:0n and the interface veth<n>.
inline Bytes ports(const std::vector<Port> &list)
{
    Builder b = client_test::message(0x1B1049);
    b.n32(static_cast<uint32_t>(list.size()));
    uint8_t n = 0;
    for (const auto &port : list) {
        ++n;
        b.n32(port.capability).hex("deadbeef 02aa000000").u8(n);
        b.text(port.name, 16).text("veth" + std::to_string(n), 16).hex("ffff");
    }
    return b;
}

inline Bytes status(const std::string &port, uint32_t adm, uint32_t oper, const std::string &name_space = "ns")
{
    return client_test::message(0x1B1055).n32(adm).n32(oper).text(port, 16).text(name_space, name_space.size() + 1);
}

inline Bytes vlan(const std::string &port, uint16_t id, uint32_t action, const std::string &name_space = "ns",
                  const std::string &if_name = "veth.100")
{
    return client_test::message(0x1B1068)
        .n16(id)
        .hex("ffff")
        .n32(action)
        .n32(2)
        .text(if_name, 16)
        .text(port, 16)
        .text(name_space, name_space.size() + 1);
}

inline void drive(uint32_t state)
{
    using namespace client_test;
    iepcsi_client_init(record_event);
    if (state >= 1) {
        fake::name("iepcsi-server", SERVER);
        deliver_next(iepcsi_client_dispatch);
    }
    if (state >= 2) {
        fake::dispatch(iepcsi_client_dispatch, SERVER, message(0x1B1044).n32(1));
    }
    if (state >= 3) {
        fake::dispatch(iepcsi_client_dispatch, SERVER, ports({{"IDLA1", 2}}));
    }
    if (state >= 4) {
        fake::dispatch(iepcsi_client_dispatch, SERVER, message(0x1B1045).n32(0));
    }
}

inline const client_test::Client IEPCSI = {iepcsi_client_init,
                                           iepcsi_client_dispatch,
                                           iepcsi_client_state,
                                           iepcsi_client_state_to_string,
                                           iepcsi_client_forget_all,
                                           drive,
                                           5,
                                           {IEPCSI_MESSAGES(CLIENT_TEST_NUMBER)}};

} // namespace iepcsi_test
