// Threads that no signal is delivered to: signals are the loop's.
#pragma once

#include <csignal>
#include <thread>
#include <utility>

namespace linkd
{

template <typename WORK> std::thread quiet_thread(WORK &&work)
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread made(std::forward<WORK>(work));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return made;
}

} // namespace linkd
