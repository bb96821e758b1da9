// Programs that are told of changes (notify.hpp).
#include "notify.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <sstream>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace linkd
{

namespace
{

constexpr int64_t MILLISECONDS = 1000;
constexpr int64_t GRACE_MS = 2000; // between SIGTERM and SIGKILL
constexpr int64_t SUMMED_UP_EVERY_MS = 3600 * MILLISECONDS;
constexpr size_t MOST_SAID = 4096; // of what a program writes
constexpr size_t LONGEST_LINE = 512;
constexpr int MOST_SYMLINKS = 40;

bool is_name(const char *name)
{
    return *name != '\0' && std::all_of(name, name + strlen(name), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
    });
}

// Why that is not for us to run; empty: nothing is wrong.
std::string wrong_with(const struct stat &file)
{
    if (file.st_uid != 0) {
        return "it is not root's";
    }
    if ((file.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return "others than root may write it";
    }
    return "";
}

std::deque<std::string> parts_of(const std::string &path)
{
    std::deque<std::string> parts;
    std::istringstream text(path);
    for (std::string part; std::getline(text, part, '/');) {
        if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
    }
    return parts;
}

// What keeps it from being root alone who says what is at the end of that path; empty: nothing. Symbolic links are
// followed as the kernel does it.
std::string wrong_on_the_way_to(const std::string &path)
{
    std::deque<std::string> rest = parts_of(path);
    std::string at; // without a link in it
    int links = 0;
    for (;;) {
        struct stat file = {};
        const std::string shown = at.empty() ? "/" : at;
        if (lstat(shown.c_str(), &file) != 0) {
            return shown + ": " + strerror(errno);
        }
        if (S_ISLNK(file.st_mode)) {
            std::error_code error;
            const std::string target = std::filesystem::read_symlink(at, error);
            if (error || ++links > MOST_SYMLINKS || file.st_uid != 0) {
                return shown + " is a link that is not followed";
            }
            const auto more = parts_of(target);
            rest.insert(rest.begin(), more.begin(), more.end());
            at = target.starts_with('/') ? "" : at.substr(0, at.rfind('/'));
            continue;
        }
        const bool sticky = (file.st_mode & S_ISVTX) != 0;
        if (file.st_uid != 0 || (!sticky && (file.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
            return shown + " is not root's alone";
        }
        if (rest.empty()) {
            return "";
        }
        at = rest.front() == ".." ? at.substr(0, at.empty() ? 0 : at.rfind('/')) : at + "/" + rest.front();
        rest.pop_front();
    }
}

// A value has no end of a string within.
std::string variable(const char *name, const std::string &value)
{
    return std::string(name) + "=" + value.substr(0, value.find('\0'));
}

} // namespace

std::vector<std::string> environment_of(const notice &of)
{
    const link_change &change = of.change;
    return {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
            "LANG=C.UTF-8",
            variable("KAP_EVENT", of.event),
            variable("KAP_ID", std::to_string(change.id)),
            variable("KAP_AT_US", std::to_string(change.at_us)),
            variable("KAP_LINK", change.link.name),
            variable("KAP_PORT", change.link.port),
            variable("KAP_VLAN", std::to_string(change.link.vlan)),
            variable("KAP_FAR", change.link.far),
            variable("KAP_FROM", name_of(change.from)),
            variable("KAP_STATE", name_of(change.to)),
            variable("KAP_REASON", change.reason),
            variable("KAP_LASTED_US", std::to_string(change.lasted_us)),
            variable("KAP_HELD", std::to_string(of.held)),
            variable("KAP_DROPPED", std::to_string(of.dropped))};
}

std::string json_text_of(const notice &of)
{
    nlohmann::json all = json_of(of.change);
    all["event"] = of.event;
    all["held"] = of.held;
    all["dropped"] = of.dropped;
    return all.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

notifier::notifier(loop &turns, notify_settings wanted) : turns_(turns), settings_(std::move(wanted)) {}

notifier::~notifier()
{
    for (auto &[link, of] : lines_) {
        turns_.cancel(of.timer);
        if (of.child != 0) {
            turns_.forget(of.child_fd);
            (void)kill(-of.child, SIGKILL);
            (void)waitpid(of.child, nullptr, 0);
            close(of.child_fd);
            close_output(of);
        }
    }
    for (auto &[link, of] : holdings_) {
        turns_.cancel(of.timer);
    }
}

void notifier::say(const std::string &what) const
{
    if (settings_.say) {
        settings_.say(what);
    }
}

notifier::figures notifier::look() const
{
    figures now = figures_;
    now.waiting = waiting_;
    now.links = lines_.size();
    return now;
}

// ---- Which notices there are

void notifier::changed(const link_change &change)
{
    if (!settings_.directory.empty() && !hold(change)) {
        notice what;
        what.change = change;
        queue(std::move(what));
    }
}

// Whether the change is told by another notice than its own.
bool notifier::hold(const link_change &change)
{
    if (settings_.hold_down_s == 0) {
        return false;
    }
    const int64_t now_ms = boot_ms();
    holding &of = holdings_[change.link.name];
    const int64_t calm_ms = settings_.hold_down_s * MILLISECONDS;
    if (of.held) {
        of.changes++;
        of.last = change;
        figures_.held++;
        if (now_ms - of.since_ms >= SUMMED_UP_EVERY_MS) {
            queue({of.last, "summary", std::exchange(of.changes, 0), 0});
            of.since_ms = now_ms;
        }
    } else {
        of.recent_ms.push_back(now_ms);
        while (of.recent_ms.front() <= now_ms - settings_.flap_seconds * MILLISECONDS) {
            of.recent_ms.pop_front();
        }
        if (of.recent_ms.size() > settings_.flap_changes) {
            of.held = true;
            of.changes = 0;
            of.since_ms = now_ms;
            of.last = change;
            of.recent_ms.clear();
            queue({change, "flapping", 0, 0});
        }
    }
    turns_.cancel(of.timer);
    // It also forgets the link when nothing comes of it any more.
    of.timer = turns_.after(of.held ? calm_ms : settings_.flap_seconds * MILLISECONDS + 1,
                            [this, link = change.link.name] { calm(link); });
    return of.held;
}

void notifier::calm(const std::string &link)
{
    const auto at = holdings_.find(link);
    const holding of = std::move(at->second);
    holdings_.erase(at);
    if (of.held) {
        queue({of.last, "summary", of.changes, 0});
    }
}

void notifier::queue(notice what)
{
    const std::string link = what.change.link.name;
    line &of = lines_[link];
    const auto drop = [this](line &from) {
        from.waiting.pop_front();
        from.dropped++;
        waiting_--;
        figures_.dropped++;
    };
    if (of.waiting.size() >= settings_.waiting_of_a_link) {
        drop(of);
    } else if (waiting_ >= settings_.waiting) { // whoever waits for most gives
        const auto most = std::max_element(lines_.begin(), lines_.end(), [](const auto &a, const auto &b) {
            return a.second.waiting.size() < b.second.waiting.size();
        });
        if (!most->second.waiting.empty()) {
            drop(most->second);
        }
    }
    of.gone = what.change.to == link_state::gone;
    of.waiting.push_back(std::move(what));
    waiting_++;
    if (!of.busy()) {
        want_turn(link, of);
    }
    run_ready();
}

// ---- Whose turn it is

void notifier::want_turn(const std::string &link, line &of)
{
    if (!of.ready) {
        of.ready = true;
        ready_.push_back(link);
    }
}

void notifier::run_ready()
{
    while (figures_.running < settings_.programs_at_once && !ready_.empty()) {
        const std::string link = std::move(ready_.front());
        ready_.pop_front();
        const auto at = lines_.find(link);
        at->second.ready = false;
        run_next(link, at->second);
    }
}

// Starts the next program of the link, if there is one.
void notifier::run_next(const std::string &link, line &of)
{
    for (;;) {
        if (of.programs.empty()) {
            if (of.waiting.empty()) {
                rest(link, of);
                return;
            }
            of.now = std::move(of.waiting.front());
            of.waiting.pop_front();
            waiting_--;
            of.now.dropped = std::exchange(of.dropped, 0);
            of.programs = programs();
            std::reverse(of.programs.begin(), of.programs.end());
            continue;
        }
        const std::string program = std::move(of.programs.back());
        of.programs.pop_back();
        if (start(link, of, program)) {
            return;
        }
    }
}

// ---- What may be run

void notifier::refuse(const std::string &path, const std::string &why)
{
    if (refused_.insert(path + why).second) {
        say(path + " is not run: " + why);
    }
}

std::vector<std::string> notifier::programs()
{
    std::vector<std::string> found;
    DIR *directory = opendir(settings_.directory.c_str());
    if (directory == nullptr) {
        if (errno != ENOENT) {
            refuse(settings_.directory, strerror(errno));
        }
        return found;
    }
    struct stat file = {};
    std::string wrong = fstat(dirfd(directory), &file) == 0 ? wrong_with(file) : strerror(errno);
    if (wrong.empty()) {
        wrong = wrong_on_the_way_to(settings_.directory);
    }
    if (!wrong.empty()) {
        refuse(settings_.directory, wrong);
        (void)closedir(directory);
        return found;
    }
    while (const dirent *entry = readdir(directory)) { // NOLINT(concurrency-mt-unsafe): the stream is ours alone
        if (!is_name(entry->d_name)) {
            continue;
        }
        const std::string path = settings_.directory + "/" + entry->d_name;
        if (fstatat(dirfd(directory), entry->d_name, &file, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        if (S_ISDIR(file.st_mode) || (S_ISREG(file.st_mode) && (file.st_mode & S_IXUSR) == 0)) {
            continue; // as others that look into such a directory
        }
        wrong = S_ISREG(file.st_mode) ? wrong_with(file) : "it is no regular file";
        if (!wrong.empty()) {
            refuse(path, wrong);
            continue;
        }
        found.push_back(path);
    }
    (void)closedir(directory);
    std::sort(found.begin(), found.end());
    return found;
}

// ---- Started and ended

bool notifier::start(const std::string &link, line &of, const std::string &program)
{
    // A file in memory: who does not read it holds up nobody.
    const std::string text = json_text_of(of.now);
    const int input = memfd_create("change", MFD_CLOEXEC);
    if (input < 0 || write(input, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        lseek(input, 0, SEEK_SET) != 0) {
        say(program + ": no memory for what it reads");
        if (input >= 0) {
            close(input);
        }
        figures_.failed++;
        return false;
    }
    int output[2] = {-1, -1};
    if (pipe2(output, O_CLOEXEC) != 0 || fcntl(output[0], F_SETFL, O_NONBLOCK) != 0) {
        say(program + ": nothing to write to: " + strerror(errno));
        for (const int fd : {input, output[0], output[1]}) {
            if (fd >= 0) {
                close(fd);
            }
        }
        figures_.failed++;
        return false;
    }
    std::vector<std::string> variables = environment_of(of.now);
    std::vector<char *> environment;
    for (std::string &each : variables) {
        environment.push_back(each.data());
    }
    environment.push_back(nullptr);
    std::string name = program;
    char *const words[] = {name.data(), nullptr};

    posix_spawn_file_actions_t files;
    posix_spawnattr_t how;
    (void)posix_spawn_file_actions_init(&files);
    (void)posix_spawnattr_init(&how);
    (void)posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
    (void)posix_spawn_file_actions_adddup2(&files, output[1], STDOUT_FILENO);
    (void)posix_spawn_file_actions_adddup2(&files, output[1], STDERR_FILENO);
    (void)posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
    (void)posix_spawn_file_actions_addchdir_np(&files, "/");
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    (void)posix_spawnattr_setsigmask(&how, &none);
    (void)posix_spawnattr_setsigdefault(&how, &all);
    (void)posix_spawnattr_setpgroup(&how, 0);
    (void)posix_spawnattr_setflags(&how, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t child = 0;
    const int error = posix_spawn(&child, program.c_str(), &files, &how, words, environment.data());
    (void)posix_spawnattr_destroy(&how);
    (void)posix_spawn_file_actions_destroy(&files);
    close(input);
    close(output[1]);
    if (error != 0) {
        say(program + " cannot be run: " + strerror(error));
        close(output[0]);
        figures_.failed++;
        return false;
    }
    figures_.started++;
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    if (fd < 0) { // nobody would hear of its end
        say(program + " is ended: " + strerror(errno));
        (void)kill(-child, SIGKILL);
        (void)waitpid(child, nullptr, 0);
        close(output[0]);
        figures_.failed++;
        return false;
    }
    of.program = program;
    of.output = output[0];
    of.written.clear();
    of.said = 0;
    turns_.watch(of.output, EPOLLIN, [this, link](uint32_t) { read_output(lines_.at(link)); });
    of.child = child;
    of.child_fd = fd;
    figures_.running++;
    turns_.watch(fd, EPOLLIN, [this, link](uint32_t) { ended(link); });
    of.timer = turns_.after(settings_.seconds * MILLISECONDS, [this, link] { end_slowly(link, false); });
    return true;
}

// ---- What a program writes

// One line of words, whatever it is.
void notifier::say_output(line &of, const std::string &text)
{
    std::string words = text.substr(0, LONGEST_LINE);
    std::replace_if(
        words.begin(), words.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
    if (of.said < MOST_SAID) {
        say(of.program + ": " + words);
        of.said += text.size() + 1;
        if (of.said >= MOST_SAID) {
            say(of.program + ": and more, which is not shown");
        }
    }
}

// Never more than a pipe's worth at a turn.
void notifier::read_output(line &of)
{
    constexpr int TIMES = 16;
    char part[4096];
    for (int i = 0; i < TIMES && of.output >= 0; i++) {
        const ssize_t got = read(of.output, part, sizeof part);
        if (got < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                close_output(of);
            }
            return;
        }
        if (got == 0) {
            close_output(of);
            return;
        }
        if (of.said >= MOST_SAID) {
            continue; // read, so that it does not wait for anybody
        }
        of.written.append(part, static_cast<size_t>(got));
        size_t begin = 0;
        for (size_t end = 0; (end = of.written.find('\n', begin)) != std::string::npos; begin = end + 1) {
            say_output(of, of.written.substr(begin, end - begin));
        }
        of.written.erase(0, begin);
        if (of.written.size() > MOST_SAID) {
            say_output(of, std::exchange(of.written, ""));
        }
    }
}

void notifier::close_output(line &of)
{
    if (of.output < 0) {
        return;
    }
    turns_.forget(of.output);
    close(of.output);
    of.output = -1;
    if (!of.written.empty()) {
        say_output(of, std::exchange(of.written, ""));
    }
}

// ---- Its end

void notifier::end_slowly(const std::string &link, bool hard)
{
    line &of = lines_.at(link);
    (void)kill(-of.child, hard ? SIGKILL : SIGTERM);
    if (!hard) {
        figures_.ended++;
        say("a program of " + settings_.directory + " for " + link + " took longer than " +
            std::to_string(settings_.seconds) + " s and is ended");
    }
    of.timer = hard ? 0 : turns_.after(GRACE_MS, [this, link] { end_slowly(link, true); });
}

void notifier::ended(const std::string &link)
{
    line &of = lines_.at(link);
    // As long as it is not waited for, no other group can have its number.
    siginfo_t how = {};
    if (waitid(P_PID, static_cast<id_t>(of.child), &how, WEXITED | WNOWAIT | WNOHANG) != 0 || how.si_pid == 0) {
        return; // what was told was of a descriptor that had its number before
    }
    turns_.forget(of.child_fd);
    turns_.cancel(of.timer);
    of.timer = 0;
    (void)kill(-of.child, SIGKILL);
    (void)waitpid(of.child, nullptr, 0);
    close(of.child_fd);
    read_output(of);
    close_output(of);
    if (how.si_code != CLD_EXITED || how.si_status != 0) {
        figures_.failed++;
    }
    of.child = 0;
    of.child_fd = -1;
    figures_.running--;
    if (!of.programs.empty() || !of.waiting.empty()) {
        want_turn(link, of);
    } else {
        rest(link, of);
    }
    run_ready();
}

// A link that has nothing more to be told is forgotten; but not how many of its notices were dropped, as long as
// there is another one to say it.
void notifier::rest(const std::string &link, const line &of)
{
    if (of.dropped == 0 || of.gone) {
        lines_.erase(link);
    }
}

} // namespace linkd
