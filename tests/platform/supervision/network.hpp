// A near and a far side, joined by a cable, in network namespaces of the test's own, with a /run of its own; a far end
// in a process of its own answers on the far side. Nothing of it is left when the test has ended.
//
//     near (the test's own namespace): near0  <-- cable -->  far0 : namespace "far"
//
// With Cable::THROUGH_BRIDGE the cable leads through a bridge in namespace "mid" (near0 - m0, m1 - far0): what is
// dropped there is lost silently.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "far_end.hpp"
#include "supervision.h"

namespace net
{

inline constexpr mac_address NEAR_MAC{{0x02, 0x00, 0x00, 0x00, 0x00, 0x01}};
inline constexpr mac_address FAR_MAC{{0x02, 0x00, 0x00, 0x00, 0x00, 0x02}};
inline constexpr mac_address APP_MAC{{0x02, 0x00, 0x00, 0x00, 0x0A, 0x01}};

// Runs a shell command and fails the test when that fails. Returns what it printed.
std::string run(const std::string &command);

// Waits for a condition, looking every few milliseconds; false when it does not hold within `seconds`.
bool wait_for(const std::function<bool()> &condition, int seconds = 10);

// The calling thread in another namespace ("far") while it lives.
class Inside
{
public:
    explicit Inside(const std::string &name);
    ~Inside();
    Inside(const Inside &) = delete;
    Inside &operator=(const Inside &) = delete;

private:
    int before_;
};

struct Result {
    uint32_t session;
    uint32_t result;
    bool has_rtt;
    supervision_rtt rtt;
};

// Every result that was reported since the test began, and those of one session.
std::vector<Result> results();
std::vector<Result> results_of(uint32_t session);
size_t count_of(uint32_t session, uint32_t result);

// A far end in a process of its own, in namespace "far".
class FarEnd
{
public:
    explicit FarEnd(const std::vector<std::string> &interfaces);
    ~FarEnd();
    FarEnd(const FarEnd &) = delete;
    FarEnd &operator=(const FarEnd &) = delete;
    void set(const far_end_knobs &knobs) const;
    [[nodiscard]] std::vector<far_end_counters> counters() const;

private:
    int control_ = -1;
    int pid_ = -1;
};

// tcpdump in a namespace ("" = near) on an interface, until stop or the end.
class Capture
{
public:
    Capture(const std::string &name_space, const std::string &interface);
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    // Ends the capture as soon as it has that many frames, and returns them all, tags included.
    std::vector<std::vector<uint8_t>> stop(size_t at_least);
    // What it has by now.
    [[nodiscard]] std::vector<std::vector<uint8_t>> frames() const;
    [[nodiscard]] const std::string &file() const { return file_; }

private:
    std::string file_;
    int pid_;
};

enum class Cable {
    DIRECT,
    THROUGH_BRIDGE,
};

class NetworkTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;
    void lay_cable(Cable cable = Cable::DIRECT);
    // A session over near0 to the far side in VLAN 100, one frame of 64 bytes per second.
    static supervision_params params();
    // Starts it with the recorder as its callback; it is stopped at the end of the test.
    uint32_t start(const supervision_params &p);
    uint32_t stop(uint32_t session);

private:
    std::vector<uint32_t> started_;
};

} // namespace net
