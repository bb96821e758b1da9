// The writer of lines, on a stderr of every kind that takes nothing, takes a part, is gone, or belongs to another user.
#include "line.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace
{

constexpr int SECONDS_TO_LIVE = 20; // of a child that hangs

void tell(line::text &t, uint64_t lost, const void *) { line::append(t, "%u lost", static_cast<unsigned>(lost)); }

bool say(line::writer &w, const std::string &what, line::when_lost lost = line::when_lost::COUNT)
{
    line::text t;
    line::append(t, "%s", what.c_str());
    line::end(t);
    return line::put(w, t, tell, nullptr, lost);
}

// A process whose stderr is `fd`; 0 when `body` held. One that hangs or is ended by a signal gives another number.
int status_with_stderr(int fd, const std::function<bool()> &body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(SECONDS_TO_LIVE);
        if (fd >= 0) {
            dup2(fd, STDERR_FILENO);
        } else {
            close(STDERR_FILENO);
        }
        _exit(body() ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// A terminal passes on what was written in its own time: that nothing comes is known only after a while.
int patience_ms(int fd) { return isatty(fd) != 0 ? 200 : 0; }

// What is there to read.
std::string read_now(int fd)
{
    std::string text;
    char bytes[4096];
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, patience_ms(fd)) == 1 && (p.revents & POLLIN) != 0) {
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got <= 0) {
            break;
        }
        text.append(bytes, static_cast<size_t>(got));
    }
    return text;
}

void fill(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    const std::string noise(4096, '-');
    pollfd p{fd, POLLOUT, 0};
    do {
        for (const size_t size : {noise.size(), size_t{1}}) {
            while (write(fd, noise.data(), size) > 0) {
            }
        }
    } while (poll(&p, 1, patience_ms(fd)) == 1);
    fcntl(fd, F_SETFL, flags);
}

struct channel_ends {
    int reader = -1;
    int writer = -1;
};

channel_ends make_pipe()
{
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    return {ends[0], ends[1]};
}

channel_ends make_socket()
{
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    return {ends[0], ends[1]};
}

// A terminal without any treatment of what is written to it.
channel_ends make_terminal()
{
    const int reader = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_TRUE(reader >= 0 && grantpt(reader) == 0 && unlockpt(reader) == 0);
    const int writer = open(ptsname(reader), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    EXPECT_EQ(tcgetattr(writer, &settings), 0);
    cfmakeraw(&settings);
    EXPECT_EQ(tcsetattr(writer, TCSANOW, &settings), 0);
    return {reader, writer};
}

void close_both(const channel_ends &ends)
{
    close(ends.reader);
    close(ends.writer);
}

// Loses lines while the channel is full, then tells how many when it has been emptied.
bool loses_and_tells(line::writer &w, const channel_ends &ends)
{
    fill(ends.writer);
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    for (int i = 0; i < 3; ++i) {
        if (say(w, "not taken")) {
            return false;
        }
    }
    (void)read_now(ends.reader);
    const bool taken = say(w, "taken");
    const std::string said = read_now(ends.reader);
    return taken && said == "3 lost\ntaken\n" && fcntl(STDERR_FILENO, F_GETFL) == flags && w.lost == 0;
}

TEST(Line, AFullChannelLosesLinesAndTheNextOneThatIsTakenTellsHowMany)
{
    for (const bool opened : {true, false}) {
        for (const auto make : {make_pipe, make_socket, make_terminal}) {
            const channel_ends ends = make();
            EXPECT_EQ(status_with_stderr(ends.writer,
                                         [&] {
                                             line::writer w;
                                             if (opened) {
                                                 line::open(w);
                                             }
                                             return loses_and_tells(w, ends);
                                         }),
                      0);
            close_both(ends);
        }
    }
}

TEST(Line, AChannelThatMayNotBeOpenedAgainLosesLinesAndTellsToo)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root: the channel is another user's";
    }
    for (const auto make : {make_pipe, make_terminal}) {
        const channel_ends ends = make();
        if (make == make_terminal) {
            EXPECT_EQ(fchmod(ends.writer, 0600), 0);
        }
        EXPECT_EQ(status_with_stderr(ends.writer,
                                     [&] {
                                         constexpr uid_t nobody = 65534;
                                         line::writer w;
                                         if (setresuid(nobody, nobody, nobody) != 0) {
                                             return false;
                                         }
                                         line::open(w);
                                         return w.fd == STDERR_FILENO && loses_and_tells(w, ends);
                                     }),
                  0);
        close_both(ends);
    }
}

