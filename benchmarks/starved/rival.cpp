// The rival. See rival.hpp.
#include "rival.hpp"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "watched_wire.hpp"

namespace
{

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char *PROGRAM = "/usr/lib/frr/bfdd";
constexpr const char *RIVAL_FAR = "bfd-far";
constexpr mac_address NEAR_MAC = {{0x02, 0, 0, 0, 0xBF, 0x01}};
constexpr mac_address FAR_MAC = {{0x02, 0, 0, 0, 0xBF, 0xFE}};
constexpr uint32_t NEAR_NET = 10u << 24 | 1u << 16; // 10.1.0.0
constexpr uint32_t FAR_NET = 10u << 24 | 2u << 16;  // 10.2.0.0

std::string text_of(uint32_t address)
{
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 255) + "." +
           std::to_string(address >> 8 & 255) + "." + std::to_string(address & 255);
}

uint32_t near_address(uint32_t session) { return NEAR_NET + 1 + session; }

// Addresses of one side, and the other side's without having to ask for them.
void give_addresses(const std::string &space, const std::string &directory, bool is_near, uint32_t sessions)
{
    const std::string batch = directory + "/" + space + ".ip";
    {
        std::ofstream file(batch);
        for (uint32_t i = 0; i < sessions; i++) {
            const std::string own = text_of(is_near ? near_address(i) : rival_far_address(i));
            const std::string other = text_of(is_near ? rival_far_address(i) : near_address(i));
            file << "addr add " << own << "/8 dev " << RIVAL_INTERFACE << "\n"
                 << "neigh replace " << other << " lladdr " << (is_near ? "02:00:00:00:bf:fe" : "02:00:00:00:bf:01")
                 << " nud permanent dev " << RIVAL_INTERFACE << "\n";
        }
    }
    command_must({"ip", "-n", space, "-batch", batch});
}

void write_configuration(const std::string &path, const std::string &log, bool is_near, uint32_t sessions,
                         int interval_ms, int multiplier)
{
    std::ofstream file(path);
    file << "log file " << log << " debugging\nlog timestamp precision 6\ndebug bfd peer\nbfd\n";
    for (uint32_t i = 0; i < sessions; i++) {
        const std::string own = text_of(is_near ? near_address(i) : rival_far_address(i));
        const std::string other = text_of(is_near ? rival_far_address(i) : near_address(i));
        file << " peer " << other << " local-address " << own << "\n  receive-interval " << interval_ms
             << "\n  transmit-interval " << interval_ms << "\n  detect-multiplier " << multiplier << "\n exit\n";
    }
}

child_process start_one(const std::string &space, const std::string &directory)
{
    return process_start(space,
                         {"ip",
                          "netns",
                          "exec",
                          space,
                          PROGRAM,
                          "-u",
                          "frr",
                          "-g",
                          "frr",
                          "-f",
                          directory + "/" + space + ".conf",
                          "-i",
                          directory + "/pid",
                          "--vty_socket",
                          directory,
                          "--bfdctl",
                          directory + "/ctl",
                          "-P",
                          "0",
                          "-z",
                          directory + "/zebra"},
                         directory + "/" + space + ".out");
}

// The numbers at the beginning of a text, whatever stands between them.
template <size_t COUNT> std::array<long, COUNT> numbers_of(const std::string &text)
{
    std::array<long, COUNT> numbers{};
    const char *at = text.c_str();
    for (long &number : numbers) {
        at += strcspn(at, "0123456789");
        if (*at == '\0') {
            throw std::runtime_error("the rival's log has a line that makes no sense: " + text);
        }
        char *end = nullptr;
        number = strtol(at, &end, 10);
        at = end;
    }
    return numbers;
}

// "2026/11/21 20:24:21.054001", local time.
int64_t stamp_of(const std::string &line)
{
    const auto [year, month, day, hour, minute, second, microseconds] = numbers_of<7>(line);
    tm when{};
    when.tm_year = static_cast<int>(year - 1900);
    when.tm_mon = static_cast<int>(month - 1);
    when.tm_mday = static_cast<int>(day);
    when.tm_hour = static_cast<int>(hour);
    when.tm_min = static_cast<int>(minute);
    when.tm_sec = static_cast<int>(second);
    when.tm_isdst = -1;
    return static_cast<int64_t>(mktime(&when)) * 1'000'000'000 + microseconds * 1000;
}

// The number of a session by its far end's address.
uint32_t session_of(const std::string &line)
{
    const auto [a, b, c, d] = numbers_of<4>(line.substr(std::min(line.find("peer:"), line.size())));
    return static_cast<uint32_t>(a << 24 | b << 16 | c << 8 | d) - rival_far_address(0);
}

} // namespace

uint32_t rival_far_address(uint32_t session) { return FAR_NET + 1 + session; }

rival rival_start(const std::string &directory, uint32_t sessions, int interval_ms, int multiplier)
{
    if (!fs::exists(PROGRAM)) {
        throw std::runtime_error(std::string(PROGRAM) + " is not there (scripts/install-packages rival)");
    }
    rival r;
    r.sessions = sessions;
    r.directory = directory;
    fs::create_directories("/run/frr");
    for (const char *space : {RIVAL_NEAR, RIVAL_FAR}) {
        command_must({"ip", "netns", "add", space});
        command_must({"ip", "-n", space, "link", "set", "lo", "up"});
    }
    wire_lay_through_middle(RIVAL_NEAR, RIVAL_FAR, RIVAL_INTERFACE, NEAR_MAC, FAR_MAC);
    for (const std::string space : {RIVAL_NEAR, RIVAL_FAR}) {
        const std::string own = fs::path(directory) / space;
        const bool is_near = space == RIVAL_NEAR;
        fs::create_directories(own);
        give_addresses(space, own, is_near, sessions);
        write_configuration(fs::path(own) / (space + ".conf"), own + "/log", is_near, sessions, interval_ms,
                            multiplier);
        command_must({"chown", "-R", "frr:frr", own});
        r.processes.push_back(start_one(space, own));
    }
    r.log = directory + "/" + RIVAL_NEAR + "/log";
    return r;
}

std::vector<rival_event> rival_events(rival &r)
{
    for (child_process &child : r.processes) {
        if (!process_running(child)) {
            throw std::runtime_error("the rival ended by itself: " + process_log_tail(child, 5));
        }
    }
    std::vector<rival_event> events;
    std::ifstream file(r.log);
    for (std::string line; std::getline(file, line);) {
        const bool up = line.find(" -> up") != std::string::npos;
        if (line.find("state-change:") != std::string::npos && (up || line.find("up -> down") != std::string::npos)) {
            events.push_back({stamp_of(line), session_of(line), up});
        }
    }
    return events;
}

void rival_stop(rival &r)
{
    for (child_process &child : r.processes) {
        process_signal(child, SIGTERM);
        if (!process_wait(child, 10s)) {
            process_kill(child);
        }
    }
    for (const char *space : {RIVAL_NEAR, RIVAL_FAR}) {
        command_must({"ip", "netns", "delete", space});
    }
    fs::remove_all(r.directory);
}
