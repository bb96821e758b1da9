/* The registry and the system around it: namespaces, inherited descriptors, who may connect, start and end, hostility.
 */
#include "itcd_fixture.hpp"

#include "itc_wire.hpp"
#include "raw_client.hpp"
#include "slowness.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace itc_test;

namespace
{

constexpr uint32_t WORK = 0x5201;
constexpr uint32_t LAST = 0x5202;
constexpr uint32_t GONE = 0x5203;
constexpr uid_t nobody = 65534;

void send_plain(uint32_t to, uint32_t msgno)
{
    itc_msg *msg = itc_alloc(4, msgno);
    itc_send(&msg, to, ITC_MY_MBOX);
}

uint32_t take(itc_msg *msg)
{
    const uint32_t msgno = msg == nullptr ? 0 : msg->msgno;
    itc_free(&msg);
    return msgno;
}

int answer_once(const char *name)
{
    join(name);
    itc_msg *msg = receive(WORK);
    if (msg == nullptr) {
        return 1;
    }
    send_plain(itc_sender(msg), LAST);
    itc_free(&msg);
    itc_exit();
    return 0;
}

void become(uid_t user)
{
    if (setgid(user) != 0 || setuid(user) != 0) {
        _exit(97);
    }
}

class ItcSystem : public ItcTest
{
};

// ---- Start and end
// ---------------------------------------------------------------------------------------------------

TEST_F(ItcSystem, WithoutARegistryInitSaysSo)
{
    EXPECT_EQ(itc_init(1, 0, nullptr, nullptr, 0), ENOENT);
    start_registry();
    ::kill(registry, SIGKILL); // leaves its socket behind
    waitpid(registry, nullptr, 0);
    registry = -1;
    EXPECT_EQ(itc_init(1, 0, nullptr, nullptr, 0), ECONNREFUSED);
}

TEST_F(ItcSystem, ARegistryThatWasKilledDoesNotHinderTheNext)
{
    start_registry();
    ::kill(registry, SIGKILL);
    waitpid(registry, nullptr, 0);
    start_registry();
    EXPECT_NE(join("own"), ITC_NO_MBOX);
}

TEST_F(ItcSystem, ASecondRegistryRefusesToStartAndTheFirstGoesOn)
{
    start_registry();
    const pid_t first = registry;
    const pid_t second = fork();
    if (second == 0) {
        const int log = open("/run/second.log", O_WRONLY | O_CREAT, 0644);
        dup2(log, STDERR_FILENO);
        execl(ITCD_PATH, "itcd", nullptr);
        _exit(99);
    }
    int status = 0;
    waitpid(second, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 1);
    std::stringstream said;
    said << std::ifstream("/run/second.log").rdbuf();
    EXPECT_EQ(said.str(), "itcd: /run/kap-itc/itcd.lock: a registry runs already\n");
    EXPECT_EQ(::kill(first, 0), 0);
    EXPECT_NE(join("own"), ITC_NO_MBOX);
}

TEST_F(ItcSystem, TheRegistryEndsOnSigtermAndOnSigintAndLeavesNothingBehind)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        start_registry();
        EXPECT_EQ(access("/run/kap-itc/itcd.sock", F_OK), 0);
        EXPECT_EQ(stop_registry(signal), 0);
        EXPECT_NE(access("/run/kap-itc", F_OK), 0);
    }
}

TEST_F(ItcSystem, TheRegistrySaysOneLineWhenItIsReadyAndNothingElse)
{
    start_registry();
    join("own");
    itc_exit();
    EXPECT_EQ(registry_says(), "itcd: ready on /run/kap-itc/itcd.sock\n");
}

// What a reader that does not wait finds.
std::string read_now(int fd)
{
    std::string text;
    char bytes[4096];
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0) {
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got <= 0) {
            break;
        }
        text.append(bytes, static_cast<size_t>(got));
    }
    return text;
}

// Has the registry complain of somebody. True when it has thrown him out.
bool make_it_complain()
{
    const int fd = raw_connect();
    write_all(fd, Bytes(64, 0xFF));
    const bool thrown_out = ended(fd);
    close(fd);
    return thrown_out;
}

