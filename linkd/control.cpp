// The control socket (control.hpp).
#include "control.hpp"

#include <grp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace linkd
{

namespace
{

using nlohmann::json;

constexpr int VERSION = 1;
constexpr size_t LONGEST_LINE = size_t{512} * 1024;
constexpr size_t MOST_CLIENTS = 64;
constexpr size_t MOST_CLIENTS_OF_A_USER = 24; // but root's
// A client with so much to take is not read.
constexpr size_t MUCH_TO_TAKE = size_t{256} * 1024;
constexpr size_t EVENTS_AT_ONCE = 500;
constexpr uint64_t MOST_EVENTS = 10'000;
constexpr uint64_t MOST_POINTS = 100'000;
constexpr size_t READ_AT_ONCE = size_t{64} * 1024;

// What a request is refused with.
struct refusal : std::runtime_error {
    refusal(const char *with, const std::string &text) : std::runtime_error(text), code(with) {}
    const char *code;
};

[[noreturn]] void refuse(const char *code, const std::string &text) { throw refusal(code, text); }

json error_of(const char *code, const std::string &text)
{
    return {{"ok", false}, {"error", {{"code", code}, {"text", text}}}};
}

// Whatever is in a text, a line is valid UTF-8, and one line.
std::string line_of(const json &value) { return value.dump(-1, ' ', false, json::error_handler_t::replace) + "\n"; }

std::optional<gid_t> group_of(const std::string &name)
{
    std::array<char, 65536> room{};
    group entry{};
    group *found = nullptr;
    if (name.empty() || getgrnam_r(name.c_str(), &entry, room.data(), room.size(), &found) != 0 || found == nullptr) {
        return std::nullopt;
    }
    return entry.gr_gid;
}

std::vector<gid_t> groups_of_peer(int fd, gid_t first)
{
    std::vector<gid_t> groups(64);
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    int got = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    if (got != 0 && errno == ERANGE) {
        groups.resize(size / sizeof(gid_t));
        got = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    }
    groups.resize(got == 0 ? size / sizeof(gid_t) : 0);
    groups.push_back(first);
    return groups;
}

bool is_in(const std::vector<gid_t> &groups, const std::optional<gid_t> &group)
{
    return group && std::find(groups.begin(), groups.end(), *group) != groups.end();
}

// ---- Members of a request ------------------------------------------------------------------------------------------

std::string text_in(const json &request, const char *member, bool needed)
{
    const auto found = request.find(member);
    if (found == request.end() && !needed) {
        return "";
    }
    if (found == request.end() || !found->is_string()) {
        refuse("bad_request", std::string("\"") + member + "\" must be a text");
    }
    return found->get<std::string>();
}

uint64_t number_in(const json &request, const char *member, uint64_t otherwise, uint64_t most)
{
    const auto found = request.find(member);
    if (found == request.end()) {
        return otherwise;
    }
    if (!found->is_number_unsigned()) {
        refuse("bad_request", std::string("\"") + member + "\" must be a number that is not negative");
    }
    return std::min(found->get<uint64_t>(), most);
}

bool flag_in(const json &request, const char *member)
{
    const auto found = request.find(member);
    if (found == request.end()) {
        return false;
    }
    if (!found->is_boolean()) {
        refuse("bad_request", std::string("\"") + member + "\" must be true or false");
    }
    return found->get<bool>();
}

constexpr const char *WRITING[] = {"add", "set", "delete", "reload", "rtt"};

bool is_writing(const std::string &op)
{
    return std::any_of(std::begin(WRITING), std::end(WRITING), [&](const char *each) { return op == each; });
}

} // namespace

control::control(loop &turns, keeper &keeps, link_book &book, past &before, control_actions actions)
    : turns_(turns), keeper_(keeps), book_(book), past_(before), actions_(std::move(actions))
{
}

control::~control() { stop(); }

void control::stop()
{
    while (!clients_.empty()) {
        drop(clients_.begin());
    }
    if (listening_ >= 0) {
        turns_.forget(listening_);
        close(listening_);
        (void)unlink(path_.c_str());
        listening_ = -1;
    }
}

// Whoever can reach the socket may connect; what he may is told by who he is.
void control::listen(const std::string &path, const control_groups &groups)
{
    readers_ = group_of(groups.readers);
    writers_ = group_of(groups.writers);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::runtime_error(path + ": too long for the name of a socket");
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    (void)unlink(path.c_str());
    const mode_t mask = umask(0);
    const bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                       ::listen(fd, SOMAXCONN) == 0;
    const int error = errno;
    umask(mask);
    if (!bound) {
        if (fd >= 0) {
            close(fd);
        }
        throw std::runtime_error(path + ": " + strerror(error));
    }
    path_ = path;
    listening_ = fd;
    turns_.watch(fd, EPOLLIN, [this](uint32_t) { on_listen(); });
}

// ---- Clients -------------------------------------------------------------------------------------------------------

void control::on_listen()
{
    const int fd = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        return;
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    (void)getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    const auto groups = groups_of_peer(fd, peer.gid);
    const bool own = peer.uid == 0 || peer.uid == geteuid();
    const bool writes = own || is_in(groups, writers_);
    const auto of_user =
        std::count_if(clients_.begin(), clients_.end(), [&](const client &each) { return each.user == peer.uid; });
    const auto who = clients_.insert(clients_.end(), client{});
    who->fd = fd;
    who->user = peer.uid;
    who->writes = writes;
    turns_.watch(fd, EPOLLIN, [this, who](uint32_t events) { on_client(who, events); });
    if (!writes && !is_in(groups, readers_)) {
        who->out +=
            line_of({{"v", VERSION},
                     {"id", nullptr},
                     {"ok", false},
                     {"error", {{"code", "not_allowed"}, {"text", "only for the groups kap-read and kap-admin"}}}});
        who->ending = true;
    } else if (clients_.size() > MOST_CLIENTS ||
               (peer.uid != 0 && of_user >= static_cast<ptrdiff_t>(MOST_CLIENTS_OF_A_USER))) {
        who->out += line_of({{"v", VERSION},
                             {"id", nullptr},
                             {"ok", false},
                             {"error", {{"code", "busy"}, {"text", "too many are connected"}}}});
        who->ending = true;
    }
    if (who->ending) {
        (void)write(*who);
        drop(who);
    }
}

void control::drop(client_at who)
{
    turns_.forget(who->fd);
    close(who->fd);
    clients_.erase(who);
}

// False: nothing more will come, or it broke.
bool control::read(client &who)
{
    std::array<char, READ_AT_ONCE> room; // NOLINT(cppcoreguidelines-pro-type-member-init): read fills it
    const ssize_t n = ::read(who.fd, room.data(), room.size());
    if (n < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    who.reads_closed = n == 0;
    who.in.append(room.data(), static_cast<size_t>(n));
    return true;
}

// False: it takes nothing any more.
bool control::write(client &who)
{
    while (who.sent < who.out.size()) {
        const ssize_t n = send(who.fd, who.out.data() + who.sent, who.out.size() - who.sent, MSG_NOSIGNAL);
        if (n < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        who.sent += static_cast<size_t>(n);
    }
    who.out.clear();
    who.out.shrink_to_fit();
    who.sent = 0;
    return true;
}

void control::watch(client &who)
{
    const bool has_output = who.sent < who.out.size();
    const bool reads = !who.reads_closed && !who.ending && who.out.size() - who.sent < MUCH_TO_TAKE;
    turns_.change(who.fd, (reads ? uint32_t{EPOLLIN} : 0U) | (has_output ? uint32_t{EPOLLOUT} : 0U));
}

void control::on_client(client_at who, uint32_t events)
{
    bool alive = (events & EPOLLERR) == 0;
    if (alive && (events & EPOLLIN) != 0) {
        alive = read(*who);
    }
    if (alive) {
        take_lines(*who);
        alive = write(*who);
        if (alive) {
            tell_past(*who);
            alive = write(*who);
        }
        // What was held back while much was to be taken is taken up when it was.
        if (alive && who->out.empty()) {
            take_lines(*who);
            alive = write(*who);
        }
    }
    const bool hung_up = (events & EPOLLHUP) != 0;
    const bool over = who->out.empty() && (who->ending || (who->reads_closed && !who->follows));
    if (!alive || hung_up || over) {
        drop(who);
        return;
    }
    watch(*who);
}

// One that has closed its side while it follows has gone: nobody tells otherwise.
void control::take_lines(client &who)
{
    size_t taken = 0;
    while (!who.ending && who.out.size() - who.sent < MUCH_TO_TAKE) {
        const size_t end = who.in.find('\n', std::max(taken, who.looked));
        if (end == std::string::npos) {
            who.looked = who.in.size();
            break;
        }
        answer(who, who.in.substr(taken, end - taken));
        taken = end + 1;
    }
    who.in.erase(0, taken);
    who.looked = who.looked > taken ? who.looked - taken : 0;
    if (who.in.size() > LONGEST_LINE && who.looked == who.in.size()) {
        json error = error_of("bad_request", "a line is longer than " + std::to_string(LONGEST_LINE) + " bytes");
        error["v"] = VERSION;
        error["id"] = nullptr;
        who.out += line_of(error);
        who.ending = true;
        who.in.clear();
        who.looked = 0;
    }
    if (who.reads_closed) {
        who.follows.reset();
    }
}

void control::answer(client &who, const std::string &line)
{
    if (line.empty()) {
        return;
    }
    json id;
    json out;
    const json request = json::parse(line, nullptr, false);
    try {
        if (!request.is_object()) {
            refuse("bad_request", "a line must be a JSON object");
        }
        id = request.value("id", json());
        if (id.is_structured()) {
            id = nullptr;
            refuse("bad_request", "\"id\" must be a number or a text");
        }
        if (request.contains("v") && request["v"] != VERSION) {
            refuse("bad_request", "version 1 is spoken here");
        }
        out = respond(who, request);
        out["ok"] = true;
    } catch (const refusal &why) {
        out = error_of(why.code, why.what());
    } catch (const std::exception &why) {
        out = error_of("failed", why.what());
    }
    out["v"] = VERSION;
    out["id"] = id;
    who.out += line_of(out);
}

json control::respond(client &who, const json &request)
{
    const std::string op = text_in(request, "op", true);
    if (is_writing(op) && !who.writes) {
        refuse("not_allowed", "\"" + op + "\" is for root and the group kap-admin");
    }
    const std::pair<const char *, std::function<json()>> ops[] = {{"links", [&] { return links(); }},
                                                                  {"link", [&] { return one_link(request); }},
                                                                  {"status", [&] { return status(); }},
                                                                  {"add", [&] { return add(request); }},
                                                                  {"set", [&] { return set(request); }},
                                                                  {"delete", [&] { return remove(request); }},
                                                                  {"reload", [&] { return reload(); }},
                                                                  {"rtt", [&] { return measure(request); }},
                                                                  {"events", [&] { return events(who, request); }},
                                                                  {"history", [&] { return history(request); }},
                                                                  {"samples", [&] { return samples(request); }}};
    for (const auto &[name, run] : ops) {
        if (op == name) {
            return run();
        }
    }
    refuse("unknown_op", "there is no \"" + op + "\"");
}

// ---- Looking -------------------------------------------------------------------------------------------------------

link_view control::full(link_view view)
{
    view.flaps_today = past_.flaps_today(view.link.name);
    return view;
}

json control::links()
{
    json all = json::array();
    for (link_view &view : keeper_.views({boot_us(), real_us()})) {
        all.push_back(json_of(full(std::move(view))));
    }
    return {{"links", std::move(all)}};
}

json control::one_link(const json &request)
{
    const std::string name = text_in(request, "name", true);
    auto view = keeper_.view(name, {boot_us(), real_us()});
    if (!view) {
        refuse("unknown_link", "there is no link \"" + name + "\"");
    }
    return {{"link", json_of(full(std::move(*view)))}};
}

json control::status()
{
    const node_view node = keeper_.node();
    return {{"registry", actions_.has_registry()},
            {"daemon", node.daemon},
            {"session", node.session},
            {"missing", node.missing},
            {"session_since_us", node.since_us},
            {"sessions", node.sessions},
            {"started_us", started_us_},
            {"newest_event", past_.newest()},
            {"links",
             {{"waiting", node.waiting},
              {"rejected", node.rejected},
              {"disabled", node.disabled},
              {"enabled", node.enabled}}},
            {"mistakes", book_.mistakes()}};
}

// ---- Changing ------------------------------------------------------------------------------------------------------

json control::done()
{
    const keeper::difference made = actions_.apply();
    return {{"added", made.added}, {"changed", made.changed}, {"removed", made.removed}};
}

json control::add(const json &request)
{
    declaration link;
    link.name = text_in(request, "name", true);
    link.declared = false;
    link.at.file = "";
    if (!is_link_name(link.name)) {
        refuse("invalid", "name: 1 to 64 letters, digits, \"-\", \"_\" and \".\"");
    }
    if (keeper_.declared().contains(link.name)) {
        refuse("exists", "there is a link \"" + link.name + "\"");
    }
    const std::string wrong = take_json(request, true, link);
    if (!wrong.empty()) {
        refuse("invalid", wrong);
    }
    const std::string failed = book_.add(link);
    if (!failed.empty()) {
        refuse(failed.starts_with("it cannot be kept") ? "failed" : "invalid", failed);
    }
    return done();
}

json control::set(const json &request)
{
    const std::string name = text_in(request, "name", true);
    const auto found = keeper_.declared().find(name);
    if (found == keeper_.declared().end()) {
        refuse("unknown_link", "there is no link \"" + name + "\"");
    }
    if (found->second.declared) {
        refuse("invalid", "it is declared in " + found->second.at.file + ": change it there, and reload");
    }
    declaration link = found->second;
    const std::string wrong = take_json(request, false, link);
    if (!wrong.empty()) {
        refuse("invalid", wrong);
    }
    const std::string failed = book_.change(link);
    if (!failed.empty()) {
        refuse(failed.starts_with("it cannot be kept") ? "failed" : "invalid", failed);
    }
    return done();
}

json control::remove(const json &request)
{
    const std::string name = text_in(request, "name", true);
    const auto found = keeper_.declared().find(name);
    if (found == keeper_.declared().end()) {
        refuse("unknown_link", "there is no link \"" + name + "\"");
    }
    if (found->second.declared) {
        refuse("invalid", "it is declared in " + found->second.at.file + ": take it out there, and reload");
    }
    const std::string failed = book_.remove(name);
    if (!failed.empty()) {
        refuse("failed", failed);
    }
    return done();
}

json control::reload()
{
    const auto wrong = book_.reload();
    if (!wrong.empty()) {
        std::string all = "nothing was changed";
        for (const std::string &each : wrong) {
            all += "\n" + each;
        }
        refuse("invalid", all);
    }
    return done();
}

json control::measure(const json &request)
{
    const std::string name = text_in(request, "name", true);
    const auto found = keeper_.declared().find(name);
    if (found == keeper_.declared().end()) {
        refuse("unknown_link", "there is no link \"" + name + "\"");
    }
    if (!request.contains("on")) {
        refuse("bad_request", "\"on\" must be true, false, or an object");
    }
    declaration link = found->second;
    const std::string wrong = take_json({{"rtt", request["on"]}}, false, link);
    if (!wrong.empty()) {
        refuse("invalid", wrong);
    }
    const std::string failed = book_.measure(name, link.rtt);
    if (!failed.empty()) {
        refuse("failed", failed);
    }
    return done();
}

// ---- The past ------------------------------------------------------------------------------------------------------

json control::events(client &who, const json &request)
{
    const uint64_t since = number_in(request, "since", 0, UINT64_MAX);
    const uint64_t limit = number_in(request, "limit", MOST_EVENTS, MOST_EVENTS);
    const std::string link = text_in(request, "link", false);
    const bool follow = flag_in(request, "follow");
    json list = json::array();
    uint64_t last = since;
    for (const link_change &change : past_.since(since, link, limit)) {
        last = change.id;
        list.push_back(json_of(change));
    }
    if (follow) {
        // Whatever came after those is told out of the past first; of one that follows nothing yet, all is.
        who.follows = follower{request.value("id", json()), link, last, false};
    }
    return {{"events", std::move(list)}};
}

json control::history(const json &request)
{
    const std::string name = text_in(request, "name", true);
    const auto from = static_cast<int64_t>(number_in(request, "from_us", 0, INT64_MAX));
    const auto to = static_cast<int64_t>(number_in(request, "to_us", INT64_MAX, INT64_MAX));
    return past_.history(name, from, to, number_in(request, "limit", MOST_EVENTS, MOST_EVENTS));
}

json control::samples(const json &request)
{
    const std::string name = text_in(request, "name", true);
    const auto from = static_cast<int64_t>(number_in(request, "from_us", 0, INT64_MAX));
    const auto to = static_cast<int64_t>(number_in(request, "to_us", INT64_MAX, INT64_MAX));
    return {{"samples", past_.samples(name, from, to, number_in(request, "points", 1000, MOST_POINTS))}};
}

// Out of the past as long as the client takes it; from the newest on what comes is told as it comes.
void control::tell_past(client &who)
{
    while (who.follows && !who.follows->live && who.out.size() - who.sent < MUCH_TO_TAKE) {
        follower &at = *who.follows;
        const auto more = past_.since(at.told, at.link, EVENTS_AT_ONCE);
        for (const link_change &change : more) {
            at.told = change.id;
            who.out += line_of({{"v", VERSION}, {"id", at.id}, {"event", json_of(change)}});
        }
        at.live = more.empty();
    }
}

void control::changed(const link_change &change)
{
    for (client &who : clients_) {
        if (!who.follows || !who.follows->live) {
            continue;
        }
        follower &at = *who.follows;
        if (!at.link.empty() && at.link != change.link.name) {
            continue;
        }
        if (who.out.size() - who.sent >= MUCH_TO_TAKE) {
            at.live = false;
            continue;
        }
        at.told = change.id;
        who.out += line_of({{"v", VERSION}, {"id", at.id}, {"event", json_of(change)}});
        watch(who); // it is written in the loop's next turn
    }
}

} // namespace linkd
