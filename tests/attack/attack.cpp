// The arena: the real node in namespaces of its own, an honest client that measures its own calls all the time, an
// attacker, and a watcher that looks at what the registry and the daemon hold. One sandbox and one row per attack.
//
//   attack [--seconds N] [--without-policy] [--logs DIR] [--list] [NAME...]
//
// Everything runs as its unit in packaging/ says: users, capabilities, limits. Attackers are other users. What is aimed
// at stands in `judge`.
#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "honest_report.hpp"
#include "itc.h"
#include "itc_wire.hpp"
#include "sandbox.hpp"
#include "stage.hpp"
#include "support/private_etc.hpp"
#include "support/unit_file.hpp"

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;
namespace fs = std::filesystem;

// The aims.
constexpr double LOCATE_MS = 20;
constexpr double REQUEST_MS = 50;
constexpr long WORST_KB = 64 * 1024;
constexpr long AFTER_KB = 4 * 1024;
constexpr double LINES_PER_SECOND = 1000; // ten kinds of line, a hundred of each

constexpr auto SETTLE_BOUND = 30s; // what a flood left in the sockets is still read
constexpr auto SAMPLE_EVERY = 10ms;
constexpr const char *REPORT_PATH = "/run/attack/honest";
constexpr const char *OPERATOR_PATH = "/run/attack/operator";

const std::vector<private_user> USERS = {
    {"kap-itc", 64001}, {"kap-vorn", 64002},  {"kap-linkd", 64003},  {"kap-operator", 64004},
    {"mallory", 64005}, {"kap-admin", 64006}, {"kap-iepcsi", 64007}, {"kap-pmi", 64008},
    {"kap-emi", 64009}, {"kap-fmi", 64010},   {"kap-aasi", 64011}, // whom the policy names
};

struct options {
    double seconds = 60;
    bool policy = true;
    std::string logs = "build/attack";
    std::vector<std::string> names;
};

struct arena;

struct attacker {
    std::string user;
    std::vector<std::string> words; // the way, and what it needs after the time
};

struct attack {
    std::string name;
    std::string text;
    std::vector<attacker> attackers;
    void (*before)(arena &) = nullptr;  // before anything runs
    void (*prepare)(arena &) = nullptr; // when the node is there, before the honest client
    void (*during)(arena &) = nullptr;  // again and again while the attack goes on
    void (*after)(arena &) = nullptr;
    bool only_locates = false;    // the honest client has no session
    bool dead_from_alive = false; // the dead link's far end answers at first
    bool with_operator = false;
    long kept_descriptors = 0; // of the daemon: one namespace handle is kept on purpose
};

// What the watcher sees of one process.
struct held {
    long kb = 0;
    long descriptors = 0;
};

struct watched {
    std::string name;
    pid_t pid = -1;
    long kept_descriptors = 0; // that it may have more after than before
    held before, worst, after;
};

struct arena {
    options wanted;
    const attack *what = nullptr;
    stage s;
    std::vector<child_process> attackers;
    std::optional<child_process> honest, op;
    honest_report *report = nullptr;
    honest_report *operator_report = nullptr;
    std::vector<watched> watch;
    std::vector<std::string> ended;
    std::vector<std::string> gained;
    std::vector<std::string> extra_words; // of the attackers' command line
    int notify = -1;
    int notify_filler = -1;
    clock_type::time_point begun;
    clock_type::time_point next_blow;
    uint64_t lines_before = 0;
};

// ---- Looking at processes -------------------------------------------------------------------------------------------

held look(pid_t pid)
{
    held h;
    const std::string directory = "/proc/" + std::to_string(pid);
    std::ifstream file(directory + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("VmRSS:")) {
            h.kb = std::stol(line.substr(line.find(':') + 1));
        }
    }
    std::error_code gone;
    for (auto it = fs::directory_iterator(directory + "/fd", gone); !gone && it != fs::directory_iterator(); ++it) {
        h.descriptors++;
    }
    return h;
}

void look_all(arena &a, held watched::*which)
{
    for (watched &w : a.watch) {
        const held now = look(w.pid);
        held &kept = w.*which;
        const bool worst = which == &watched::worst;
        kept.kb = worst ? std::max(kept.kb, now.kb) : now.kb;
        kept.descriptors = worst ? std::max(kept.descriptors, now.descriptors) : now.descriptors;
    }
}