TEST_F(ItcSystem, AStderrThatTakesNothingHoldsUpNobodyAndTheLinesThatWereLostAreTold)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    start_registry_with_stderr(ends[1]);
    ASSERT_TRUE(eventually([&] { return read_now(ends[0]) == "itcd: ready on /run/kap-itc/itcd.sock\n"; }));
    const std::string noise(4096, '-');
    pollfd room{ends[1], POLLOUT, 0};
    while (poll(&room, 1, 0) == 1) {
        ASSERT_GT(write(ends[1], noise.data(), noise.size()), 0);
    }
    EXPECT_TRUE(make_it_complain());
    Child located([] { return answer_once("located"); });
    Child honest([] {
        join("honest");
        send_plain(await("located"), WORK);
        return take(receive(LAST)) == LAST ? 0 : 1;
    });
    EXPECT_EQ(honest.finish(), 0);
    EXPECT_EQ(located.finish(), 0);
    (void)read_now(ends[0]);
    std::string said;
    EXPECT_TRUE(eventually([&] {
        said += make_it_complain() ? read_now(ends[0]) : "";
        return said.find("disconnecting process") != std::string::npos;
    }));
    EXPECT_EQ(said.find("itcd: 1 lines lost, they were not taken in time\nitcd: disconnecting process "), 0u) << said;
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ItcSystem, AHundredLinesOfAKindAreWrittenInASecondAndTheRestIsCounted)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    start_registry_with_stderr(ends[1]);
    ASSERT_TRUE(eventually([&] { return read_now(ends[0]) == "itcd: ready on /run/kap-itc/itcd.sock\n"; }));
    std::string said;
    size_t caused = 0;
    const std::string more = " more of the kind: disconnecting process ";
    EXPECT_TRUE(eventually([&] {
        for (int i = 0; i < 500; i++) {
            caused += make_it_complain() ? 1 : 0;
            said += read_now(ends[0]);
        }
        return said.find(more) != std::string::npos;
    }));
    size_t written = 0;
    for (size_t at = 0; (at = said.find("itcd: disconnecting process ", at)) != std::string::npos; at++) {
        written++;
    }
    EXPECT_GE(written, 100u);
    EXPECT_LT(written, caused);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ItcSystem, AStderrThatNobodyReadsOrThatIsNotThereEndsNoRegistry)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    for (const int fd : {ends[1], -1}) {
        start_registry_with_stderr(fd);
        EXPECT_TRUE(make_it_complain());
        Child honest([] { return join("honest") == ITC_NO_MBOX ? 1 : 0; });
        EXPECT_EQ(honest.finish(), 0);
        EXPECT_EQ(stop_registry(SIGTERM), 0);
    }
    close(ends[1]);
}

TEST_F(ItcSystem, TheRegistryTellsAServiceManagerThatItIsReady)
{
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/run/notify");
    ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", "/run/notify", 1);
    start_registry();
    unsetenv("NOTIFY_SOCKET");
    char text[64] = {};
    pollfd wanted{manager, POLLIN, 0};
    ASSERT_EQ(poll(&wanted, 1, 10000), 1);
    EXPECT_EQ(recv(manager, text, sizeof text - 1, 0), 7);
    EXPECT_STREQ(text, "READY=1");
    close(manager);
}

TEST_F(ItcSystem, TheRegistryTellsAWatchdogThatItStillRunsAlsoWhenNobodyWantsAnythingOfIt)
{
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/run/notify");
    ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", "/run/notify", 1);
    setenv("WATCHDOG_USEC", "200000", 1);
    start_registry();
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    for (const char *expected : {"READY=1", "WATCHDOG=1", "WATCHDOG=1", "WATCHDOG=1"}) {
        char text[64] = {};
        pollfd wanted{manager, POLLIN, 0};
        ASSERT_EQ(poll(&wanted, 1, 10000), 1);
        EXPECT_GT(recv(manager, text, sizeof text - 1, 0), 0);
        EXPECT_STREQ(text, expected);
    }
    close(manager);
}

TEST_F(ItcSystem, AServiceManagerThatDoesNotReadHoldsUpNobody)
{
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int filler = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/run/notify");
    ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    while (sendto(filler, "x", 1, 0, reinterpret_cast<sockaddr *>(&address), sizeof address) == 1) {
    }
    ASSERT_EQ(errno, EAGAIN);
    setenv("NOTIFY_SOCKET", "/run/notify", 1);
    start_registry();
    unsetenv("NOTIFY_SOCKET");
    EXPECT_NE(join("own"), ITC_NO_MBOX);
    EXPECT_NE(registry_says().find("itcd: the service manager was not told: "), std::string::npos) << registry_says();
    close(filler);
    close(manager);
}

