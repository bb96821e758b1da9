// The trace library as a process meets it. Every test runs the traced process as a child with a /run of its own and
// with stderr at a pipe, a socket or a file that the test holds the other end of.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mask_share.hpp"
#include "tri.h"

namespace
{

constexpr uint32_t DEFAULT_MASK = 0x40F2; // levels 1, 4, 5, 6, 7 and 14

// A /run that only this process and its children see.
bool take_private_run()
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0;
}

struct outcome {
    int status;
    std::string text; // what came out of stderr

    [[nodiscard]] std::vector<std::string> lines() const
    {
        std::vector<std::string> all;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            all.push_back(line);
        }
        return all;
    }
};

std::string read_all(int fd)
{
    std::string text;
    char buffer[4096];
    for (ssize_t got = read(fd, buffer, sizeof buffer); got > 0; got = read(fd, buffer, sizeof buffer)) {
        text.append(buffer, static_cast<size_t>(got));
    }
    return text;
}

// Runs `body` in a child whose stderr is `stderr_fd`; its exit status is what `body` returns, 99 when there is no
// private /run.
pid_t start_child(int stderr_fd, const std::function<int()> &body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(stderr_fd, STDERR_FILENO);
        exit(take_private_run() ? body() : 99);
    }
    return pid;
}

int status_of(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// With stderr at a pipe that is read when the child has ended; it holds 64 KiB.
outcome in_child(const std::function<int()> &body)
{
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t pid = start_child(ends[1], body);
    close(ends[1]);
    outcome result{};
    result.text = read_all(ends[0]);
    result.status = status_of(pid);
    close(ends[0]);
    return result;
}

std::string behind_time(const std::string &line)
{
    static const std::regex time(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )");
    EXPECT_TRUE(std::regex_search(line, time)) << line;
    return std::regex_replace(line, time, "");
}

std::string own_file() { return "/run/kap-tri/" + tri::share_file_name(procInfo->name, getpid()); }

std::string output_of(const std::string &command)
{
    FILE *out = popen((command + " 2>&1").c_str(), "r");
    std::string text;
    char buffer[512];
    while (out != nullptr && fgets(buffer, sizeof buffer, out) != nullptr) {
        text += buffer;
    }
    return pclose(out) == 0 ? text : "failed: " + text;
}

TEST(Tri, HasAMaskBeforeItIsOpened)
{
    const outcome o = in_child([] { return procInfo != nullptr && procInfo->mask == DEFAULT_MASK ? 0 : 1; });
    EXPECT_EQ(o.status, 0);
}

TEST(Tri, PrintsTimeNameLevelFileLineAndText)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("kap_vorn_manager");
        lttngTriTrace(6, "link_table.cpp", 120, "Supervision started with session id: 1");
        return 0;
    });
    ASSERT_EQ(o.lines().size(), 1u) << o.text;
    EXPECT_EQ(behind_time(o.lines()[0]),
              "kap_vorn_manager[6] link_table.cpp:120 Supervision started with session id: 1");
}

TEST(Tri, PrintsTheTimeOfTheTraceInUtcToTheMicrosecond)
{
    const auto now = [] {
        timespec t{};
        clock_gettime(CLOCK_REALTIME, &t);
        return static_cast<long long>(t.tv_sec) * 1000000 + t.tv_nsec / 1000;
    };
    const long long before = now();
    const outcome o = in_child([] {
        setenv("TZ", "XYZ-5:30", 1);
        tri_init();
        lttngTriTrace(6, "a.cpp", 1, "now");
        return 0;
    });
    const long long after = now();
    tm utc{};
    long microseconds = 0;
    const char *rest = strptime(o.text.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
    ASSERT_NE(rest, nullptr) << o.text;
    ASSERT_EQ(sscanf(rest, ".%6ldZ ", &microseconds), 1) << o.text;
    const long long printed = static_cast<long long>(timegm(&utc)) * 1000000 + microseconds;
    EXPECT_GE(printed, before) << o.text;
    EXPECT_LE(printed, after) << o.text;
}

TEST(Tri, PrintsMessageNumberAndMailboxOfASentAndAReceivedMessage)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("p");
        procInfo->mask = 1u << 17 | 1u << 18;
        lttngTriSendSigTrace("a.cpp", 1, 0x1B0E01, 0x10001, "CONFIRM");
        lttngTriRecSigTrace("a.cpp", 2, 0x1B0E00, 0xFFFFFFFF, "REQUEST");
        return 0;
    });
    ASSERT_EQ(o.lines().size(), 2u) << o.text;
    EXPECT_EQ(behind_time(o.lines()[0]), "p[18] a.cpp:1 SEND 0x1b0e01 to 0x10001: CONFIRM");
    EXPECT_EQ(behind_time(o.lines()[1]), "p[17] a.cpp:2 REC 0x1b0e00 from 0xffffffff: REQUEST");
}

