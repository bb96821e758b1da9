// How many times longer a wait may take than on a machine of its own: KAP_TEST_SLOWNESS, by default 1. An emulated
// machine sets it (./test vm). It stretches every bound of a wait for something that has to come, in the demo and in
// the tests; it changes nothing of what is waited for, and nothing that the system itself measures.
#pragma once

#include <chrono>
#include <cstdlib>

inline int slowness()
{
    static const int factor = [] {
        const char *text = getenv("KAP_TEST_SLOWNESS");
        const long wanted = text == nullptr ? 1 : strtol(text, nullptr, 10);
        return wanted < 1 || wanted > 1000 ? 1 : static_cast<int>(wanted);
    }();
    return factor;
}