// How a registry ends that starts now, and what it says.
std::string start_in_vain()
{
    const pid_t pid = fork();
    if (pid == 0) {
        const int log = open("/run/vain.log", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(log, STDERR_FILENO);
        alarm(20);
        execl(ITCD_PATH, "itcd", nullptr);
        _exit(99);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    std::stringstream said;
    said << std::ifstream("/run/vain.log").rdbuf();
    return std::to_string(status) + " " + said.str();
}

TEST_F(ItcSystem, ALockThatIsNoFileOfTheRegistrysOwnIsLeftAloneAndNoRegistryStarts)
{
    ASSERT_EQ(mkdir("/run/kap-itc", 0755), 0);
    const char *const lock = "/run/kap-itc/itcd.lock";
    const std::string refused = "256 itcd: /run/kap-itc/itcd.lock: ";
    ASSERT_EQ(symlink("/run/elsewhere", lock), 0);
    EXPECT_EQ(start_in_vain(), refused + strerror(ELOOP) + "\n");
    EXPECT_NE(access("/run/elsewhere", F_OK), 0) << "nothing is made where the link leads";
    ASSERT_EQ(unlink(lock), 0);
    ASSERT_EQ(mkfifo(lock, 0600), 0);
    EXPECT_EQ(start_in_vain(), refused + "is not a file of our own\n");
    ASSERT_EQ(unlink(lock), 0);
    close(open(lock, O_WRONLY | O_CREAT, 0600));
    ASSERT_EQ(chown(lock, nobody, nobody), 0);
    EXPECT_EQ(start_in_vain(), refused + "is not a file of our own\n");
    ASSERT_EQ(chown(lock, 0, 0), 0);
    ASSERT_EQ(link(lock, "/run/second-name"), 0);
    EXPECT_EQ(start_in_vain(), refused + "is not a file of our own\n");
    ASSERT_EQ(unlink("/run/second-name"), 0);
    start_registry();
}

TEST_F(ItcSystem, WrongOptionsAreRefusedWithTheUsage)
{
    for (const std::vector<std::string> &arguments : std::vector<std::vector<std::string>>{
             {"--unknown"}, {"--allow-user", "no such user"}, {"--reserve", "no-equals"}, {"more"}}) {
        const pid_t pid = fork();
        if (pid == 0) {
            const int log = open("/run/usage.log", O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(log, STDERR_FILENO);
            execl(ITCD_PATH, "itcd", arguments[0].c_str(), arguments.size() > 1 ? arguments[1].c_str() : nullptr,
                  nullptr);
            _exit(99);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), 2) << arguments[0];
        std::stringstream said;
        said << std::ifstream("/run/usage.log").rdbuf();
        EXPECT_NE(said.str().find("usage: itcd"), std::string::npos) << arguments[0];
    }
}

TEST_F(ItcSystem, WhenTheRegistryIsLostReceiveDeliversWhatIsQueuedAndThenReturnsNull)
{
    start_registry();
    const uint32_t own = join("own");
    send_plain(own, WORK);
    ::kill(registry, SIGKILL);
    waitpid(registry, nullptr, 0);
    registry = -1;
    EXPECT_EQ(take(receive_any()), WORK);
    EXPECT_EQ(itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY), nullptr);
    EXPECT_EQ(itc_locate("own"), ITC_NO_MBOX);
    EXPECT_EQ(itc_create_mailbox("second", 0), ITC_NO_MBOX);
    send_plain(0x00123000, WORK);
    send_plain(own, LAST);
    EXPECT_EQ(take(receive_any()), LAST);
    itc_exit();
    start_registry();
    EXPECT_NE(join("own"), ITC_NO_MBOX);
}

TEST_F(ItcSystem, TwoProcessesThatKnowEachOtherOutliveTheirRegistry)
{
    start_registry();
    Child other([] {
        join("other");
        itc_msg *msg = receive(WORK);
        if (msg == nullptr) {
            return 1;
        }
        const uint32_t to = itc_sender(msg);
        itc_free(&msg);
        send_plain(to, LAST);
        // From now on without a registry: answer once more, polling, since receive waits no longer.
        const bool asked = eventually([] { return take(itc_receive(nullptr, 5, ITC_FROM_ANY)) == WORK; });
        send_plain(to, LAST);
        itc_exit();
        return asked ? 0 : 2;
    });
    join("own");
    const uint32_t to = await("other");
    send_plain(to, WORK);
    EXPECT_EQ(take(receive(LAST)), LAST);
    ::kill(registry, SIGKILL);
    waitpid(registry, nullptr, 0);
    registry = -1;
    send_plain(to, WORK);
    EXPECT_TRUE(eventually([] { return take(itc_receive(nullptr, 5, ITC_FROM_ANY)) == LAST; }));
    EXPECT_EQ(other.finish(), 0);
}

TEST_F(ItcSystem, ARegistryThatHangsHoldsALocateForTwoSecondsAndNoLonger)
{
    start_registry();
    const uint32_t own = join("own");
    ::kill(registry, SIGSTOP);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(itc_locate("own"), ITC_NO_MBOX);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(1900));
    EXPECT_LT(took, std::chrono::seconds(8) * slowness());
    ::kill(registry, SIGCONT);
    EXPECT_EQ(itc_locate("own"), own); // the late answer to the first is not taken for this one's
}

// ---- Namespaces and descriptors
// --------------------------------------------------------------------------------------

TEST_F(ItcSystem, MessagesCrossNetworkNamespaces)
{
    start_registry();
    Child inside([] {
        if (unshare(CLONE_NEWNET) != 0) {
            return 90;
        }
        return answer_once("inside");
    });
    join("own");
    const uint32_t to = await("inside");
    ASSERT_NE(to, ITC_NO_MBOX);
    send_plain(to, WORK);
    EXPECT_EQ(take(receive(LAST)), LAST);
    EXPECT_EQ(inside.finish(), 0);
}