TEST(Line, AStoppedTerminalIsNotWaitedForAndTellsWhenItGoesOn)
{
    const channel_ends ends = make_terminal();
    EXPECT_EQ(status_with_stderr(ends.writer,
                                 [&] {
                                     line::writer w;
                                     line::open(w);
                                     tcflow(ends.writer, TCOOFF);
                                     const bool lost = !say(w, "a") && !say(w, "b");
                                     tcflow(ends.writer, TCOON);
                                     return lost && say(w, "c") && read_now(ends.reader) == "2 lost\nc\n";
                                 }),
              0);
    close_both(ends);
}

TEST(Line, ALineOfWhichAPartWasTakenIsEndedBeforeTheNext)
{
    const channel_ends ends = make_socket();
    EXPECT_EQ(status_with_stderr(ends.writer,
                                 [&] {
                                     line::writer w;
                                     line::open(w);
                                     w.line_is_open = true;
                                     return say(w, "next") && read_now(ends.reader) == "\nnext\n" && !w.line_is_open;
                                 }),
              0);
    close_both(ends);
}

TEST(Line, NobodyAtTheOtherEndEndsNoProcessAndLeavesNoSignalBehind)
{
    for (const bool opened : {true, false}) {
        for (const auto make : {make_pipe, make_socket}) {
            EXPECT_EQ(status_with_stderr(STDERR_FILENO,
                                         [&] {
                                             const channel_ends ends = make();
                                             dup2(ends.writer, STDERR_FILENO);
                                             line::writer w;
                                             if (opened) {
                                                 line::open(w);
                                             }
                                             close(ends.reader);
                                             signal(SIGPIPE, SIG_DFL);
                                             sigset_t pending;
                                             return !say(w, "a") && !say(w, "b") && w.lost == 2 &&
                                                    sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 0;
                                         }),
                      0);
        }
    }
}

TEST(Line, ASignalThatWasPendingBeforeStaysPending)
{
    const channel_ends ends = make_pipe();
    close(ends.reader);
    EXPECT_EQ(status_with_stderr(ends.writer,
                                 [&] {
                                     sigset_t set;
                                     sigemptyset(&set);
                                     sigaddset(&set, SIGPIPE);
                                     sigprocmask(SIG_BLOCK, &set, nullptr);
                                     raise(SIGPIPE);
                                     line::writer w;
                                     sigset_t pending;
                                     return !say(w, "a") && sigpending(&pending) == 0 &&
                                            sigismember(&pending, SIGPIPE) == 1;
                                 }),
              0);
    close(ends.writer);
}

