// From a received frame to the answer that the engine is handed: a pure function over what the kernel gave.
#pragma once

#include <algorithm>
#include <cstring>

#include "ecpri.hpp"
#include "engine.hpp"
#include "packet_socket.hpp"

namespace supervision
{

// False: the frame is no answer to a measurement. `domain`: of the socket that it came from.
inline bool read_answer(const packet::received &r, uint32_t domain, answer *out)
{
    ecpri::measurement m{};
    if (!ecpri::get_measurement(r.bytes, r.available, r.length, &m) || m.action != ecpri::ACTION_RESPONSE) {
        return false;
    }
    const uint16_t vlan = r.tagged ? r.tci & 0x0FFF : 0;
    *out = {.key = {domain, r.if_index, m.destination, m.source, vlan, tag_protocol(r.tagged, r.tpid, vlan)},
            .measurement_id = m.measurement_id,
            .time_valid = ecpri::time_is_valid(m),
            .received = r.stamp,
            .dummy_bytes = m.dummy_bytes,
            .marked = std::min<size_t>({m.dummy_bytes, r.available - ecpri::MIN_FRAME_SIZE, MARK_SIZE})};
    memcpy(out->bytes, r.bytes + ecpri::MIN_FRAME_SIZE, out->marked);
    return true;
}

} // namespace supervision