void look_who_ended(arena &a)
{
    for (auto it = a.s.processes.begin(); it != a.s.processes.end();) {
        if (process_running(it->second)) {
            ++it;
            continue;
        }
        a.ended.push_back(it->first + " (" + process_status_text(it->second) + ")");
        it = a.s.processes.erase(it);
    }
    for (std::optional<child_process> *child : {&a.honest, &a.op}) {
        if (*child && !process_running(**child)) {
            a.ended.push_back((*child)->name + " (" + process_status_text(**child) + ")");
            child->reset();
        }
    }
}

uint64_t count_lines(const arena &a)
{
    uint64_t lines = 0;
    for (const char *name : {REGISTRY, DAEMON}) {
        std::ifstream file(a.s.log_dir + "/" + name + ".log");
        lines += static_cast<uint64_t>(
            std::count(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>(), '\n'));
    }
    return lines;
}

// ---- Users and rights -----------------------------------------------------------------------------------------------

unsigned id_of(const std::string &user)
{
    const auto found = std::find_if(USERS.begin(), USERS.end(), [&](const auto &u) { return u.name == user; });
    return found == USERS.end() ? 0 : found->id;
}

std::vector<std::string> as_user(const std::string &user)
{
    if (user == "root") {
        return {};
    }
    const std::string id = std::to_string(id_of(user));
    return {"setpriv", "--reuid",        id,     "--regid",    id,     "--clear-groups", "--pdeathsig",
            "SIGKILL", "--bounding-set", "-all", "--inh-caps", "-all", "--no-new-privs", "--"};
}

void make_directory_of(const std::string &path, const std::string &user)
{
    fs::create_directories(path);
    if (chown(path.c_str(), id_of(user), id_of(user)) != 0 || chmod(path.c_str(), 0755) != 0) {
        throw stage_failure("cannot give " + path + " to " + user);
    }
}

// Everything that a package and a service manager would have made.
void make_places(arena &a)
{
    private_etc_make(USERS);
    a.s.bin_dir = programs_for_everybody(a.s.bin_dir);
    make_directory_of(itc_wire::directory, "kap-itc");
    make_directory_of("/run/kap-tri", "kap-vorn");
    fs::create_directories("/run/attack");
    const fs::path source = KAP_SOURCE_DIR;
    if (a.wanted.policy) {
        fs::create_directories("/etc/kap-itc/policy.d");
        fs::copy(source / "packaging/policy.d", "/etc/kap-itc/policy.d", fs::copy_options::recursive);
        fs::copy_file(source / "tests/attack/policy.toml", "/etc/kap-itc/policy.d/90-attack.toml");
    } else {
        for (const char *user : {"kap-vorn", "kap-linkd", "kap-operator", "mallory"}) {
            a.s.registry_arguments.insert(a.s.registry_arguments.end(), {"--allow-user", user});
        }
    }
    a.s.launchers[REGISTRY] = unit_launcher(unit_read(source / "packaging/systemd/kap-itcd.service"));
    a.s.launchers[DAEMON] = unit_launcher(unit_read(source / "packaging/systemd/kap-vorn.service"));
}

// ---- What some attacks need -----------------------------------------------------------------------------------------

// A registry that finds the lock laid elsewhere: it may refuse to start, or replace it, but neither follow it nor hang.
// Whoever laid it then takes it away again.
void lay_lock_elsewhere(arena &a)
{
    constexpr const char *ELSEWHERE = "/run/attack/elsewhere";
    if (symlink(ELSEWHERE, itc_wire::lock_path) != 0 || chmod("/run/attack", 0777) != 0) {
        throw stage_failure("cannot lay the symlink");
    }
    std::vector<std::string> command = a.s.launchers[REGISTRY];
    command.push_back(a.s.bin_dir + "/" + REGISTRY);
    command.insert(command.end(), a.s.registry_arguments.begin(), a.s.registry_arguments.end());
    fs::create_directories(a.s.log_dir);
    child_process registry = process_start(REGISTRY, command, a.s.log_dir + "/itcd-first.log");
    const bool refused = process_wait(registry, 2s);
    if (fs::exists(ELSEWHERE)) {
        a.gained.emplace_back("a file made where the lock's symlink points");
    }
    process_kill(registry);
    if (refused && process_status_text(registry) != "exit status 1") {
        a.gained.push_back("the registry: " + process_status_text(registry));
    }
    fs::remove(itc_wire::lock_path);
}