TEST_F(ItcSystem, AProcessThatChangesItsNamespaceAfterInitGoesOn)
{
    start_registry();
    Child daemon([] {
        join("daemon");
        if (unshare(CLONE_NEWNET) != 0) {
            return 90;
        }
        const uint32_t other = await("own"); // an introduction from inside
        send_plain(other, WORK);
        const bool answered = take(receive(LAST)) == LAST;
        itc_exit();
        return answered ? 0 : 1;
    });
    join("own");
    itc_msg *msg = receive(WORK);
    ASSERT_NE(msg, nullptr);
    send_plain(itc_sender(msg), LAST);
    itc_free(&msg);
    EXPECT_EQ(daemon.finish(), 0);
}

std::set<std::string> open_descriptors(pid_t pid)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/fd";
    std::set<std::string> found;
    DIR *dir = opendir(path.c_str());
    while (const dirent *entry = dir == nullptr ? nullptr : readdir(dir)) {
        found.insert(entry->d_name);
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return found;
}

TEST_F(ItcSystem, AnExecutedChildHoldsNoneOfItsDescriptors)
{
    start_registry();
    Child peer([] { return answer_once("peer"); });
    const std::set<std::string> before = open_descriptors(getpid());
    join("own");
    send_plain(await("peer"), WORK);
    EXPECT_EQ(take(receive(LAST)), LAST);
    EXPECT_GT(open_descriptors(getpid()).size(), before.size()); // registry, epoll, eventfd at least
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sleep", "sleep", "20", nullptr);
        _exit(99);
    }
    ASSERT_TRUE(eventually([&] {
        char name[64] = {};
        std::ifstream("/proc/" + std::to_string(pid) + "/comm").getline(name, sizeof name);
        return strcmp(name, "sleep") == 0;
    }));
    for (const std::string &fd : open_descriptors(pid)) {
        EXPECT_EQ(before.count(fd), 1u) << "descriptor " << fd << " was inherited";
    }
    ::kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(peer.finish(), 0);
}

TEST_F(ItcSystem, ExitLeavesNoDescriptorOpen)
{
    start_registry();
    Child peer([] { return answer_once("peer"); });
    const std::set<std::string> before = open_descriptors(getpid());
    join("own");
    send_plain(await("peer"), WORK);
    EXPECT_EQ(take(receive(LAST)), LAST);
    itc_exit();
    EXPECT_EQ(open_descriptors(getpid()), before);
    EXPECT_EQ(peer.finish(), 0);
}

TEST_F(ItcSystem, TheRegistryKeepsNoDescriptorOfChannelsAndOfProcessesThatAreGone)
{
    start_registry();
    uint32_t process = 0;
    const int witness = raw_join(&process); // once it has served somebody, it has opened what it needs for itself
    const std::set<std::string> before = open_descriptors(registry);
    for (int i = 0; i < 5; i++) {
        Child a([] { return answer_once("peer"); });
        Child b([] {
            join("asker");
            send_plain(await("peer"), WORK);
            const bool answered = take(receive(LAST)) == LAST;
            itc_exit();
            return answered ? 0 : 1;
        });
        EXPECT_EQ(a.finish(), 0);
        EXPECT_EQ(b.finish(), 0);
    }
    EXPECT_TRUE(eventually([&] { return open_descriptors(registry) == before; }));
    close(witness);
}

TEST_F(ItcSystem, NoSocketHasAnAbstractName)
{
    start_registry();
    Child peer([] { return answer_once("peer"); });
    join("own");
    send_plain(await("peer"), WORK);
    EXPECT_EQ(take(receive(LAST)), LAST);
    std::ifstream sockets("/proc/net/unix");
    std::string line;
    while (std::getline(sockets, line)) {
        EXPECT_EQ(line.find("@kap"), std::string::npos) << line;
        EXPECT_EQ(line.find("@itc"), std::string::npos) << line;
    }
    EXPECT_EQ(peer.finish(), 0);
}

// ---- Policy
// ----------------------------------------------------------------------------------------------------------

TEST_F(ItcSystem, TheSocketIsClosedToOthersByItsMode)
{
    start_registry();
    struct stat there {
    };
    ASSERT_EQ(stat("/run/kap-itc/itcd.sock", &there), 0);
    EXPECT_EQ(there.st_mode & 0777, 0660u);
    Child stranger([] {
        become(nobody);
        return itc_init(1, 0, nullptr, nullptr, 0) == EACCES ? 0 : 1;
    });
    EXPECT_EQ(stranger.finish(), 0);
}

