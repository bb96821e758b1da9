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
constexpr size_t LONGEST_ID = 128; // a follower's is kept, and told with each event
constexpr size_t MOST_CLIENTS = 64;
constexpr size_t MOST_CLIENTS_BUT_OWN = 56;   // the others are for root and this program's user
constexpr size_t MOST_READERS = 48;           // and of these the others for those who may change something
constexpr size_t MOST_CLIENTS_OF_A_USER = 24; // but root's
// So much is done before the loop goes on with other things: lines, and about how long.
constexpr size_t LINES_IN_A_TURN = 64;
constexpr int64_t TURN_US = 5000;
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

// No request goes deeper. A value that does is not kept: whoever copies one goes down as deep as it is, and a line has
// room for more of that than a stack.
constexpr int DEEPEST = 8;

json request_in(const std::string &line)
{
    bool too_deep = false;
    json request = json::parse(
        line,
        [&](int depth, json::parse_event_t, const json &) {
            too_deep = too_deep || depth > DEEPEST;
            return !too_deep;
        },
        false);
    if (too_deep) {
        refuse("bad_request", "nothing is nested so deep");
    }
    if (!request.is_object()) {
        refuse("bad_request", "a line must be a JSON object");
    }
    return request;
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

// Ids are the history's, which has room for half of all numbers.
uint64_t id_in(const json &request, const char *member, uint64_t otherwise)
{
    const uint64_t id = number_in(request, member, otherwise, UINT64_MAX);
    if (id > INT64_MAX) {
        refuse("bad_request", std::string("\"") + member + "\" is above all ids (9223372036854775807)");
    }
    return id;
}

// Which members of links are asked for: all, where nothing is said of it.
link_members members_in(const json &request)
{
    const auto found = request.find("members");
    if (found == request.end()) {
        return ALL_MEMBERS;
    }
    link_members wanted = 0;
    if (!found->is_array()) {
        refuse("bad_request", "\"members\" must be an array of names");
    }
    for (const json &name : *found) {
        if (!name.is_string()) {
            refuse("bad_request", "\"members\" must be an array of names");
        }
        wanted |= member_bit(name.get_ref<const std::string &>());
    }
    return wanted;
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
    turns_.cancel(std::exchange(turn_, 0));
    turns_.cancel(std::exchange(pause_, 0));
    if (listening_ >= 0) {
        turns_.forget(listening_);
        close(listening_);
        (void)unlink(path_.c_str());
        listening_ = -1;
    }
}

// Whoever can reach the socket may connect; what he may is told by who he is. The mode is the file's own: the mask of
// this process is that of its other threads, too.
void control::listen(const std::string &path, const control_groups &groups)
{
    constexpr mode_t FOR_ALL = 0666;
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
    const bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                       chmod(path.c_str(), FOR_ALL) == 0 && ::listen(fd, SOMAXCONN) == 0;
    if (!bound) {
        const int error = errno;
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
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            pause_listening(); // whoever wants in stays in the queue, of which epoll would tell again and again
        }
        return;
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    (void)getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    const auto groups = groups_of_peer(fd, peer.gid);
    const bool own = peer.uid == 0 || peer.uid == geteuid();
    const auto who = clients_.insert(clients_.end(), client{});
    who->fd = fd;
    who->user = peer.uid;
    who->writes = own || is_in(groups, writers_);
    try {
        turns_.watch(fd, EPOLLIN, [this, who](uint32_t events) { on_client(who, events); });
    } catch (const std::runtime_error &) {
        close(fd);
        clients_.erase(who);
        return;
    }
    take_place(who, own, is_in(groups, readers_));
}

void control::take_place(client_at who, bool own, bool reads)
{
    const size_t most = own ? MOST_CLIENTS : who->writes ? MOST_CLIENTS_BUT_OWN : MOST_READERS;
    const auto of_user =
        std::count_if(clients_.begin(), clients_.end(), [&](const client &each) { return each.user == who->user; });
    json error;
    if (!who->writes && !reads) {
        error = error_of("not_allowed", "only for the groups kap-read and kap-admin");
    } else if (clients_.size() > most || (who->user != 0 && of_user > static_cast<ptrdiff_t>(MOST_CLIENTS_OF_A_USER))) {
        error = error_of("busy", "too many are connected");
    } else {
        return;
    }
    error["v"] = VERSION;
    error["id"] = nullptr;
    who->out += line_of(error);
    (void)write(*who);
    drop(who);
}

void control::pause_listening()
{
    constexpr int64_t PAUSE_MS = 1000;
    turns_.change(listening_, 0);
    if (pause_ == 0) {
        pause_ = turns_.after(PAUSE_MS, [this] {
            pause_ = 0;
            turns_.change(listening_, EPOLLIN);
        });
    }
}

void control::listen_again()
{
    if (pause_ != 0) {
        turns_.cancel(pause_);
        pause_ = 0;
        turns_.change(listening_, EPOLLIN);
    }
}

void control::drop(client_at who)
{
    turns_.forget(who->fd);
    close(who->fd);
    if (who->queued) {
        queue_.erase(std::find(queue_.begin(), queue_.end(), who));
    }
    clients_.erase(who);
    listen_again();
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
    who.in.erase(0, who.taken);
    who.looked -= who.taken;
    who.taken = 0;
    who.in.append(room.data(), static_cast<size_t>(n));
    return true;
}

// False: it takes nothing any more.
bool control::write(client &who)
{
    if (who.gone) {
        who.sent = who.out.size();
    }
    while (who.sent < who.out.size()) {
        const ssize_t n = send(who.fd, who.out.data() + who.sent, who.out.size() - who.sent, MSG_NOSIGNAL);
        if (n < 0 && (errno == EPIPE || errno == ECONNRESET)) {
            who.gone = true;
            who.sent = who.out.size();
            break;
        }
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

// It is not read while a line of it waits: what it has in memory is one line and what came with it.
void control::watch(client &who)
{
    const bool has_output = who.sent < who.out.size();
    const bool reads = !who.reads_closed && !who.ending && has_room(who) && !has_line(who);
    turns_.change(who.fd, (reads ? uint32_t{EPOLLIN} : 0U) | (has_output ? uint32_t{EPOLLOUT} : 0U));
}

void control::on_client(client_at who, uint32_t events)
{
    bool alive = (events & EPOLLERR) == 0;
    who->gone = who->gone || (events & EPOLLHUP) != 0;
    if (alive && (events & EPOLLIN) != 0) {
        alive = read(*who);
        if (alive && !has_line(*who) && who->in.size() > LONGEST_LINE) {
            refuse_long_line(*who);
        }
    }
    if (!alive) {
        drop(who);
        return;
    }
    settle(who);
}

// ---- Turns ---------------------------------------------------------------------------------------------------------

bool control::has_room(const client &who) { return who.out.size() - who.sent < MUCH_TO_TAKE; }

bool control::has_line(client &who)
{
    const size_t end = who.in.find('\n', who.looked);
    who.looked = end == std::string::npos ? who.in.size() : end;
    return end != std::string::npos;
}

// What is not done for want of room is done when the client has taken what there is: epoll tells of that.
bool control::has_work(client &who)
{
    return !who.ending && has_room(who) && (has_line(who) || (who.follows && !who.follows->live));
}

void control::go_on(client_at who)
{
    if (who->queued || !has_work(*who)) {
        return;
    }
    who->queued = true;
    queue_.push_back(who);
    if (turn_ == 0) {
        turn_ = turns_.after(0, [this] { serve_queue(); });
    }
}

void control::serve_queue()
{
    const int64_t end = boot_us() + TURN_US;
    for (size_t done = 0; !queue_.empty() && done < LINES_IN_A_TURN && (done == 0 || boot_us() < end); done++) {
        const client_at who = queue_.front();
        queue_.pop_front();
        who->queued = false;
        do_next(*who);
        settle(who);
    }
    turn_ = queue_.empty() ? 0 : turns_.after(0, [this] { serve_queue(); });
}

void control::do_next(client &who)
{
    if (!has_line(who)) {
        tell_past(who);
        return;
    }
    const std::string line = who.in.substr(who.taken, who.looked - who.taken);
    who.looked++;
    who.taken = who.looked;
    if (line.size() > LONGEST_LINE) {
        refuse_long_line(who);
    } else {
        answer(who, line);
    }
}

// Hands on what can be handed on, and sees to what comes next: its turn, its end, or what epoll tells.
void control::settle(client_at who)
{
    if (!write(*who)) {
        drop(who);
        return;
    }
    // One that has closed its side while it follows has gone: nobody tells otherwise.
    if ((who->reads_closed || who->gone) && !has_line(*who)) {
        who->follows.reset();
    }
    if (who->out.empty() && (who->ending || (who->reads_closed && !has_line(*who)))) {
        drop(who);
        return;
    }
    go_on(who);
    watch(*who);
}

void control::refuse_long_line(client &who)
{
    json error = error_of("bad_request", "a line is longer than " + std::to_string(LONGEST_LINE) + " bytes");
    error["v"] = VERSION;
    error["id"] = nullptr;
    who.out += line_of(error);
    who.ending = true;
    who.in.clear();
    who.taken = who.looked = 0;
}

void control::answer(client &who, const std::string &line)
{
    if (line.empty()) {
        return;
    }
    json id;
    json out;
    try {
        const json request = request_in(line);
        id = request.value("id", json());
        if (id.is_structured() || (id.is_string() && id.get_ref<const std::string &>().size() > LONGEST_ID)) {
            id = nullptr;
            refuse("bad_request", "\"id\" must be a number or a text of at most 128 bytes");
        }
        if (request.contains("v") && request["v"] != VERSION) {
            refuse("bad_request", "version 1 is spoken here");
        }
        if (text_in(request, "op", true) == "links") { // the one answer that is large: written, not built
            who.out += links_line(request, id);
            return;
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
    const std::pair<const char *, std::function<json()>> ops[] = {
        {"link", [&] { return one_link(request); }},   {"status", [&] { return status(); }},
        {"add", [&] { return add(request); }},         {"set", [&] { return set(request); }},
        {"delete", [&] { return remove(request); }},   {"reload", [&] { return reload(); }},
        {"rtt", [&] { return measure(request); }},     {"events", [&] { return events(who, request); }},
        {"history", [&] { return history(request); }}, {"samples", [&] { return samples(request); }}};
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

std::string control::links_line(const json &request, const json &id)
{
    const link_members wanted = members_in(request);
    std::string line = R"({"id":)" + id.dump(-1, ' ', false, json::error_handler_t::replace) + R"(,"links":[)";
    const char *separator = "";
    for (link_view &view : keeper_.views({boot_us(), real_us()})) {
        line += std::exchange(separator, ",");
        if ((wanted & member_bit("flaps_today")) != 0) {
            view = full(std::move(view));
        }
        append_json(line, view, wanted);
    }
    return line + R"(],"ok":true,"v":)" + std::to_string(VERSION) + "}\n";
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
    if (keeper_.declared().contains(link.name) || book_.is_kept(link.name)) {
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
    if (!link.rtt && request.contains("rtt")) {
        link.rtt = book_.measured_last(name);
    }
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
    // One that a declaration stands in the place of can be forgotten; what is declared stays.
    if (found == keeper_.declared().end() && !book_.is_kept(name)) {
        refuse("unknown_link", "there is no link \"" + name + "\"");
    }
    if (!book_.is_kept(name)) {
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
    link.rtt = link.rtt ? link.rtt : book_.measured_last(name); // "on" is as it was
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

// Of a name that was never heard of there is no past; of a link that is gone there is.
void control::expect_known(const std::string &link)
{
    if (!keeper_.declared().contains(link) && !past_.knows(link)) {
        refuse("unknown_link", "there is no link \"" + link + "\", and nothing is known of one");
    }
}

json control::events(client &who, const json &request)
{
    uint64_t since = id_in(request, "since", 0);
    const uint64_t before = id_in(request, "before", INT64_MAX);
    const bool newest = request.contains("newest");
    const uint64_t limit = std::min(number_in(request, "limit", MOST_EVENTS, MOST_EVENTS),
                                    number_in(request, "newest", MOST_EVENTS, MOST_EVENTS));
    const std::string link = text_in(request, "link", false);
    const bool follow = flag_in(request, "follow");
    if (!link.empty()) {
        expect_known(link);
    }
    if (follow && request.contains("before")) {
        refuse("bad_request", "\"before\" does not go with \"follow\"");
    }
    if (request.contains("since_us")) {
        since = std::max(since, past_.last_before(static_cast<int64_t>(number_in(request, "since_us", 0, INT64_MAX))));
    }
    // One more than is told says whether there is one.
    auto found = newest ? past_.latest(since, before, link, limit + 1) : past_.since(since, link, limit + 1);
    std::erase_if(found, [&](const link_change &change) { return change.id >= before; });
    const bool more = found.size() > limit;
    if (more) {
        found.erase(newest ? found.begin() : found.end() - 1);
    }
    json list = json::array();
    for (const link_change &change : found) {
        list.push_back(json_of(change));
    }
    if (follow) {
        // Whatever came after those is told out of the past first; of one that follows nothing yet, all is.
        const uint64_t last = newest ? std::max(since, past_.newest()) : found.empty() ? since : found.back().id;
        who.follows = follower{request.value("id", json()), link, last, false};
    }
    return {{"events", std::move(list)}, {"more", more}};
}

json control::history(const json &request)
{
    const std::string name = text_in(request, "name", true);
    expect_known(name);
    const auto from = static_cast<int64_t>(number_in(request, "from_us", 0, INT64_MAX));
    const auto to = static_cast<int64_t>(number_in(request, "to_us", INT64_MAX, INT64_MAX));
    return past_.history(name, from, to, number_in(request, "limit", MOST_EVENTS, MOST_EVENTS));
}

json control::samples(const json &request)
{
    const std::string name = text_in(request, "name", true);
    expect_known(name);
    const auto from = static_cast<int64_t>(number_in(request, "from_us", 0, INT64_MAX));
    const auto to = static_cast<int64_t>(number_in(request, "to_us", INT64_MAX, INT64_MAX));
    return {{"samples", past_.samples(name, from, to, number_in(request, "points", 1000, MOST_POINTS))}};
}

// Out of the past as long as the client takes it; from the newest on what comes is told as it comes.
void control::tell_past(client &who)
{
    if (!who.follows || who.follows->live) {
        return;
    }
    follower &at = *who.follows;
    const auto more = past_.since(at.told, at.link, EVENTS_AT_ONCE);
    for (const link_change &change : more) {
        at.told = change.id;
        who.out += line_of({{"v", VERSION}, {"id", at.id}, {"event", json_of(change)}});
    }
    at.live = more.empty();
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
        if (!has_room(who)) {
            at.live = false;
            continue;
        }
        at.told = change.id;
        who.out += line_of({{"v", VERSION}, {"id", at.id}, {"event", json_of(change)}});
        watch(who); // it is written in the loop's next turn
    }
}

} // namespace linkd
