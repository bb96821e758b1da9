// The frame of a supervision answer, as it comes from the wire.
#include <cstdlib>

#include "supervision/ecpri.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    // The first byte says how much longer the frame was on the wire than what is there of it.
    ecpri::measurement read = {};
    if (!ecpri::get_measurement(data + 1, size - 1, size - 1 + data[0], &read)) {
        return 0;
    }
    uint8_t frame[64];
    const size_t dummy = ecpri::put_measurement(frame, read, sizeof frame, nullptr);
    ecpri::measurement again = {};
    if (dummy != ecpri::MIN_FRAME_SIZE || !ecpri::get_measurement(frame, sizeof frame, sizeof frame, &again) ||
        again.nanoseconds != read.nanoseconds || again.seconds != read.seconds || again.action != read.action) {
        abort(); // what was read must come out the same when it is written and read again
    }
    return 0;
}