TEST_F(ItcSystem, AUserWhomThePolicyDoesNotAdmitIsRefusedWithEacces)
{
    start_registry();
    ASSERT_EQ(chmod("/run/kap-itc/itcd.sock", 0666), 0); // the registry itself has to refuse now
    Child stranger([] {
        become(nobody);
        return itc_init(1, 0, nullptr, nullptr, 0) == EACCES ? 0 : 1;
    });
    EXPECT_EQ(stranger.finish(), 0);
    EXPECT_NE(registry_says().find("itcd: user 65534 may not connect\n"), std::string::npos);
    EXPECT_NE(join("own"), ITC_NO_MBOX);
}

TEST_F(ItcSystem, AMemberOfTheRegistrysGroupMayConnect)
{
    start_registry();
    Child member([] {
        const gid_t root_group = 0;
        if (setgid(nobody) != 0 || setgroups(1, &root_group) != 0 || setuid(nobody) != 0) {
            return 97;
        }
        return itc_init(1, 0, nullptr, nullptr, 0);
    });
    EXPECT_EQ(member.finish(), 0);
}

TEST_F(ItcSystem, AUserWhoIsAllowedByOptionMayConnectAndClaimAnyFreeName)
{
    start_registry({"--allow-user", "nobody"});
    Child allowed([] {
        become(nobody);
        return itc_init(1, 0, nullptr, nullptr, 0) == 0 && itc_create_mailbox("free", 0) != ITC_NO_MBOX ? 0 : 1;
    });
    EXPECT_EQ(allowed.finish(), 0);
    Child other([] {
        become(nobody - 1);
        return itc_init(1, 0, nullptr, nullptr, 0) == EACCES ? 0 : 1;
    });
    EXPECT_EQ(other.finish(), 0);
}