void fill_notify_socket(arena &a)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    constexpr char PATH[] = "/run/attack/notify";
    memcpy(address.sun_path, PATH, sizeof PATH);
    a.notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    a.notify_filler = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(a.notify, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || chmod(PATH, 0666) != 0) {
        throw stage_failure("cannot make the notify socket");
    }
    while (sendto(a.notify_filler, "x", 1, 0, reinterpret_cast<sockaddr *>(&address), sizeof address) == 1) {
    }
    auto &launcher = a.s.launchers[REGISTRY];
    launcher.insert(launcher.begin(), {"env", std::string("NOTIFY_SOCKET=") + PATH});
}

void limit_registry_descriptors(arena &a)
{
    auto &launcher = a.s.launchers[REGISTRY];
    launcher.insert(launcher.end() - 1, {"--", "prlimit", "--nofile=256:256"});
}

void announce_broken_namespace(arena & /*a*/)
{
    std::ofstream("/run/netns/broken") << "no namespace\n";
    stage_control("iepcsi", {"vlan-add", "TNA", "666", "tn_a", "broken"});
}

void remove_broken_namespace(arena & /*a*/) { fs::remove("/run/netns/broken"); }

// A name that leads out of the directory, to where there is an interface of that name, and one of a FIFO.
void announce_bad_names(arena & /*a*/)
{
    command_must({"ip", "link", "add", "trap0", "type", "veth", "peer", "name", "trap1"});
    command_must({"ip", "link", "set", "trap0", "up"});
    command_must({"ip", "link", "set", "trap1", "up"});
    if (mkfifo("/run/netns/pipe", 0666) != 0) {
        throw stage_failure("cannot make the FIFO");
    }
    stage_control("iepcsi", {"vlan-add", "TNA", "700", "trap0", "../../proc/1/ns/net"});
    stage_control("iepcsi", {"vlan-add", "TNA", "701", "tn_a", "pipe"});
}

void remove_bad_names(arena & /*a*/) { fs::remove("/run/netns/pipe"); }

void find_mask(arena &a)
{
    for (const auto &entry : fs::directory_iterator("/run/kap-tri")) {
        if (entry.path().filename().string().find("vorn") != std::string::npos) {
            a.extra_words = {entry.path()};
        }
    }
    if (a.extra_words.empty()) {
        throw stage_failure("no trace mask is shared");
    }
}

// The far end of the first port answers over a bridge, which can be cut without either end noticing.
void lay_bridge(arena &a)
{
    child_process far_end = stage_stop_process(a.s, FAR_END, SIGTERM, 5s);
    const wire &first = a.s.ports.at(0).wire;
    const auto far = [](std::vector<std::string> words) {
        words.insert(words.begin(), {"ip", "-n", FAR_NAMESPACE, "link"});
        command_must(words);
    };
    far({"set", first.interface, "down"});
    far({"set", first.interface, "name", "outer"});
    far({"set", "outer", "address", "02:00:00:00:b0:01"});
    far({"add", first.interface, "type", "veth", "peer", "name", "inner"});
    far({"add", "middle", "type", "bridge", "mcast_snooping", "0"});
    for (const char *end : {"outer", "inner"}) {
        far({"set", end, "master", "middle", "addrgenmode", "none", "up"});
    }
    far({"set", first.interface, "address", mac_to_text(first.far_mac), "addrgenmode", "none", "up"});
    far({"set", "middle", "addrgenmode", "none", "up"});
    stage_start_process(a.s, FAR_END);
    stage_wait_node(a.s, FAR_END);
}

void cut_bridge() { command_must({"ip", "-n", FAR_NAMESPACE, "link", "set", "inner", "nomaster"}); }

// A server dies and is started again a moment later, like under a service manager.
void restart_pmi(arena &a)
{
    const auto now = clock_type::now();
    const bool runs = a.s.processes.contains("pmi");
    if (now < a.next_blow) {
        return;
    }
    if (runs) {
        stage_stop_process(a.s, "pmi", SIGKILL, 5s);
    } else {
        stage_start_process(a.s, "pmi");
    }
    a.next_blow = now + (runs ? 300ms : 700ms);
}

