// See network.hpp.
#include "network.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>

#include "slowness.hpp"

namespace net
{

namespace
{

std::mutex results_lock;
std::vector<Result> all_results;

void record(const supervision_rtt *rtt, uint32_t session, uint32_t result)
{
    const std::lock_guard<std::mutex> held(results_lock);
    all_results.push_back({session, result, rtt != nullptr, rtt != nullptr ? *rtt : supervision_rtt{}});
}

// A counter as it crosses the control socket.
struct counter_record {
    char interface[16];
    uint16_t vlan;
    mac_address peer;
    uint64_t requests;
    uint64_t answered;
    uint64_t dropped;
    uint64_t failed;
};

void answer_control(int control, far_end *f)
{
    far_end_knobs knobs;
    const ssize_t got = recv(control, &knobs, sizeof knobs, 0);
    if (got <= 0) {
        _exit(0);
    }
    if (got == sizeof knobs) {
        far_end_get_knobs(f) = knobs;
    }
    std::vector<counter_record> records;
    for (const far_end_counters &c : far_end_get_counters(f)) {
        counter_record r{{}, c.vlan, c.peer, c.requests, c.answered, c.dropped, c.failed};
        snprintf(r.interface, sizeof r.interface, "%s", c.interface.c_str());
        records.push_back(r);
    }
    // An empty datagram could not be told from the end.
    records.push_back({});
    send(control, records.data(), records.size() * sizeof records[0], 0);
}

[[noreturn]] void far_end_process(int control, const std::vector<std::string> &interfaces)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const Inside far("far");
    std::string error;
    far_end *f = far_end_open(interfaces, &error);
    if (f == nullptr || send(control, "ready", 5, 0) != 5) {
        fprintf(stderr, "%s\n", error.c_str());
        _exit(1);
    }
    for (;;) {
        pollfd fds[2] = {{control, POLLIN, 0}, {far_end_fd(f), POLLIN, 0}};
        poll(fds, 2, -1);
        if (fds[1].revents != 0) {
            far_end_handle(f);
        }
        if (fds[0].revents != 0) {
            answer_control(control, f);
        }
    }
}

uint32_t word_at(const std::vector<uint8_t> &bytes, size_t at)
{
    uint32_t word = 0;
    memcpy(&word, bytes.data() + at, sizeof word);
    return word;
}

// The frames of a capture file: a head of 24 bytes, then per frame 16 bytes, the third word of which is its length.
std::vector<std::vector<uint8_t>> frames_of(const std::string &file)
{
    std::ifstream in(file, std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    std::vector<std::vector<uint8_t>> frames;
    for (size_t at = 24; at + 16 <= bytes.size();) {
        const size_t length = word_at(bytes, at + 8);
        at += 16;
        if (at + length > bytes.size()) {
            break;
        }
        frames.emplace_back(bytes.begin() + static_cast<ptrdiff_t>(at),
                            bytes.begin() + static_cast<ptrdiff_t>(at + length));
        at += length;
    }
    return frames;
}

} // namespace

std::string run(const std::string &command)
{
    FILE *out = popen((command + " 2>&1").c_str(), "r");
    std::string text;
    char buffer[512];
    while (out != nullptr && fgets(buffer, sizeof buffer, out) != nullptr) {
        text += buffer;
    }
    EXPECT_EQ(pclose(out), 0) << command << "\n" << text;
    return text;
}

bool wait_for(const std::function<bool()> &condition, int seconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds) * slowness();
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

Inside::Inside(const std::string &name) : before_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC))
{
    const int fd = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
        perror(name.c_str());
        abort();
    }
    close(fd);
}

Inside::~Inside()
{
    if (setns(before_, CLONE_NEWNET) != 0) {
        abort();
    }
    close(before_);
}

std::vector<Result> results()
{
    const std::lock_guard<std::mutex> held(results_lock);
    return all_results;
}

std::vector<Result> results_of(uint32_t session)
{
    std::vector<Result> of = results();
    std::erase_if(of, [session](const Result &r) { return r.session != session; });
    return of;
}

size_t count_of(uint32_t session, uint32_t result)
{
    const std::vector<Result> of = results_of(session);
    return static_cast<size_t>(
        std::count_if(of.begin(), of.end(), [result](const Result &r) { return r.result == result; }));
}

FarEnd::FarEnd(const std::vector<std::string> &interfaces)
{
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    pid_ = fork();
    if (pid_ == 0) {
        far_end_process(ends[1], interfaces);
    }
    close(ends[1]);
    control_ = ends[0];
    char ready[5];
    EXPECT_EQ(recv(control_, ready, sizeof ready, 0), 5);
}

