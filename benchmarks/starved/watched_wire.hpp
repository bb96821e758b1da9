// A wire that can be cut without either end noticing: each end is a veth pair into a namespace in the middle, where a
// bridge joins the two. And a look at what passes there, by the kernel's time stamps: the frames of each conversation
// since its last sign of life.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vorn_types.hpp"

inline constexpr const char *MIDDLE_NAMESPACE = "middle";

// Joins `interface` of both namespaces through the middle; whatever had that name before is removed.
void wire_lay_through_middle(const std::string &near, const std::string &far, const std::string &interface,
                             const mac_address &near_mac, const mac_address &far_mac);
// Takes the far end of the wire off its bridge, or puts it back. At once: no other program is run for it.
void wire_cut(const std::string &interface, bool cut);

int64_t now_real_ns();

// What is known of one conversation, in nanoseconds of the real-time clock; 0: never.
struct conversation {
    int64_t last_answer = 0;         // the far end's latest frame that came through
    std::vector<int64_t> unanswered; // requests since then, oldest first; the first few
};

// Watches delay measurements of the wire through the middle by the far end's MAC, and BFD packets that arrive in a
// namespace by the far end's address, on a thread of its own.
class Watch
{
public:
    explicit Watch(const std::string &bfd_namespace);
    ~Watch();
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    conversation of_mac(const mac_address &far_mac) const;
    conversation of_address(uint32_t far_address) const; // host byte order

private:
    void run();
    void take_measurements(int fd, bool requests);
    void take_bfd();

    int requests_ = -1;
    int responses_ = -1;
    int bfd_ = -1;
    int stop_ = -1;
    mutable std::mutex lock_;
    std::map<uint64_t, conversation> by_mac_;
    std::map<uint32_t, conversation> by_address_;
    std::thread thread_;
};