TEST(Line, AFileThatIsAsLargeAsItMayBeEndsNoProcess)
{
    char path[] = "/tmp/line_test.XXXXXX";
    const int fd = mkostemp(path, O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(status_with_stderr(fd,
                                 [] {
                                     const rlimit limit{8, 8};
                                     setrlimit(RLIMIT_FSIZE, &limit);
                                     line::writer w;
                                     line::open(w);
                                     return say(w, "1234567") && !say(w, "no room") && w.lost == 1;
                                 }),
              0);
    close(fd);
    unlink(path);
}

TEST(Line, AClosedDescriptorTakesNothingAndWhatGetsItsNumberLaterIsLeftAlone)
{
    for (const bool once : {true, false}) {
        const channel_ends ends = make_socket();
        EXPECT_EQ(status_with_stderr(-1,
                                     [&] {
                                         line::writer w;
                                         once ? line::open(w) : line::open_if_closed(w);
                                         const bool lost = !say(w, "a");
                                         dup2(ends.writer, STDERR_FILENO);
                                         return lost && !say(w, "b") && read_now(ends.reader).empty() && w.lost == 2;
                                     }),
                  0);
        close_both(ends);
    }
}

TEST(Line, AWriterThatWasNotOpenedFollowsADescriptorThatIsExchanged)
{
    const channel_ends first = make_pipe();
    const channel_ends second = make_pipe();
    EXPECT_EQ(status_with_stderr(first.writer,
                                 [&] {
                                     line::writer w;
                                     line::open_if_closed(w);
                                     const bool taken = say(w, "a");
                                     dup2(second.writer, STDERR_FILENO);
                                     return taken && say(w, "b") && read_now(first.reader) == "a\n" &&
                                            read_now(second.reader) == "b\n";
                                 }),
              0);
    close_both(first);
    close_both(second);
}

TEST(Line, ALineThatItsCallerCountsIsNotToldTwice)
{
    const channel_ends ends = make_pipe();
    EXPECT_EQ(status_with_stderr(ends.writer,
                                 [&] {
                                     fill(ends.writer);
                                     line::writer w;
                                     const bool lost = !say(w, "a", line::when_lost::CALLER_COUNTS);
                                     (void)read_now(ends.reader);
                                     return lost && say(w, "b") && read_now(ends.reader) == "b\n";
                                 }),
              0);
    close_both(ends);
}

TEST(Line, ErrnoIsTheSameAfterALineThatWasLost)
{
    const channel_ends ends = make_pipe();
    close(ends.reader);
    EXPECT_EQ(status_with_stderr(ends.writer,
                                 [] {
                                     line::writer w;
                                     errno = ERANGE;
                                     const bool lost = !say(w, "a");
                                     return lost && errno == ERANGE;
                                 }),
              0);
    close(ends.writer);
}

TEST(Line, IsOneLineWhateverTheTextHolds)
{
    const channel_ends ends = make_pipe();
    EXPECT_EQ(status_with_stderr(ends.writer,
                                 [&] {
                                     line::writer w;
                                     say(w, "a\nb\x1B[0m\x7F\n\n");
                                     say(w, std::string(2 * line::MOST_BYTES, 'x'));
                                     const std::string said = read_now(ends.reader);
                                     return said.substr(0, 9) == "a?b?[0m?\n" && said.back() == '\n' &&
                                            std::count(said.begin(), said.end(), '\n') == 2 &&
                                            said.size() <= 9 + line::MOST_BYTES;
                                 }),
              0);
    close_both(ends);
}

// Every line of several threads is either taken whole or counted, while the reader stops and goes on.
TEST(Line, OfSeveralThreadsEachIsTakenWholeOrCounted)
{
    constexpr size_t THREADS = 4;
    constexpr size_t LINES = 3000;
    const channel_ends ends = make_pipe();
    const channel_ends done = make_pipe();
    const std::string body(60, 'x');
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(SECONDS_TO_LIVE);
        close(ends.reader);
        dup2(ends.writer, STDERR_FILENO);
        line::writer w;
        line::open(w);
        std::vector<std::thread> threads;
        for (size_t t = 0; t < THREADS; ++t) {
            threads.emplace_back([&] {
                for (size_t i = 0; i < LINES; ++i) {
                    say(w, body);
                }
            });
        }
        for (std::thread &t : threads) {
            t.join();
        }
        (void)!write(done.writer, "", 1);
        pollfd room{STDERR_FILENO, POLLOUT, 0};
        while (poll(&room, 1, -1) != 1 || !say(w, "last")) {
        }
        _exit(0);
    }
    close(ends.writer);
    char byte = 0;
    ASSERT_EQ(read(done.reader, &byte, 1), 1) << "written without a reader";
    std::string said;
    char bytes[4096];
    for (ssize_t got; (got = read(ends.reader, bytes, sizeof bytes)) > 0;) {
        said.append(bytes, static_cast<size_t>(got));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    size_t taken = 0;
    size_t lost = 0;
    for (size_t from = 0, to; (to = said.find('\n', from)) != std::string::npos; from = to + 1) {
        const std::string one = said.substr(from, to - from);
        if (one == body) {
            ++taken;
        } else if (one.ends_with(" lost")) {
            lost += std::stoul(one);
        } else {
            EXPECT_EQ(one, "last");
        }
    }
    EXPECT_GT(taken, 0u);
    EXPECT_GT(lost, 0u);
    // "last" itself was lost as often as the pipe was still full when it was tried.
    EXPECT_GE(taken + lost, THREADS * LINES);
    EXPECT_TRUE(said.ends_with("last\n"));
    close(ends.reader);
    close_both(done);
}

} // namespace