FarEnd::~FarEnd()
{
    close(control_);
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void FarEnd::set(const far_end_knobs &knobs) const
{
    counter_record records[64];
    EXPECT_EQ(send(control_, &knobs, sizeof knobs, 0), static_cast<ssize_t>(sizeof knobs));
    EXPECT_GT(recv(control_, records, sizeof records, 0), 0);
}

std::vector<far_end_counters> FarEnd::counters() const
{
    std::vector<counter_record> records(1024);
    EXPECT_EQ(send(control_, "?", 1, 0), 1);
    const ssize_t got = recv(control_, records.data(), records.size() * sizeof records[0], 0);
    records.resize(got > 0 ? static_cast<size_t>(got) / sizeof records[0] - 1 : 0);
    std::vector<far_end_counters> all;
    for (const counter_record &r : records) {
        all.push_back({r.interface, r.vlan, r.peer, r.requests, r.answered, r.dropped, r.failed});
    }
    return all;
}

Capture::Capture(const std::string &name_space, const std::string &interface) : file_("/run/" + interface + ".pcap")
{
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ends[1], STDERR_FILENO);
        if (!name_space.empty()) {
            const int fd = open(("/run/netns/" + name_space).c_str(), O_RDONLY | O_CLOEXEC);
            setns(fd, CLONE_NEWNET);
        }
        execlp("tcpdump", "tcpdump", "-Z", "root", "-U", "--immediate-mode", "-i", interface.c_str(), "-w",
               file_.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    close(ends[1]);
    // It says that it listens.
    std::string said;
    char byte = 0;
    while (said.find("listening on") == std::string::npos && read(ends[0], &byte, 1) == 1) {
        said += byte;
    }
    EXPECT_NE(said.find("listening on"), std::string::npos) << said;
    fcntl(ends[0], F_SETFD, 0); // its last words find a reader
}

Capture::~Capture()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::vector<std::vector<uint8_t>> Capture::frames() const { return frames_of(file_); }

std::vector<std::vector<uint8_t>> Capture::stop(size_t at_least)
{
    EXPECT_TRUE(wait_for([&] { return frames_of(file_).size() >= at_least; }));
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
    return frames_of(file_);
}

void NetworkTest::SetUp()
{
    ASSERT_EQ(unshare(CLONE_NEWNS | CLONE_NEWNET), 0) << "network tests need root";
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
    const std::lock_guard<std::mutex> held(results_lock);
    all_results.clear();
}

void NetworkTest::TearDown()
{
    for (const uint32_t session : started_) {
        stop_supervision_session(session);
    }
}

void NetworkTest::lay_cable(Cable cable)
{
    // No IPv6: its own frames would stand in the captures.
    run("echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6; ip netns add far; ip netns add mid;"
        "ip netns exec far sh -c 'echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6';"
        "ip netns exec mid sh -c 'echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6'");
    const std::string near = "name near0 address 02:00:00:00:00:01 ";
    const std::string far = "name far0 address 02:00:00:00:00:02 netns far ";
    if (cable == Cable::DIRECT) {
        run("ip link add " + near + "type veth peer " + far);
    } else {
        run("ip -n mid link add bridge0 type bridge mcast_snooping 0 && ip -n mid link set bridge0 up &&"
            "ip link add " +
            near + "type veth peer name m0 netns mid && ip -n mid link add m1 type veth peer " + far +
            "&& for m in m0 m1; do ip -n mid link set $m master bridge0 && ip -n mid link set $m up; done");
    }
    run("ip link set near0 up && ip -n far link set far0 up");
    // Between the cable's two ends being up and the kernel taking note of it, a frame that is sent gets nowhere.
    EXPECT_TRUE(wait_for([] {
        return run("ip -o link show near0").find("state UP") != std::string::npos &&
               run("ip -n far -o link show far0").find("state UP") != std::string::npos;
    }));
}

supervision_params NetworkTest::params()
{
    supervision_params p{};
    snprintf(p.if_name, sizeof p.if_name, "near0");
    p.interval = 1;
    p.sup_type = SUPERVISION_TYPE_LINK;
    p.frameSize = 64;
    p.reserved1 = 1;
    memcpy(p.dest_mac, FAR_MAC.byte, sizeof p.dest_mac);
    memcpy(p.src_mac, NEAR_MAC.byte, sizeof p.src_mac);
    p.vlantag = 0x8100E000 | 100;
    p.ether_type = 0xAEFE;
    return p;
}

uint32_t NetworkTest::start(const supervision_params &p)
{
    uint32_t session = 0;
    EXPECT_EQ(start_supervision_session(&session, &p, record), 0u);
    EXPECT_NE(session, 0u);
    started_.push_back(session);
    return session;
}

uint32_t NetworkTest::stop(uint32_t session)
{
    std::erase(started_, session);
    return stop_supervision_session(session);
}

} // namespace net