TEST_F(ItcSystem, AReservedNameIsItsUsersAlone)
{
    start_registry({"--allow-user", "nobody", "--reserve", "kap-=root", "--reserve", "guest-=nobody"});
    Child guest([] {
        become(nobody);
        if (itc_init(4, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox("kap-vorn", 0) != ITC_NO_MBOX) {
            return 1;
        }
        const uint32_t own = itc_create_mailbox("guest-1", 0);
        return own != ITC_NO_MBOX && itc_add_name(own, "kap-vorn") == EACCES && itc_add_name(own, "kap") == 0 ? 0 : 2;
    });
    EXPECT_EQ(guest.finish(), 0);
    join("kap-vorn");
    EXPECT_NE(itc_create_mailbox("guest-2", 0), ITC_NO_MBOX); // root may do it too
}

// ---- Mailbox ids
// -----------------------------------------------------------------------------------------------------

TEST_F(ItcSystem, ABoxThatWasDeletedIsNotGivenAgain)
{
    start_registry();
    uint32_t process = 0;
    const int fd = raw_join(&process);
    const uint32_t mbox = raw_create(fd, process, "first");
    write_all(fd, frame(itc_wire::delete_box, 78, words({mbox})));
    EXPECT_EQ(read_frame(fd), frame(RESULT, 78, words({0})));
    write_all(fd, frame(CREATE, 79, word_and_text(mbox, "second")));
    EXPECT_EQ(read_frame(fd), frame(RESULT, 79, words({EAGAIN})));
    write_all(fd, frame(CREATE, 80, word_and_text(mbox + 1, "second")));
    EXPECT_EQ(read_frame(fd), frame(RESULT, 80, words({0})));
    close(fd);
}

TEST_F(ItcSystem, AProcessThatMakesMailboxesAllDayGetsNoIdTwice)
{
    start_registry();
    join("own");
    std::set<uint32_t> seen{itc_current_mbox()};
    for (uint32_t i = 1; i < itc_wire::box_limit; i++) {
        const uint32_t mbox = itc_create_mailbox("other", 0);
        ASSERT_NE(mbox, ITC_NO_MBOX) << i;
        ASSERT_TRUE(seen.insert(mbox).second) << i;
        ASSERT_EQ(itc_delete_mailbox(mbox), 0);
    }
    EXPECT_EQ(itc_create_mailbox("other", 0), ITC_NO_MBOX);
}

TEST_F(ItcSystem, ANameThatIsRefusedUsesUpNoId)
{
    start_registry();
    join("own");
    for (uint32_t i = 0; i < 2 * itc_wire::box_limit; i++) {
        ASSERT_EQ(itc_create_mailbox("own", 0), ITC_NO_MBOX);
    }
    EXPECT_NE(itc_create_mailbox("other", 0), ITC_NO_MBOX);
}

// ---- Hostility
// -------------------------------------------------------------------------------------------------------

TEST_F(ItcSystem, BytesThatMakeNoSenseCostTheirSenderTheConnectionAndNobodyElseAnything)
{
    start_registry();
    const uint32_t own = join("own");
    const Bytes hello = frame(HELLO, 0, words({1}));
    const auto after_hello = [&](const Bytes &more) {
        Bytes b = hello;
        b.insert(b.end(), more.begin(), more.end());
        return b;
    };
    Bytes text_too_long = word_and_text(0x1005, "name");
    text_too_long[4] = 0xFF; // says 255 bytes, has 4
    Bytes zero_in_text = word_and_text(0x1005, std::string("na\0me", 5));
    const std::vector<Bytes> attacks = {
        Bytes(64, 0xFF),                                // a length of 4 GiB
        Bytes(64, 0x00),                                // a length of 0
        words({11, 1, 0}),                              // shorter than its own head
        words({1025, 1, 0}),                            // longer than any frame
        frame(LOCATE, 1, word_and_text(0, "no hello")), // not a hello first
        frame(HELLO, 0, {}),                            // too short
        frame(HELLO, 0, words({1, 2})),                 // too long
        frame(HELLO, 0, words({99})),                   // another version
        after_hello(hello),                             // hello twice
        after_hello(frame(9999, 1, {})),                // no such type
        after_hello(frame(RESULT, 1, words({0}))),      // the registry's own
        after_hello(frame(CREATE, 1, {})),              // no fields
        after_hello(frame(CREATE, 1, text_too_long)),   // a text beyond the frame
        after_hello(frame(CREATE, 1, zero_in_text)),    // a zero byte in a name
        after_hello(frame(MONITOR, 1, Bytes{1, 2, 3})), // three bytes of four
        after_hello(frame(MONITOR, 1, words({1, 2}))),  // a field too many
        after_hello(frame(14, 1, words({0x1005, 1}))),  // a subscription without texts
    };
    for (size_t i = 0; i < attacks.size(); i++) {
        const int fd = raw_connect();
        ASSERT_GE(fd, 0);
        write_all(fd, attacks[i]);
        const bool welcomed = i >= 8;
        if (welcomed) {
            EXPECT_EQ(read_frame(fd).size(), 16u) << i;
        }
        EXPECT_TRUE(ended(fd)) << i;
        close(fd);
        EXPECT_EQ(itc_locate("own"), own) << i;
    }
}

TEST_F(ItcSystem, AFrameThatComesByteByByteIsTakenWhenItIsWhole)
{
    start_registry();
    const uint32_t own = join("own");
    uint32_t process = 0;
    const int fd = raw_join(&process);
    Bytes name;
    put_text(name, "own");
    for (const uint8_t byte : frame(LOCATE, 9, name)) {
        write_all(fd, {byte});
        EXPECT_EQ(itc_locate("own"), own); // others are served in between
    }
    EXPECT_EQ(word_at(read_frame(fd), 4), CHANNEL);
    EXPECT_EQ(read_frame(fd), frame(LOCATED, 9, words({own})));
    close(fd);
}

TEST_F(ItcSystem, AClientThatDoesNotReadItsAnswersIsDisconnectedAndHoldsUpNobody)
{
    start_registry();
    const uint32_t own = join("own");
    uint32_t process = 0;
    const int fd = raw_join(&process);
    Bytes name;
    put_text(name, "nobody");
    Bytes many;
    for (int i = 0; i < 100; i++) {
        const Bytes one = frame(LOCATE, 1, name);
        many.insert(many.end(), one.begin(), one.end());
    }
    bool alive = true;
    for (int i = 0; i < 100000 && alive; i++) {
        alive = send(fd, many.data(), many.size(), MSG_NOSIGNAL) > 0;
        if (i % 200 == 0) {
            EXPECT_EQ(itc_locate("own"), own);
        }
    }
    EXPECT_FALSE(alive);
    EXPECT_EQ(itc_locate("own"), own);
    EXPECT_NE(registry_says().find("does not read its answers"), std::string::npos);
    close(fd);
}

TEST_F(ItcSystem, AClientCannotSpeakForMailboxesOfOthers)
{
    start_registry();
    const uint32_t own = join("own");
    uint32_t process = 0;
    const int fd = raw_join(&process);
    write_all(fd, frame(CREATE, 1, word_and_text(own, "mine")));
    EXPECT_EQ(read_frame(fd), frame(RESULT, 1, words({EINVAL})));
    write_all(fd, frame(CREATE, 2, word_and_text(own + 1, "mine")));
    EXPECT_EQ(read_frame(fd), frame(RESULT, 2, words({EINVAL})));
    write_all(fd, frame(3, 3, words({own})));
    EXPECT_EQ(read_frame(fd), frame(RESULT, 3, words({EINVAL})));
    write_all(fd, frame(4, 4, word_and_text(own, "mine")));
    EXPECT_EQ(read_frame(fd), frame(RESULT, 4, words({EINVAL})));
    Bytes service = words({own});
    for (const char *text : {"service", "", ""}) {
        put_text(service, text);
    }
    write_all(fd, frame(12, 5, service));
    EXPECT_EQ(read_frame(fd), frame(RESULT, 5, words({EINVAL})));
    EXPECT_EQ(itc_locate("own"), own);
    EXPECT_EQ(itc_locate("mine"), ITC_NO_MBOX);
    close(fd);
}

TEST_F(ItcSystem, DescriptorsSentToTheRegistryAreNotKept)
{
    start_registry();
    const uint32_t own = join("own");
    uint32_t process = 0;
    const int fd = raw_join(&process);
    const size_t before = open_descriptors(registry).size();
    Bytes name;
    put_text(name, "nobody");
    for (int i = 0; i < 50; i++) {
        Bytes request = frame(LOCATE, 1, name);
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        iovec part{request.data(), request.size()};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(rights), &fd, sizeof(int));
        ASSERT_GT(sendmsg(fd, &message, MSG_NOSIGNAL), 0);
        EXPECT_EQ(read_frame(fd), frame(LOCATED, 1, words({ITC_NO_MBOX})));
    }
    EXPECT_EQ(open_descriptors(registry).size(), before);
    EXPECT_EQ(itc_locate("own"), own);
    close(fd);
}

