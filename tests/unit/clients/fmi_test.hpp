// A flow manager that answers at once, as each test asks it to, and its client driven through its states.
#pragma once

#include "client_test.hpp"
#include "clients/fmi_client.hpp"

namespace fmi_test
{

using client_test::Builder;
using client_test::Bytes;
using client_test::message;
using client_test::SERVER;

inline constexpr uint32_t SET_DEFAULT_ACTION = 0x1B0F58;
inline constexpr uint32_t APPEND_STATIC = 0x1B0F5B;
inline constexpr uint32_t REMOVE_STATIC = 0x1B0F5E;
inline constexpr uint32_t APPEND_DYNAMIC = 0x1B0F61;
inline constexpr uint32_t REMOVE_DYNAMIC = 0x1B0F64;
inline constexpr uint32_t CREATE_POLICER = 0x1B0F67;

inline uint32_t word(const Bytes &bytes, size_t offset)
{
    return static_cast<uint32_t>(bytes[offset]) << 24 | static_cast<uint32_t>(bytes[offset + 1]) << 16 |
           static_cast<uint32_t>(bytes[offset + 2]) << 8 | bytes[offset + 3];
}

// The confirm of a request; `id` is the rule's or the policer's.
inline Bytes confirm(uint32_t request, uint32_t procedure_ref, uint32_t id)
{
    Builder b = message(request + 1, procedure_ref);
    switch (request) {
    case SET_DEFAULT_ACTION:
        return b.text("DiPort_A1", 64);
    case APPEND_STATIC:
        return b.n32(7).n32(id).text("DiPort_A1", 64);
    case APPEND_DYNAMIC:
        return b.text("DiPort_A1", 64).n32(id);
    default:
        return b.n32(id).text("DiPort_A1", 64);
    }
}

inline Bytes reject(uint32_t request, uint32_t procedure_ref, uint32_t code, const std::string &why = "no")
{
    Builder b = message(request + 2, procedure_ref);
    b.n32(code);
    switch (request) {
    case APPEND_STATIC:
    case REMOVE_STATIC:
        return b.n32(7).text(why, 128).text("DiPort_A1", 64);
    case REMOVE_DYNAMIC:
        return b.n32(7).text("DiPort_A1", 64).text(why, 128);
    default:
        return b.text("DiPort_A1", 64).text(why, 128);
    }
}

// What the server does with the next requests; ids count from 1000.
struct FlowManager {
    uint32_t next_id = 1000;
    std::set<uint32_t> refused; // request numbers
    std::set<uint32_t> ignored;

    void answer(const fake::Sent &request)
    {
        const uint32_t number = request.msgno();
        if (number < SET_DEFAULT_ACTION || ignored.count(number) != 0) {
            return;
        }
        const uint32_t procedure_ref = word(request.bytes, 4);
        fake::push(SERVER, refused.count(number) != 0 ? reject(number, procedure_ref, 6)
                                                      : confirm(number, procedure_ref, next_id++));
    }
};

inline Bytes capabilities(const std::vector<uint32_t> &list)
{
    Builder b = message(0x1B0F54);
    b.n32(static_cast<uint32_t>(list.size()));
    for (uint32_t capability : list) {
        b.n32(capability).hex("ffffffff");
    }
    return b;
}

inline void drive(uint32_t state)
{
    using namespace client_test;
    fmi_client_init(record_event);
    if (state >= 1) {
        fake::name("flow-manager", SERVER);
        deliver_next(fmi_client_dispatch);
    }
    if (state >= 2) {
        fake::dispatch(fmi_client_dispatch, SERVER, message(0x1B0F51).n32(1));
    }
    if (state >= 3) {
        fake::dispatch(fmi_client_dispatch, SERVER, capabilities({1, 2, 3, 4, 5, 6}));
    }
    if (state >= 4) {
        fake::dispatch(fmi_client_dispatch, SERVER, message(0x1B0F55).n32(1));
    }
}

inline const client_test::Client FMI = {fmi_client_init,
                                        fmi_client_dispatch,
                                        fmi_client_state,
                                        fmi_client_state_to_string,
                                        fmi_client_forget_all,
                                        drive,
                                        5,
                                        {FMI_MESSAGES(CLIENT_TEST_NUMBER)}};

} // namespace fmi_test