TEST(Tri, EmitsOnlyTheLevelsOfTheMask)
{
    const outcome o = in_child([] {
        tri_init();
        procInfo->mask = 1u << 13;
        for (uint32_t level = 0; level < 70; level++) {
            lttngTriTrace(level, "a.cpp", static_cast<int>(level), "text");
        }
        return 0;
    });
    ASSERT_EQ(o.lines().size(), 1u) << o.text;
    EXPECT_NE(o.text.find("[13] a.cpp:13 text"), std::string::npos) << o.text;
}

TEST(Tri, IsReopenedWithResultFour)
{
    EXPECT_EQ(in_child([] { return tri_init() * 10 + tri_init(); }).status, 4);
}

TEST(Tri, GoesOnWithTheDefaultMaskWhereNothingCanBeShared)
{
    const outcome o = in_child([] {
        mount("none", "/run", nullptr, MS_REMOUNT | MS_RDONLY, nullptr);
        const int result = tri_init();
        lttngTriTrace(1, "a.cpp", 1, "still here");
        return result == 4 && procInfo->mask == DEFAULT_MASK ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_NE(o.text.find("still here"), std::string::npos);
}

TEST(Tri, KeepsErrno)
{
    const outcome o = in_child([] {
        tri_init();
        close(STDERR_FILENO); // what is written from now on fails
        errno = 77;
        lttngTriTrace(1, "a.cpp", 1, formatStr("%s", "text"));
        return errno;
    });
    EXPECT_EQ(o.status, 77);
}

TEST(Tri, CutsATextAt2047Characters)
{
    const outcome o = in_child([] {
        const std::string text(3000, 'x');
        return strlen(formatStr("%s", text.c_str())) == 2047 ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(Tri, NeverPrintsMoreThanOneLineForOneTrace)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("p");
        lttngTriTrace(1, "a.cpp", 1, "one\ntwo\x1b[31m\tthree\n");
        return 0;
    });
    ASSERT_EQ(o.lines().size(), 1u) << o.text;
    EXPECT_EQ(behind_time(o.lines()[0]), "p[1] a.cpp:1 one?two?[31m?three");
}

TEST(Tri, ShortensAPathToItsLastPart)
{
    EXPECT_STREQ(short_fname("src/manager/rtt.cpp"), "rtt.cpp");
    EXPECT_STREQ(short_fname("rtt.cpp"), "rtt.cpp");
    EXPECT_STREQ(short_fname("src/"), "");
}

TEST(Tri, NamesTheThreadInTheProcessList)
{
    const outcome o = in_child([] {
        tri_register_thread_name("kap_vorn_manager");
        char name[16] = {};
        prctl(PR_GET_NAME, name);
        return strcmp(name, "kap_vorn_manage") == 0 ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(Tri, RefusesAnEmptyName)
{
    EXPECT_EQ(tri_register_thread_name(""), EINVAL);
    EXPECT_EQ(tri_register_thread_name(nullptr), EINVAL);
}

TEST(Tri, TakesTheDefaultMaskFromItsFile)
{
    const outcome o = in_child([] {
        mkdir("/run/kap-tri", 0755);
        std::ofstream("/run/kap-tri/default") << "0x2002\n";
        return tri_init() == 0 && procInfo->mask == 0x2002 ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(Tri, IgnoresADefaultFileThatHoldsNoNumber)
{
    for (const char *content : {"", "levels", "0x1ffffffff", "12 apples"}) {
        const outcome o = in_child([content] {
            mkdir("/run/kap-tri", 0755);
            std::ofstream("/run/kap-tri/default") << content;
            tri_init();
            return procInfo->mask == DEFAULT_MASK ? 0 : 1;
        });
        EXPECT_EQ(o.status, 0) << content;
    }
}

TEST(Tri, SharesItsMaskInAFileThatEverybodyMayReadAndOnlyTheOwnerWrite)
{
    const outcome o = in_child([] {
        umask(077);
        tri_init();
        struct stat directory {
        };
        struct stat file {
        };
        if (stat("/run/kap-tri", &directory) != 0 || stat(own_file().c_str(), &file) != 0) {
            return 1;
        }
        return (directory.st_mode & 07777) == 0755 && (file.st_mode & 07777) == 0644 ? 0 : 2;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(Tri, RemovesItsFileAtExitAndAForkedChildDoesNot)
{
    const outcome o = in_child([] {
        const pid_t pid = fork();
        if (pid == 0) {
            tri_init();
            const pid_t grandchild = fork();
            if (grandchild == 0) {
                exit(0);
            }
            exit(status_of(grandchild) == 0 && access(own_file().c_str(), F_OK) == 0 ? 0 : 1);
        }
        const int status = status_of(pid);
        return status == 0 && output_of("ls -A /run/kap-tri").empty() ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(Tri, GivesEveryThreadTheSameMaskAlsoOneThatStartedBeforeItWasOpened)
{
    const outcome o = in_child([] {
        int go[2];
        if (pipe(go) != 0) {
            return 2;
        }
        const auto mask = [] { return __atomic_load_n(&procInfo->mask, __ATOMIC_RELAXED); };
        uint32_t seen = 0;
        std::thread early([&] {
            char byte = 0;
            if (mask() != 0 && read(go[0], &byte, 1) == 1) {
                seen = mask();
            }
        });
        tri_init();
        __atomic_store_n(&procInfo->mask, 0x12345678u, __ATOMIC_RELAXED);
        const bool told = write(go[1], "x", 1) == 1;
        early.join();
        return told && seen == 0x12345678 ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(Tri, ObeysAMaskSetFromOutside)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("traced");
        const std::string said = output_of(KAP_TRACE " set traced 0x2000 && " KAP_TRACE " get traced");
        lttngTriTrace(6, "a.cpp", 1, "not wanted any more");
        lttngTriTrace(13, "a.cpp", 1, "wanted now");
        return procInfo->mask == 0x2000 && said == "traced." + std::to_string(getpid()) + " 0x00002000 13\n" ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
    ASSERT_EQ(o.lines().size(), 1u) << o.text;
    EXPECT_NE(o.text.find("wanted now"), std::string::npos);
}

TEST(KapTrace, SwitchesSingleLevelsAndSetsTheDefault)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("traced");
        if (!output_of(KAP_TRACE " set traced +13,17").empty() || procInfo->mask != (DEFAULT_MASK | 0x22000)) {
            return 1;
        }
        if (!output_of(KAP_TRACE " set traced -1,13").empty() || procInfo->mask != ((DEFAULT_MASK | 0x20000) & ~2u)) {
            return 2;
        }
        output_of(KAP_TRACE " set default 0x10");
        return tri::default_mask() == 0x10 ? 0 : 3;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(KapTrace, RefusesWhatIsNoMaskAndLeavesTheOldOne)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("traced");
        for (const char *mask : {"''", "x", "-1x", "+32", "+", "+1,,2", "0x100000000", "12k"}) {
            const std::string said = output_of(std::string(KAP_TRACE " set traced ") + mask);
            if (said.find("is no mask") == std::string::npos || procInfo->mask != DEFAULT_MASK) {
                return 1;
            }
        }
        return 0;
    });
    EXPECT_EQ(o.status, 0);
}

// ---- What others do to the files ----

// Traces once, so that the mask is read, and says whether it is as it was.
bool still_traces()
{
    lttngTriTrace(1, "a.cpp", 1, "still here");
    return __atomic_load_n(&procInfo->mask, __ATOMIC_RELAXED) == DEFAULT_MASK;
}

TEST(TriShare, AFileThatIsCutDoesNothingToItsProcess)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("traced");
        return truncate(own_file().c_str(), 0) == 0 && still_traces() ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_NE(o.text.find("still here"), std::string::npos);
}

TEST(TriShare, AFileThatIsOverwrittenDoesNothingToItsProcess)
{
    const outcome o = in_child([] {
        tri_init();
        std::ofstream(own_file()) << std::string(200, '\xFF');
        return still_traces() ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(TriShare, WhatIsMappedCannotBeMadeSmaller)
{
    const outcome o = in_child([] {
        tri_init();
        std::ifstream file(own_file());
        tri::share record{};
        file.read(reinterpret_cast<char *>(&record), sizeof record);
        const std::string memory = "/proc/self/fd/" + std::to_string(record.memory);
        return truncate(memory.c_str(), 0) != 0 && errno == EPERM && still_traces() ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(TriShare, ALinkAPipeOrADirectoryInTheWayIsNotFollowedAndHoldsNobodyUp)
{
    const auto start_with = [](const char *what, const char *name) {
        mkdir("/run/kap-tri", 0755);
        std::ofstream("/run/precious") << "0x2\n";
        const std::string path = std::string("/run/kap-tri/") + name;
        const std::string made = std::string(what) == "link"   ? "ln -s /run/precious " + path
                                 : std::string(what) == "pipe" ? "mkfifo " + path
                                                               : "mkdir " + path;
        if (!output_of(made).empty()) {
            return 9;
        }
        tri_init();
        std::stringstream precious;
        precious << std::ifstream("/run/precious").rdbuf();
        return precious.str() == "0x2\n" && still_traces() ? 0 : 1;
    };
    for (const char *what : {"link", "pipe", "directory"}) {
        const outcome of_default = in_child([&] {
            alarm(20);
            return start_with(what, "default");
        });
        EXPECT_EQ(of_default.status, 0) << what;
        const outcome of_record = in_child([&] {
            alarm(20);
            const std::string file = tri::share_file_name(program_invocation_short_name, getpid());
            return start_with(what, file.c_str()) + start_with(what, ('.' + file).c_str()) / 10;
        });
        EXPECT_EQ(of_record.status, 0) << what;
    }
}

TEST(TriShare, ADefaultOfAnotherUserIsNotTaken)
{
    const outcome o = in_child([] {
        mkdir("/run/kap-tri", 0755);
        std::ofstream("/run/kap-tri/default") << "0x2\n";
        if (chown("/run/kap-tri/default", 1000, 1000) != 0) {
            return geteuid() == 0 ? 77 : 1; // a user namespace with one user has no other
        }
        return tri::default_mask() == DEFAULT_MASK ? 0 : 1;
    });
    EXPECT_TRUE(o.status == 0 || o.status == 77) << o.status;
}

// Writes a record that says the mask of this process lies behind `fd`.
void plant_record(const char *name, int fd)
{
    tri::share record{};
    memcpy(record.magic, tri::SHARE_MAGIC, sizeof record.magic);
    record.pid = static_cast<uint32_t>(getpid());
    record.start_time = tri::process_start_time(getpid());
    record.memory = fd;
    (void)snprintf(record.info.name, sizeof record.info.name, "%s", name);
    std::ofstream("/run/kap-tri/" + tri::share_file_name(name, getpid()))
        .write(reinterpret_cast<const char *>(&record), sizeof record);
}

TEST(KapTrace, WritesNowhereButIntoTheMaskOfThatProcess)
{
    const outcome o = in_child([] {
        alarm(20);
        tri_init();
        // A file, a pipe and memory without seals, each with what a record has.
        const int file = open("/run/precious", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        int pipe_ends[2];
        const int memory = memfd_create("kap-tri", MFD_CLOEXEC);
        if (file < 0 || memory < 0 || pipe2(pipe_ends, O_CLOEXEC) != 0) {
            return 9;
        }
        plant_record("victim", memory);
        std::stringstream content;
        content << std::ifstream("/run/kap-tri/" + tri::share_file_name("victim", getpid())).rdbuf();
        const std::string before = content.str();
        for (const int fd : {file, memory}) {
            if (write(fd, before.data(), before.size()) != static_cast<ssize_t>(before.size())) {
                return 9;
            }
        }
        for (const int fd : {file, memory, pipe_ends[0], pipe_ends[1], -1, 9999}) {
            plant_record("victim", fd);
            if (output_of(KAP_TRACE " set victim 0x2").rfind("failed: kap-trace: victim", 0) != 0) {
                return 1;
            }
        }
        for (const int fd : {file, memory}) {
            std::string after(before.size(), ' ');
            if (pread(fd, after.data(), after.size(), 0) != static_cast<ssize_t>(after.size()) || after != before) {
                return 2;
            }
        }
        return 0;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(KapTrace, PassesByWhatIsNoRecord)
{
    const outcome o = in_child([] {
        alarm(20);
        tri_init();
        tri_register_thread_name("traced");
        output_of("mkfifo /run/kap-tri/pipe.1; ln -s traced." + std::to_string(getpid()) +
                  " /run/kap-tri/link.1; mkdir /run/kap-tri/directory.1; echo short >/run/kap-tri/short.1");
        const std::string listed = output_of(KAP_TRACE " list");
        return std::count(listed.begin(), listed.end(), '\n') == 3 && listed.find("\ntraced.") != std::string::npos ? 0
                                                                                                                    : 1;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(KapTrace, ShowsTheMaskThatWasSetAlsoInTheRecord)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("traced");
        output_of(KAP_TRACE " set traced 0x2000");
        std::ifstream file(own_file());
        tri::share record{};
        file.read(reinterpret_cast<char *>(&record), sizeof record);
        return record.info.mask == 0x2000 ? 0 : 1;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(KapTrace, TellsThatNobodyHasThatName)
{
    const outcome o = in_child([] {
        return output_of(KAP_TRACE " get nobody") == "failed: kap-trace: no process \"nobody\" shares its trace mask\n"
                   ? 0
                   : 1;
    });
    EXPECT_EQ(o.status, 0);
}

TEST(KapTrace, ListsTheLivingAndRemovesWhatTheKilledLeft)
{
    const outcome o = in_child([] {
        int ready[2];
        if (pipe(ready) != 0) {
            return 9;
        }
        const pid_t victim = fork();
        if (victim == 0) {
            tri_init();
            tri_register_thread_name("victim");
            exit(write(ready[1], "x", 1) == 1 ? pause() : 1);
        }
        char byte = 0;
        if (read(ready[0], &byte, 1) != 1 || output_of(KAP_TRACE " list").find("victim.") == std::string::npos) {
            return 1;
        }
        kill(victim, SIGKILL);
        waitpid(victim, nullptr, 0);
        const bool file_is_left = output_of("ls /run/kap-tri").find("victim.") != std::string::npos;
        const bool listed = output_of(KAP_TRACE " list").find("victim.") != std::string::npos;
        const bool file_is_gone = output_of("ls /run/kap-tri").find("victim.") == std::string::npos;
        return file_is_left && !listed && file_is_gone ? 0 : 2;
    });
    EXPECT_EQ(o.status, 0);
}

// ---- A sink that does not take more ----

// Fills what stderr is until it takes nothing; tells by not returning when a trace blocks.
void trace_until_full()
{
    const std::string text(2000, 'x');
    for (int i = 0; i < 1000; i++) {
        lttngTriTrace(1, "a.cpp", i, text.c_str());
    }
}

void expect_loss_is_told(int reader, int writer)
{
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    const pid_t pid = start_child(writer, [&] {
        tri_init();
        trace_until_full();
        char byte = 0;
        if (write(go[1], "f", 1) != 1) {
            return 1;
        }
        // The reader empties the sink now.
        pollfd p{STDERR_FILENO, POLLOUT, 0};
        while (poll(&p, 1, -1) != 1 || read(go[0], &byte, 1) != 1) {
        }
        lttngTriTrace(1, "a.cpp", 1, "after");
        return 0;
    });
    char full = 0;
    ASSERT_EQ(read(go[0], &full, 1), 1);
    ASSERT_EQ(fcntl(reader, F_SETFL, O_NONBLOCK), 0);
    const std::string before = read_all(reader);
    ASSERT_EQ(write(go[1], "g", 1), 1);
    EXPECT_EQ(status_of(pid), 0);
    const std::string after = read_all(reader);

    const auto taken = std::count(before.begin(), before.end(), '\n');
    EXPECT_GT(taken, 0);
    EXPECT_LT(taken, 1000);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(after, m,
                                  std::regex(R"(\[4\] (\d+) traces lost, they were not taken in time\n.*\[1\] )"
                                             R"(a\.cpp:1 after\n$)")))
        << after;
    EXPECT_EQ(std::stol(m[1]), 1000 - taken);
}

TEST(TriSink, NeverBlocksOnAFullPipeAndTellsWhatWasLost)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    expect_loss_is_told(ends[0], ends[1]);
}

TEST(TriSink, NeverBlocksOnAFullSocketAndTellsWhatWasLost)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    expect_loss_is_told(ends[0], ends[1]);
}

TEST(TriSink, LeavesTheFlagsOfTheSharedOpenFileAlone)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t pid = start_child(ends[1], [] {
        tri_init();
        lttngTriTrace(1, "a.cpp", 1, "text");
        return 0;
    });
    EXPECT_EQ(status_of(pid), 0);
    EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
}

TEST(TriSink, OutlivesAPipeAndASocketThatNobodyReadsAnyMore)
{
    for (const bool use_socket : {false, true}) {
        int ends[2];
        ASSERT_EQ(use_socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : pipe(ends), 0);
        // The child must not hold the reading end itself.
        const pid_t pid = start_child(ends[1], [&] {
            tri_init();
            close(ends[0]);
            pollfd p{STDERR_FILENO, 0, 0};
            while (poll(&p, 1, -1) != 1) {
            }
            signal(SIGPIPE, SIG_DFL);
            lttngTriTrace(1, "a.cpp", 1, "nobody reads this");
            lttngTriTrace(1, "a.cpp", 1, "nor this");
            sigset_t pending;
            sigpending(&pending);
            return sigismember(&pending, SIGPIPE) == 0 ? 0 : 1;
        });
        close(ends[0]);
        EXPECT_EQ(status_of(pid), 0) << (use_socket ? "socket" : "pipe");
        close(ends[1]);
    }
}

TEST(TriSink, WritesJournalPrioritiesOnlyWhereStderrIsTheJournalsSocket)
{
    for (const bool matches : {true, false}) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        struct stat st {
        };
        ASSERT_EQ(fstat(ends[1], &st), 0);
        const std::string stream = std::to_string(st.st_dev) + ':' + std::to_string(st.st_ino + (matches ? 0 : 1));
        const pid_t pid = start_child(ends[1], [&] {
            setenv("JOURNAL_STREAM", stream.c_str(), 1);
            tri_init();
            tri_register_thread_name("p");
            lttngTriTrace(1, "a.cpp", 1, "error");
            lttngTriTrace(4, "a.cpp", 2, "warning");
            lttngTriTrace(6, "a.cpp", 3, "link");
            return 0;
        });
        close(ends[1]);
        const std::string text = read_all(ends[0]);
        EXPECT_EQ(status_of(pid), 0);
        const std::string journal = "<3>p[1] a.cpp:1 error\n<4>p[4] a.cpp:2 warning\n<6>p[6] a.cpp:3 link\n";
        EXPECT_EQ(text == journal, matches) << text;
        close(ends[0]);
    }
}

TEST(TriSink, KeepsLinesOfManyThreadsWhole)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("p");
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++) {
            threads.emplace_back([t] {
                for (int i = 0; i < 100; i++) {
                    lttngTriTrace(1, "a.cpp", t, formatStr("%s", std::string(60, static_cast<char>('a' + t)).c_str()));
                }
            });
        }
        for (std::thread &t : threads) {
            t.join();
        }
        return 0;
    });
    EXPECT_EQ(o.status, 0);
    const std::regex whole(R"(p\[1\] a\.cpp:\d (a{60}|b{60}|c{60}|d{60}))");
    size_t good = 0;
    for (const std::string &line : o.lines()) {
        good += std::regex_match(behind_time(line), whole) ? 1u : 0u;
    }
    EXPECT_EQ(good, 400u);
}

// ---- A flood of traces ----

// What was told of a kind, summed up, and how many lines of it were written.
struct flood_seen {
    size_t written = 0;
    size_t told = 0;
    size_t tellings = 0;
    bool operator==(const flood_seen &) const = default;
};

flood_seen flood_of(const outcome &o, const std::string &origin, const std::string &text)
{
    flood_seen seen;
    const std::regex more(origin + R"( (\d+) more of the kind: )" + text);
    for (const std::string &line : o.lines()) {
        std::smatch m;
        if (std::regex_search(line, m, more)) {
            seen.told += std::stoul(m[1]);
            ++seen.tellings;
        } else if (std::regex_search(line, std::regex(origin + " " + text))) {
            ++seen.written;
        }
    }
    return seen;
}

TEST(TriFlood, WritesAHundredLinesOfAKindInASecondAndTellsHowManyMoreThereWere)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("p");
        for (int i = 0; i < 5000; i++) {
            lttngTriTrace(1, "a.cpp", 7, formatStr("refused %d", i));
        }
        lttngTriTrace(1, "a.cpp", 8, "a person's");
        return 0;
    });
    EXPECT_EQ(o.status, 0);
    const flood_seen seen = flood_of(o, "a.cpp:7", "refused");
    EXPECT_EQ(seen.written + seen.told, 5000u);
    EXPECT_LE(seen.written, 200u) << "it may have taken a little more than a second";
    EXPECT_EQ(flood_of(o, "a.cpp:8", "a person's"), (flood_seen{1, 0, 0})) << "another kind is not hidden";
    EXPECT_GE(seen.tellings, 1u) << "what was counted is told when the process ends";
}

TEST(TriFlood, TellsWhenTheSecondIsOverBeforeWhatIsWrittenNext)
{
    const outcome o = in_child([] {
        tri_init();
        tri_register_thread_name("p");
        for (int i = 0; i < 150; i++) {
            lttngTriTrace(6, "a.cpp", 7, "again");
        }
        timespec second{1, 10'000'000};
        nanosleep(&second, nullptr); // what is tested is the second itself
        lttngTriTrace(1, "a.cpp", 8, "next");
        for (int i = 0; i < 100; i++) {
            lttngTriTrace(6, "a.cpp", 7, "again");
        }
        return 0;
    });
    EXPECT_EQ(o.status, 0);
    const std::vector<std::string> lines = o.lines();
    ASSERT_EQ(lines.size(), 202u);
    EXPECT_EQ(behind_time(lines[100]), "p[6] a.cpp:7 50 more of the kind: again");
    EXPECT_EQ(behind_time(lines[101]), "p[1] a.cpp:8 next");
    EXPECT_EQ(behind_time(lines[201]), "p[6] a.cpp:7 again") << "the next second has a hundred lines again";
}

TEST(TriFlood, WritesWholeWhatAPersonSwitchedOn)
{
    const outcome o = in_child([] {
        tri_init();
        __atomic_store_n(&procInfo->mask, 1u << 13 | 1u << 17, __ATOMIC_RELAXED);
        for (int i = 0; i < 300; i++) {
            lttngTriTrace(13, "a.cpp", 7, "traffic");
            lttngTriRecSigTrace("a.cpp", 8, 1, 2, "REQUEST");
        }
        return 0;
    });
    EXPECT_EQ(o.lines().size(), 600u);
}

TEST(TriFlood, LosesNoKindHoweverManyThereAre)
{
    const outcome o = in_child([] {
        tri_init();
        for (int i = 0; i < 1000; i++) {
            lttngTriTrace(1, "a.cpp", i, "x");
        }
        return 0;
    });
    EXPECT_EQ(o.lines().size(), 1000u);
}

TEST(TriFlood, IsCountedRightByManyThreads)
{
    const outcome o = in_child([] {
        tri_init();
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++) {
            threads.emplace_back([] {
                for (int i = 0; i < 2000; i++) {
                    lttngTriTrace(1, "a.cpp", 7, "refused");
                }
            });
        }
        for (std::thread &t : threads) {
            t.join();
        }
        return 0;
    });
    const flood_seen seen = flood_of(o, "a.cpp:7", "refused");
    EXPECT_EQ(seen.written + seen.told, 8000u);
}

TEST(TriFlood, OfAParentIsNotToldByItsChild)
{
    const outcome o = in_child([] {
        tri_init();
        for (int i = 0; i < 101; i++) {
            lttngTriTrace(1, "a.cpp", 7, "refused");
        }
        const pid_t pid = fork();
        if (pid == 0) {
            exit(0);
        }
        return status_of(pid);
    });
    EXPECT_EQ(flood_of(o, "a.cpp:7", "refused"), (flood_seen{100, 1, 1}));
}

} // namespace