void end_with_pmi(arena &a)
{
    if (!a.s.processes.contains("pmi")) {
        stage_start_process(a.s, "pmi");
    }
}

const std::vector<attack> &attacks()
{
    static const std::vector<attack> all = {
        {"nothing", "no attack: what the machine itself does", {{"mallory", {"nothing"}}}},
        {"supervision", "results of supervision that are none", {{"mallory", {"forge-supervision"}}}},
        {"withdrawal", "the news that servers are gone, which they are not", {{"mallory", {"forge-withdrawal"}}}},
        {"server", "the news that a server is up, from a stranger", {{"mallory", {"pose-as-server"}}}},
        {.name = "name",
         .text = "a dead server's name, while it is started again",
         .attackers = {{"mallory", {"take-name", "pmi-server", "endpoint_mgr", "kap-vorn"}}},
         .during = restart_pmi,
         .after = end_with_pmi,
         .only_locates = true},
        {"ids", "hellos until an old mailbox id comes again", {{"mallory", {"exhaust-ids"}}}},
        {"close",
         "connections with 4,095 mailboxes, services, subscriptions, waits and monitors are closed",
         {{"mallory", {"big-close"}}}},
        {"silence", "5,000 connections that never say hello", {{"mallory", {"say-nothing"}}}},
        {.name = "descriptors",
         .text = "descriptors of the registry, of which it has 256, used up by introductions that nobody takes",
         .attackers = {{"mallory", {"exhaust-descriptors"}}},
         .before = limit_registry_descriptors},
        {"introductions",
         "900 processes locate the daemon at once, which is busy",
         {{"mallory", {"introduce-many"}}, {"mallory", {"flood"}}}},
        {"publish", "a service the daemon subscribes to is published and withdrawn", {{"mallory", {"publish"}}}},
        {"half", "messages without an end on 200 connections", {{"mallory", {"half-sent"}}}},
        {"nobody", "messages of 4 MiB to a mailbox that is not there", {{"mallory", {"to-nobody"}}}},
        {"giants", "messages of 1 GiB", {{"mallory", {"giants"}}}},
        {"flood", "small messages from ten senders", {{"mallory", {"flood"}}}},
        {"deaf", "requests whose answers are never read", {{"mallory", {"never-read"}}}},
        {"large", "creates with 10,000 app links", {{"kap-operator", {"create-large"}}}},
        {.name = "failing",
         .text = "creates in a namespace that cannot be entered",
         .attackers = {{"kap-operator", {"create-in", "666"}}},
         .prepare = announce_broken_namespace,
         .after = remove_broken_namespace,
         .kept_descriptors = 1},
        {"queue", "sessions that end with 40 requests of 60 kB waiting", {{"kap-operator", {"queue-and-end"}}}},
        {"logs", "messages and frames that are worth a line", {{"mallory", {"flood-logs"}}}},
        {.name = "sessions",
         .text = "sessions held without a word",
         .attackers = {{"mallory", {"hold-sessions"}}},
         .with_operator = true},
        {.name = "blind",
         .text = "answers with all 256 measurement ids a second for a far end that was cut off",
         .attackers = {{"root", {"blind"}}},
         .dead_from_alive = true},
        {.name = "namespaces",
         .text = "names of namespaces that are a path out of the directory and a FIFO",
         .attackers = {{"kap-operator", {"create-in", "700", "entered ../../proc/1/ns/net"}},
                       {"kap-operator", {"create-in", "701"}}},
         .prepare = announce_bad_names,
         .after = remove_bad_names,
         .kept_descriptors = 1},
        {.name = "mask",
         .text = "the file behind the daemon's trace mask truncated, by the daemon's own user",
         .attackers = {{"kap-vorn", {"truncate-mask"}}},
         .prepare = find_mask},
        {.name = "lock",
         .text = "a symlink where the registry's lock belongs",
         .attackers = {{"mallory", {"nothing"}}},
         .before = lay_lock_elsewhere},
        {.name = "notify",
         .text = "a NOTIFY_SOCKET that is full",
         .attackers = {{"mallory", {"nothing"}}},
         .before = fill_notify_socket},
    };
    return all;
}

