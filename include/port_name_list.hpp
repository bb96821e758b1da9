// The ports as people call them, in one line, for those who refuse a name that is none of them.
#pragma once

#include <iterator>
#include <string>

#include "port_names.hpp"

// "IDL_A1, IDL_A2, ... and TN_D"
inline std::string port_name_list()
{
    std::string list;
    for (const port_names &port : PORT_NAMES) {
        const bool is_last = &port == std::end(PORT_NAMES) - 1;
        list += list.empty() ? "" : is_last ? " and " : ", ";
        list += port.iemli;
    }
    return list;
}
