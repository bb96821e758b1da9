// What nobody has, for tests of what is unknown: whoever gives it a meaning is told here, before those tests go on
// passing for another reason.
#pragma once

#include <string_view>

#include "port_names.hpp"

namespace nobody
{

inline constexpr const char PORT[] = "IDL_C1";

constexpr bool is_called(std::string_view name)
{
    for (const port_names &port : PORT_NAMES) {
        if (name == port.iemli || name == port.iepcsi || name == port.fmi ||
            (port.pmi != nullptr && name == port.pmi)) {
            return true;
        }
    }
    return false;
}
static_assert(!is_called(PORT), "a port has this name now: choose another one that none has");

} // namespace nobody