// ---- The course of an attack ----------------------------------------------------------------------------------------

honest_report *make_report(const char *path, const std::string &user)
{
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, sizeof(honest_report)) != 0 || fchown(fd, id_of(user), id_of(user)) != 0) {
        throw stage_failure("cannot make the report");
    }
    void *at = mmap(nullptr, sizeof(honest_report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
    close(fd);
    if (at == MAP_FAILED) {
        throw stage_failure("cannot map the report");
    }
    return static_cast<honest_report *>(at);
}

child_process start_as(arena &a, const std::string &name, const std::string &user,
                       const std::vector<std::string> &before, const std::vector<std::string> &words)
{
    std::vector<std::string> command = before;
    const std::vector<std::string> rights = as_user(user);
    command.insert(command.end(), rights.begin(), rights.end());
    command.push_back(a.s.bin_dir + "/" + words[0]);
    command.insert(command.end(), words.begin() + 1, words.end());
    return process_start(name, command, a.s.log_dir + "/" + name + ".log");
}

void wait_state(arena &a, honest_state state, std::chrono::milliseconds bound, const char *what)
{
    stage_wait(a.s, what, bound, [&] {
        if (!process_running(*a.honest)) {
            throw stage_failure("the honest client ended: " + process_log_tail(*a.honest, 3));
        }
        return a.report->state >= state;
    });
}

void start_honest(arena &a)
{
    const stage_port &first = a.s.ports.at(0);
    const stage_port &second = a.s.ports.at(1);
    // What it measures is not how long it waited for the processor itself.
    const std::vector<std::string> first_served = {"chrt", "--fifo", "1"};
    a.report = make_report(REPORT_PATH, "kap-linkd");
    if (a.what->only_locates) {
        a.honest = start_as(a, "honest", "kap-linkd", first_served, {"attack-honest", "locate", REPORT_PATH});
    } else {
        a.honest = start_as(a, "honest", "kap-linkd", first_served,
                            {"attack-honest", "links", REPORT_PATH, second.iemli_name, "200",
                             mac_to_text(second.wire.far_mac), first.iemli_name, "100", mac_to_text(first.wire.far_mac),
                             a.what->dead_from_alive ? "both" : "one"});
    }
    if (a.what->dead_from_alive) {
        wait_state(a, HONEST_LIVING, 20s, "both links are enabled");
        cut_bridge();
    }
    wait_state(a, HONEST_READY, 30s, "one link lives, the other does not");
    if (a.what->with_operator) {
        a.operator_report = make_report(OPERATOR_PATH, "kap-operator");
        a.op = start_as(a, "operator", "kap-operator", {}, {"attack-honest", "operator", OPERATOR_PATH});
    }
}

void pass_time(arena &a, clock_type::duration time, bool fighting)
{
    for (const auto end = clock_type::now() + time; clock_type::now() < end;) {
        look_all(a, &watched::worst);
        if (fighting && a.what->during != nullptr) {
            a.what->during(a);
        }
        look_who_ended(a);
        poll(nullptr, 0, static_cast<int>(SAMPLE_EVERY / 1ms));
    }
}

void start_attackers(arena &a)
{
    const stage_port &first = a.s.ports.at(0);
    for (const attacker &one : a.what->attackers) {
        std::vector<std::string> words = {"attack-hostile", one.words[0], std::to_string(a.wanted.seconds)};
        words.insert(words.end(), one.words.begin() + 1, one.words.end());
        words.insert(words.end(), a.extra_words.begin(), a.extra_words.end());
        std::vector<std::string> before;
        if (one.words[0] == "blind") {
            words.insert(words.end(),
                         {"outer", mac_to_text(first.wire.far_mac), mac_to_text(first.wire.near_mac), "100"});
            before = {"ip", "netns", "exec", FAR_NAMESPACE};
        }
        const std::string name = "attacker-" + std::to_string(a.attackers.size() + 1);
        a.attackers.push_back(start_as(a, name, one.user, before, words));
    }
}

// What the attackers themselves say of it.
void read_attackers(arena &a)
{
    for (const child_process &one : a.attackers) {
        std::ifstream file(one.log_path);
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("gained: ")) {
                a.gained.push_back(line.substr(strlen("gained: ")));
            }
        }
    }
}

