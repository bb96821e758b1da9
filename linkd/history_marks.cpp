// The small file beside the history (history_marks.hpp).
#include "history_marks.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

namespace linkd
{

namespace
{

constexpr char MAGIC[8] = {'k', 'a', 'p', 'm', 'a', 'r', 'k', '1'};

// One sector: it is there whole or not at all.
struct mark_bytes {
    char magic[sizeof MAGIC];
    uint64_t reserved;
    int64_t tick_us;
    int64_t seen_us;
    int64_t real_us;
    int64_t boot_us;
    char boot[40];
    uint64_t sum; // of all before it
};
static_assert(sizeof(mark_bytes) == 96);

uint64_t sum_of(const mark_bytes &bytes)
{
    constexpr uint64_t FNV_BEGIN = 0xcbf29ce484222325, FNV_PRIME = 0x100000001b3;
    const auto *at = reinterpret_cast<const unsigned char *>(&bytes);
    uint64_t sum = FNV_BEGIN;
    for (size_t i = 0; i < offsetof(mark_bytes, sum); i++) {
        sum = (sum ^ at[i]) * FNV_PRIME;
    }
    return sum;
}

int64_t microseconds(clockid_t clock)
{
    constexpr int64_t SECOND = 1'000'000, NANOSECONDS = 1000;
    timespec now = {};
    (void)clock_gettime(clock, &now);
    return now.tv_sec * SECOND + now.tv_nsec / NANOSECONDS;
}

} // namespace

clock_reading read_clocks() { return {microseconds(CLOCK_REALTIME), microseconds(CLOCK_BOOTTIME)}; }

std::string boot_name()
{
    std::string name;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> name;
    return name;
}

history_marks::~history_marks()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool history_marks::open(const std::string &path, std::string *error)
{
    const std::lock_guard lock(mutex_);
    if (fd_ >= 0) {
        return true;
    }
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (fd_ < 0) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    mark_bytes bytes = {};
    if (pread(fd_, &bytes, sizeof bytes, 0) == static_cast<ssize_t>(sizeof bytes) &&
        memcmp(bytes.magic, MAGIC, sizeof MAGIC) == 0 && bytes.sum == sum_of(bytes)) {
        last_ = {bytes.reserved,
                 bytes.tick_us,
                 bytes.seen_us,
                 {bytes.real_us, bytes.boot_us},
                 std::string(bytes.boot, strnlen(bytes.boot, sizeof bytes.boot))};
    }
    return true;
}

bool history_marks::write(const history_awake &awake, bool sync)
{
    mark_bytes bytes = {};
    memcpy(bytes.magic, MAGIC, sizeof MAGIC);
    bytes.reserved = awake.reserved;
    bytes.tick_us = awake.tick_us;
    bytes.seen_us = awake.seen_us;
    bytes.real_us = awake.clocks.real_us;
    bytes.boot_us = awake.clocks.boot_us;
    awake.boot.copy(bytes.boot, sizeof bytes.boot - 1);
    bytes.sum = sum_of(bytes);
    const std::lock_guard lock(mutex_);
    if (fd_ < 0 || pwrite(fd_, &bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        return false;
    }
    return !sync || fdatasync(fd_) == 0;
}

} // namespace linkd
