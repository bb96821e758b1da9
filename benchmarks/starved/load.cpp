// What starves the machine. See load.hpp.
#include "load.hpp"

#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "iemli_client.hpp"

namespace
{

constexpr uint64_t BETWEEN_LINES = 1000;
constexpr size_t PAGE = 4096;

[[noreturn]] void fail(const char *what)
{
    perror(what);
    exit(1);
}

[[noreturn]] void spin()
{
    for (;;) {
        asm volatile(""); // a turn that the compiler has to keep
    }
}

[[noreturn]] void spin_in_real_time()
{
    const sched_param wanted{.sched_priority = LOAD_RT_PRIORITY};
    if (sched_setscheduler(0, SCHED_RR, &wanted) != 0) {
        fail("real-time priority");
    }
    spin();
}

[[noreturn]] void press_on_memory(size_t mib)
{
    const size_t size = mib << 20;
    auto *pages = static_cast<char *>(
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    if (pages == MAP_FAILED) {
        fail("memory");
    }
    for (;;) {
        for (size_t at = 0; at < size; at += PAGE) {
            *(volatile char *)(pages + at) = 1;
        }
        madvise(pages, size, MADV_DONTNEED); // the next round asks the kernel for every page anew
    }
}

[[noreturn]] void flood_with_requests()
{
    iemli_client client;
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox("starved-flood", 0) == ITC_NO_MBOX ||
        !iemli_client_start(client, 2) || !iemli_client_wait_published(client, 60000)) {
        fail("no service to flood");
    }
    client.bound_ms = 60000;
    if (iemli_client_open(client).outcome != iemli_outcome::confirmed) {
        fail("no session for the flood");
    }
    for (uint64_t asked = 1;; asked++) {
        if (iemli_client_get_mac(client, "IDL_A1", 1).outcome != iemli_outcome::confirmed) {
            fail("a request of the flood was not confirmed");
        }
        if (asked % BETWEEN_LINES == 0) {
            printf("%llu\n", static_cast<unsigned long long>(asked));
            (void)fflush(stdout);
        }
    }
}

} // namespace

void load_become(const std::vector<std::string> &words)
{
    if (words.size() < 2 || words[0] != "load") {
        return;
    }
    if (words[1] == "spin") {
        spin();
    } else if (words[1] == "spin-rt") {
        spin_in_real_time();
    } else if (words[1] == "memory" && words.size() == 3) {
        press_on_memory(strtoul(words[2].c_str(), nullptr, 10));
    } else if (words[1] == "requests") {
        flood_with_requests();
    }
    exit(2);
}

bool load_take_precedence()
{
    const sched_param wanted{.sched_priority = LOAD_RT_PRIORITY + 10};
    return sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &wanted) == 0;
}