void fight(arena &a)
{
    a.begun = clock_type::now();
    a.lines_before = count_lines(a);
    a.report->measuring = 1;
    start_attackers(a);
    pass_time(a, std::chrono::duration_cast<clock_type::duration>(std::chrono::duration<double>(a.wanted.seconds)),
              true);
    for (child_process &one : a.attackers) {
        if (!process_wait(one, 2s)) {
            process_kill(one);
        }
    }
    // The call under way is part of it, however long it takes.
    const auto patience = clock_type::now() + 15s;
    a.report->measuring = 2;
    while (a.honest && a.report->seen != 2 && clock_type::now() < patience) {
        pass_time(a, 10ms, false);
    }
    a.report->measuring = 0;
    read_attackers(a);
}

bool is_given_back(const arena &a)
{
    return std::all_of(a.watch.begin(), a.watch.end(), [](const watched &w) {
        return w.after.kb - w.before.kb <= AFTER_KB && w.after.descriptors - w.before.descriptors <= w.kept_descriptors;
    });
}

void settle(arena &a)
{
    const auto end = clock_type::now() + SETTLE_BOUND;
    do {
        pass_time(a, 100ms, false);
        look_all(a, &watched::after);
    } while (clock_type::now() < end && !is_given_back(a));
}

// ---- The row --------------------------------------------------------------------------------------------------------

struct verdict {
    std::string row;
    std::vector<std::string> missed;
};

std::string number(const char *format, double value)
{
    char text[32];
    (void)snprintf(text, sizeof text, format, value);
    return text;
}

struct spread {
    double median = 0;
    double worst = 0;
};

spread spread_of(const honest_calls &calls)
{
    std::vector<uint32_t> sorted(calls.microseconds, calls.microseconds + calls.count);
    if (sorted.empty()) {
        return {};
    }
    std::sort(sorted.begin(), sorted.end());
    return {sorted[sorted.size() / 2] / 1000.0, sorted.back() / 1000.0};
}

std::string spread_text(const honest_calls &calls)
{
    if (calls.count == 0) {
        return "-";
    }
    const spread s = spread_of(calls);
    return number("%.2f", s.median) + " / " + number("%.1f", s.worst);
}

std::string memory_text(const watched &w)
{
    return number("%.1f", static_cast<double>(w.before.kb) / 1024) + " / " +
           number("%+.1f", static_cast<double>(w.worst.kb - w.before.kb) / 1024) + " / " +
           number("%+.1f", static_cast<double>(w.after.kb - w.before.kb) / 1024);
}

std::string descriptors_text(const watched &w)
{
    return std::to_string(w.before.descriptors) + " / " + std::to_string(w.worst.descriptors) + " / " +
           std::to_string(w.after.descriptors);
}

std::string joined(const std::vector<std::string> &words, const char *none)
{
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : "; ") + word;
    }
    return text.empty() ? none : text;
}

void judge_process(verdict &v, const watched &w)
{
    if (w.worst.kb - w.before.kb > WORST_KB) {
        v.missed.push_back(w.name + " held " + std::to_string((w.worst.kb - w.before.kb) / 1024) + " MiB more");
    }
    if (w.after.kb - w.before.kb > AFTER_KB) {
        v.missed.push_back(w.name + " kept " + std::to_string((w.after.kb - w.before.kb) / 1024) + " MiB");
    }
    if (w.after.descriptors - w.before.descriptors > w.kept_descriptors) {
        v.missed.push_back(w.name + " kept " + std::to_string(w.after.descriptors - w.before.descriptors) +
                           " descriptors");
    }
}

void judge_calls(verdict &v, const honest_calls &calls, const char *what, double bound_ms)
{
    const double worst = spread_of(calls).worst;
    if (worst > bound_ms) {
        v.missed.push_back(std::string("a ") + what + " took " + number("%.1f", worst) + " ms");
    }
    if (calls.failed > 0) {
        v.missed.push_back(std::to_string(calls.failed) + " of " + std::to_string(calls.count) + " " + what +
                           "s failed");
    }
    if (calls.count == 0) {
        v.missed.push_back(std::string("no ") + what + " was measured");
    }
}

