// A small file beside the history that is written in place, so that it can be written when the disk is full: how far
// numbers of changes may have been given, and when the history was last awake. Numbers are not taken from the database,
// because that may be set aside as broken, and because the changes of its last second may be missing in it although
// somebody was told of them.
//
// What is written without a sync survives the end of the process, not the loss of power.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

namespace linkd
{

// The clocks that the history looks at; a test has its own.
struct clock_reading {
    int64_t real_us = 0;
    int64_t boot_us = 0;
};
clock_reading read_clocks();
// Differs between two starts of the machine: a CLOCK_BOOTTIME is only worth something within one.
std::string boot_name();

struct history_awake {
    uint64_t reserved = 0; // no change has a number above it
    int64_t tick_us = 0;   // the history's own time, which never goes back
    int64_t seen_us = 0;   // up to this tick all that became of the links is written
    clock_reading clocks;
    std::string boot;
};

class history_marks
{
public:
    ~history_marks();
    // Reads the file, or begins one. Without a file (`false`, and why in *error) nothing is kept.
    bool open(const std::string &path, std::string *error);
    // What the file said when it was opened; all 0 where there was none that is whole.
    const history_awake &last() const { return last_; }

    bool write(const history_awake &awake, bool sync);

private:
    std::mutex mutex_;
    int fd_ = -1;
    history_awake last_;
};

} // namespace linkd