TEST_F(ItcSystem, TheSenderIsTheProcessAtTheOtherEndWhateverTheBytesSay)
{
    start_registry();
    const uint32_t own = join("own");
    uint32_t process = 0;
    const int fd = raw_join(&process);
    const int channel = raw_channel(fd, own);
    const auto box = static_cast<uint16_t>(own & 0xFFF);
    for (const auto &[from, sender] : std::vector<std::pair<uint16_t, uint32_t>>{
             {5, process << 12 | 5}, {0xFFF, process << 12 | 0xFFF}, {0x1000, ITC_NO_MBOX}, {0xFFFF, ITC_NO_MBOX}}) {
        write_all(channel, message_frame(4, box, from, words({WORK})));
        itc_msg *msg = receive_any();
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(itc_sender(msg), sender) << from;
        EXPECT_EQ(take(msg), WORK);
    }
    close(channel);
    close(fd);
}

TEST_F(ItcSystem, AMessageForABoxThatDoesNotExistIsDroppedAndTheNextOneArrives)
{
    start_registry();
    const uint32_t own = join("own");
    uint32_t process = 0;
    const int fd = raw_join(&process);
    const int channel = raw_channel(fd, own);
    itc_statistics before{};
    itc_get_statistics(&before);
    write_all(channel, message_frame(4, 0xFFF, 1, words({LAST})));
    write_all(channel, message_frame(4, 0xFFFF, 1, words({LAST})));
    write_all(channel, message_frame(4, static_cast<uint16_t>(own & 0xFFF), 1, words({WORK})));
    EXPECT_EQ(take(receive_any()), WORK);
    itc_statistics after{};
    itc_get_statistics(&after);
    EXPECT_EQ(after.dropped_no_mailbox - before.dropped_no_mailbox, 2u);
    close(channel);
    close(fd);
}

TEST_F(ItcSystem, ABrokenFrameOnAChannelClosesThatChannelAndNothingElse)
{
    start_registry();
    Child good([] { return answer_once("good"); });
    const uint32_t own = join("own");
    const uint32_t friendly = await("good");
    const auto box = static_cast<uint16_t>(own & 0xFFF);
    for (const uint32_t length : {0u, 3u, (1u << 30) + 1, 0xFFFFFFFFu}) {
        uint32_t process = 0;
        const int fd = raw_join(&process);
        const int channel = raw_channel(fd, own);
        write_all(channel, message_frame(4, box, 1, words({WORK})));
        write_all(channel, message_frame(length, box, 1, Bytes(100, 0xEE)));
        EXPECT_EQ(take(receive_any()), WORK); // what came before the broken frame counts
        EXPECT_EQ(itc_receive(nullptr, 20, ITC_FROM_ANY), nullptr);
        EXPECT_TRUE(ended(channel)) << length;
        close(channel);
        close(fd);
    }
    send_plain(friendly, WORK);
    EXPECT_EQ(take(receive(LAST)), LAST);
    EXPECT_EQ(good.finish(), 0);
}

size_t resident_kilobytes()
{
    std::ifstream status("/proc/self/status");
    std::string word;
    size_t kilobytes = 0;
    while (status >> word) {
        if (word == "VmRSS:") {
            status >> kilobytes;
        }
    }
    return kilobytes;
}

TEST_F(ItcSystem, ALengthAloneTakesNoMemory)
{
    start_registry();
    const uint32_t own = join("own");
    uint32_t process = 0;
    const int fd = raw_join(&process);
    const int channel = raw_channel(fd, own);
    const size_t before = resident_kilobytes();
    write_all(channel, message_frame(1u << 30, static_cast<uint16_t>(own & 0xFFF), 1, Bytes(10, 0xEE)));
    EXPECT_EQ(itc_receive(nullptr, 50, ITC_FROM_ANY), nullptr);
    EXPECT_LT(resident_kilobytes(), before + 10000);
    close(channel);
    EXPECT_EQ(itc_receive(nullptr, 20, ITC_FROM_ANY), nullptr);
    close(fd);
}