verdict judge(const arena &a, double lines)
{
    verdict v;
    judge_calls(v, a.report->locates, "locate", LOCATE_MS);
    if (!a.what->only_locates) {
        judge_calls(v, a.report->requests, "request", REQUEST_MS);
    }
    for (const watched &w : a.watch) {
        judge_process(v, w);
    }
    if (a.report->false_ups > 0) {
        v.missed.push_back(std::to_string(a.report->false_ups) + " false ups");
    }
    if (a.report->false_downs > 0) {
        v.missed.push_back(std::to_string(a.report->false_downs) + " false downs");
    }
    for (const std::string &one : a.ended) {
        v.missed.push_back("ended: " + one);
    }
    for (const std::string &one : a.gained) {
        v.missed.push_back("gained: " + one);
    }
    if (lines > LINES_PER_SECOND) {
        v.missed.push_back(number("%.0f", lines) + " log lines a second");
    }
    std::ostringstream row;
    row << "| `" << a.what->name << "` | " << spread_text(a.report->locates) << " | " << spread_text(a.report->requests)
        << " | " << memory_text(a.watch[0]) << " | " << memory_text(a.watch[1]) << " | " << descriptors_text(a.watch[0])
        << " | " << descriptors_text(a.watch[1]) << " | "
        << (a.what->only_locates ? "-" : std::to_string(a.report->false_ups)) << " / "
        << (a.what->only_locates ? "-" : std::to_string(a.report->false_downs)) << " | " << number("%.0f", lines)
        << " | " << joined(a.ended, "nobody") << " | " << joined(a.gained, "nothing") << " | "
        << (v.missed.empty() ? "held" : "missed") << " |";
    v.row = row.str();
    return v;
}

constexpr const char *TABLE_HEAD =
    "| attack | locate, ms: median / worst | request, ms: median / worst | registry, MiB: before / worst / after | "
    "daemon, MiB | registry, descriptors | daemon, descriptors | false ups / downs | log lines a second | ended | "
    "gained | |\n|---|---|---|---|---|---|---|---|---|---|---|---|";

// ---- One attack -----------------------------------------------------------------------------------------------------

void run_node(arena &a)
{
    make_places(a);
    if (a.what->before != nullptr) {
        a.what->before(a);
    }
    stage_start(a.s, "kap-attack");
    lay_bridge(a);
    if (!a.what->dead_from_alive) {
        cut_bridge();
    }
    if (a.what->prepare != nullptr) {
        a.what->prepare(a);
    }
    start_honest(a);
    a.watch = {{REGISTRY, a.s.processes.at(REGISTRY).pid, 0, {}, {}, {}},
               {DAEMON, a.s.processes.at(DAEMON).pid, a.what->kept_descriptors, {}, {}, {}}};
    pass_time(a, 1s, false);
    look_all(a, &watched::before);
    look_all(a, &watched::after);
    for (watched &w : a.watch) {
        w.worst = w.before;
    }
}

std::string one_line(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

// An honest end, too: what remains can be stopped.
void stop_node(arena &a)
{
    a.report->ending = 1;
    if (a.operator_report != nullptr) {
        a.operator_report->ending = 1;
    }
    for (std::optional<child_process> *child : {&a.honest, &a.op}) {
        if (*child && !process_wait(**child, 15s)) {
            a.ended.push_back((*child)->name + " (does not end)");
        }
    }
    if (!a.ended.empty()) {
        return; // the sandbox takes the rest with it
    }
    try {
        for (const auto &[name, status] : stage_stop(a.s)) {
            if (status != "exit status 0") {
                a.ended.push_back(name + " (" + status + ", when it was stopped)");
            }
        }
    } catch (const stage_failure &failure) {
        a.ended.push_back(one_line(failure.what()));
    }
}

verdict run_attack(const options &wanted, const attack &what)
{
    arena a;
    a.wanted = wanted;
    a.what = &what;
    a.s = stage_make(fs::absolute(wanted.logs) / what.name);
    fs::remove_all(a.s.log_dir);
    try {
        run_node(a);
        fight(a);
        if (what.after != nullptr) {
            what.after(a);
        }
        settle(a);
        const std::chrono::duration<double> took = clock_type::now() - a.begun;
        const double lines = static_cast<double>(count_lines(a) - a.lines_before) / took.count();
        if (what.with_operator && a.operator_report->refused_sessions > 0) {
            a.gained.push_back("the operator was refused a session " +
                               std::to_string(a.operator_report->refused_sessions) + " times, got " +
                               std::to_string(a.operator_report->sessions));
        }
        stop_node(a);
        return judge(a, lines);
    } catch (const std::exception &failure) {
        const std::string line = one_line(failure.what());
        return {"| `" + what.name + "` | - | - | - | - | - | - | - | - | " + joined(a.ended, "nobody") + " | - | " +
                    line + " |",
                {line}};
    }
}

// In a process of its own, since a sandbox is entered once. Its last words come over the pipe.
void run_in_sandbox(const options &wanted, const attack &what, int out)
{
    std::string error;
    if (!sandbox_enter(error)) {
        dprintf(out, "%s\nno sandbox: %s\n", what.name.c_str(), error.c_str());
        _exit(1);
    }
    const verdict v = run_attack(wanted, what);
    dprintf(out, "%s\n", v.row.c_str());
    for (const std::string &miss : v.missed) {
        dprintf(out, "%s\n", miss.c_str());
    }
    _exit(0);
}

std::vector<std::string> read_lines(int fd)
{
    std::string text;
    char bytes[4096];
    for (ssize_t got = 0; (got = read(fd, bytes, sizeof bytes)) > 0;) {
        text.append(bytes, static_cast<size_t>(got));
    }
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The words for the end: what was missed.
std::vector<std::string> run_one(const options &wanted, const attack &what)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return {"no pipe"};
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        run_in_sandbox(wanted, what, ends[1]);
    }
    close(ends[1]);
    std::vector<std::string> lines = read_lines(ends[0]);
    close(ends[0]);
    waitpid(child, nullptr, 0);
    if (lines.empty()) {
        lines = {"| `" + what.name + "` | - | - | - | - | - | - | - | - | - | - | no verdict |", "no verdict"};
    }
    std::cout << lines[0] << std::endl;
    lines.erase(lines.begin());
    return lines;
}

bool parse(int argc, char **argv, options &wanted)
{
    for (int i = 1; i < argc; i++) {
        const std::string word = argv[i];
        if (word == "--seconds" && i + 1 < argc) {
            wanted.seconds = strtod(argv[++i], nullptr);
        } else if (word == "--logs" && i + 1 < argc) {
            wanted.logs = argv[++i];
        } else if (word == "--without-policy") {
            wanted.policy = false;
        } else if (word == "--list") {
            for (const attack &one : attacks()) {
                std::cout << one.name << std::string(15 - one.name.size(), ' ') << one.text << "\n";
            }
            exit(0);
        } else {
            const bool known =
                std::any_of(attacks().begin(), attacks().end(), [&](const attack &one) { return one.name == word; });
            if (!known) {
                std::cerr << "attack: no attack \"" << word << "\"\n";
                return false;
            }
            wanted.names.push_back(word);
        }
    }
    return wanted.seconds > 0;
}

} // namespace

int main(int argc, char **argv)
{
    options wanted;
    if (!parse(argc, argv, wanted)) {
        return 2;
    }
    if (wanted.policy && !fs::exists(fs::path(KAP_SOURCE_DIR) / "packaging/policy.d")) {
        std::cerr << "attack: there is no packaged policy; users are let in by option\n";
        wanted.policy = false;
    }
    std::cout << TABLE_HEAD << std::endl;
    std::vector<std::string> missed;
    for (const attack &one : attacks()) {
        const bool chosen =
            wanted.names.empty() || std::find(wanted.names.begin(), wanted.names.end(), one.name) != wanted.names.end();
        if (!chosen) {
            continue;
        }
        for (const std::string &miss : run_one(wanted, one)) {
            missed.push_back(one.name + ": " + miss);
        }
    }
    std::cout << "\n";
    for (const std::string &miss : missed) {
        std::cout << "missed: " << miss << "\n";
    }
    std::cout << (missed.empty() ? "every aim was met" : "an aim was missed") << std::endl;
    return missed.empty() ? 0 : 1;
}