TEST_F(ItcSystem, AProcessThatClosedItsChannelIsIntroducedAnewOnTheNextMessage)
{
    start_registry();
    const uint32_t own = join("own");
    uint32_t process = 0;
    const int fd = raw_join(&process);
    const uint32_t remote = raw_create(fd, process, "remote");
    const int channel = raw_channel(fd, own);
    const uint32_t number = 1;
    close(channel);
    write_all(fd, frame(11, 0, words({own >> 12, number})));
    EXPECT_EQ(itc_receive(nullptr, 30, ITC_FROM_ANY), nullptr); // sees the end of the first
    send_plain(remote, WORK);
    EXPECT_EQ(itc_receive(nullptr, 30, ITC_FROM_ANY), nullptr);
    int second = -1;
    EXPECT_EQ(word_at(read_frame(fd, &second), 4), CHANNEL);
    ASSERT_GE(second, 0);
    Bytes got(12);
    EXPECT_EQ(recv(second, got.data(), got.size(), MSG_WAITALL), 12);
    EXPECT_EQ(got, message_frame(4, 5, static_cast<uint16_t>(own & 0xFFF), words({WORK})));
    close(second);
    close(fd);
}

TEST_F(ItcSystem, AProcessWithoutADescriptorLeftDropsMessagesAndGoesOn)
{
    start_registry();
    Child peer([] {
        join("peer");
        const bool asked = take(receive(WORK)) == WORK;
        itc_exit();
        return asked ? 0 : 1;
    });
    Child poor([] {
        const uint32_t own = join("poor");
        std::vector<int> all;
        for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;) {
            all.push_back(fd);
        }
        const uint32_t to = await("peer"); // there is no room for the channel that comes first
        send_plain(own, LAST);
        const bool alive = to != ITC_NO_MBOX && take(receive(LAST)) == LAST;
        for (const int fd : all) {
            close(fd);
        }
        send_plain(to, WORK); // and now there is
        itc_exit();
        return alive ? 0 : 1;
    });
    EXPECT_EQ(poor.finish(), 0);
    EXPECT_EQ(peer.finish(), 0);
}

TEST_F(ItcSystem, ADeathIsToldToEverybodyWhoMonitors)
{
    start_registry();
    uint32_t process = 0;
    const int fd = raw_join(&process);
    const uint32_t victim = raw_create(fd, process, "victim");
    join("own");
    std::set<uint32_t> ids;
    for (int i = 0; i < 3; i++) {
        itc_msg *down = itc_alloc(4, GONE);
        ids.insert(itc_monitor(victim, &down));
    }
    EXPECT_EQ(ids.size(), 3u);
    EXPECT_EQ(itc_locate("victim"), victim); // the monitors are known by now
    close(fd);
    for (int i = 0; i < 3; i++) {
        itc_msg *msg = receive_any();
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(itc_sender(msg), victim);
        EXPECT_EQ(take(msg), GONE);
    }
}

TEST_F(ItcSystem, AProcessNumberIsNotUsedAgainSoon)
{
    start_registry();
    std::set<uint32_t> seen;
    for (int i = 0; i < 200; i++) {
        uint32_t process = 0;
        const int fd = raw_join(&process);
        EXPECT_TRUE(seen.insert(process).second);
        close(fd);
    }
}

TEST_F(ItcSystem, ANameThatIsAwaitedTwiceUnderOneTokenEndsTheConnection)
{
    start_registry();
    uint32_t process = 0;
    const int fd = raw_join(&process);
    Bytes name;
    put_text(name, "nobody");
    write_all(fd, frame(AWAIT, 4, name));
    write_all(fd, frame(AWAIT, 4, name));
    EXPECT_TRUE(ended(fd));
    close(fd);
}

TEST_F(ItcSystem, WhenItHasNoDescriptorLeftANewcomerIsTurnedAwayAndTheOthersAreServed)
{
    start_registry();
    const uint32_t own = join("own");
    const rlimit few{24, 24};
    ASSERT_EQ(prlimit(registry, RLIMIT_NOFILE, &few, nullptr), 0);
    std::vector<int> taken;
    bool refused = false;
    while (!refused && taken.size() < 40) {
        const int fd = raw_connect();
        ASSERT_GE(fd, 0);
        write_all(fd, frame(HELLO, 0, words({1})));
        taken.push_back(fd);
        refused = read_frame(fd) == frame(REFUSED, 0, words({EAGAIN}));
    }
    EXPECT_TRUE(refused);
    EXPECT_TRUE(eventually([&] {
        return registry_says().find("itcd: too many processes of user 0, one turned away\n") != std::string::npos;
    }));
    EXPECT_EQ(itc_locate("own"), own);
    for (const int fd : taken) {
        close(fd);
    }
    EXPECT_TRUE(eventually([&] {
        const int fd = raw_connect();
        write_all(fd, frame(HELLO, 0, words({1})));
        const bool welcome = word_at(read_frame(fd), 4) == WELCOME;
        close(fd);
        return welcome;
    }));
}

} // namespace
