// The control socket, with a real peer that may do everything: it sends what the input says, in pieces, reads or leaves
// its answers, and goes. Each line is answered with one line of the protocol, and what was changed still makes sense.
// The first byte says how long the pieces are and whether the peer reads before it has sent all.
#include <algorithm>
#include <cerrno>
#include <fstream>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "control.hpp"
#include "directory.hpp"
#include "hub.hpp"
#include "input.hpp"

namespace
{

using namespace linkd;
using fuzz::Input;
using fuzz::require;
using nlohmann::json;

constexpr int MOST_TURNS = 4096;
constexpr size_t MOST_PIECES = 64;
constexpr size_t LONGEST_INPUT = size_t{500} * 1024;

class no_daemon : public sender
{
public:
    uint32_t send(const request &) override { return ++number_; }

private:
    uint32_t number_ = 0;
};

// Remembers everything, in memory.
class long_past : public no_past
{
public:
    void number(link_change &change) override
    {
        change.id = all_.size() + 1;
        all_.push_back(change);
    }
    uint64_t newest() override { return all_.size(); }
    std::vector<link_change> since(uint64_t since, const std::string &link, size_t limit) override
    {
        std::vector<link_change> out;
        for (size_t i = since; i < all_.size() && out.size() < limit; i++) {
            if (link.empty() || all_[i].link.name == link) {
                out.push_back(all_[i]);
            }
        }
        return out;
    }

private:
    std::vector<link_change> all_;
};

paths paths_in(const std::string &directory)
{
    paths where;
    where.links = directory + "/declared.toml";
    where.state = directory;
    where.control = directory + "/control.sock";
    return where;
}

// All that is behind the socket, begun anew for each input.
class manager
{
public:
    explicit manager(const std::string &directory)
        : where_(paths_in(directory)), book(where_), hub_(before_), keeps(nobody_, hub_, 8),
          control_(turns_, keeps, book, before_,
                   {[] { return true; },
                    [this] {
                        return keeps.declare(book.all(), {boot_us(), real_us()});
                    }})
    {
        require(book.load().empty(), "what is declared can be read");
        hub_.add(control_);
        keeps.declare(book.all(), {boot_us(), real_us()});
        keeps.published({boot_us(), real_us()});
        control_.listen(where_.control, {"", ""});
    }
    ~manager()
    {
        control_.stop();
        (void)unlink((where_.state + "/links.toml").c_str());
    }
    manager(const manager &) = delete;
    manager &operator=(const manager &) = delete;

    // Everything that waits is done once.
    void turn()
    {
        turns_.after(0, [this] { turns_.stop(0); });
        (void)turns_.run();
    }

    int connect_to() const
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        where_.control.copy(address.sun_path, sizeof address.sun_path - 1);
        require(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "connecting");
        return fd;
    }

private:
    paths where_;
    loop turns_;
    no_daemon nobody_;
    long_past before_;

public:
    link_book book;

private:
    hub hub_;

public:
    keeper keeps;

private:
    control control_;
};

// What the peer got.
struct heard {
    std::string text;
    bool over = false;

    void read(int fd)
    {
        char room[65536];
        ssize_t got = 0;
        while ((got = recv(fd, room, sizeof room, MSG_DONTWAIT)) > 0) {
            text.append(room, static_cast<size_t>(got));
        }
        over = over || got == 0 || (errno != EAGAIN && errno != EINTR);
    }

    // How many were answers; the rest are events.
    size_t check() const
    {
        size_t answers = 0;
        for (size_t at = 0; at < text.size();) {
            const size_t end = text.find('\n', at);
            require(end != std::string::npos, "what is said is whole lines");
            const json line = json::parse(text.begin() + static_cast<std::ptrdiff_t>(at),
                                          text.begin() + static_cast<std::ptrdiff_t>(end), nullptr, false);
            require(line.is_object() && line.value("v", 0) == 1 && line.contains("id"), "each is of the protocol");
            if (!line.contains("event")) {
                answers++;
                require(line.contains("ok") && line["ok"].is_boolean(), "an answer says whether it was done");
                require(line["ok"] == true || !line["error"].value("text", "").empty(), "who refuses says why");
            }
            at = end + 1;
        }
        return answers;
    }
};

size_t lines_in(const std::string &sent)
{
    size_t lines = 0;
    for (size_t at = 0, end = 0; (end = sent.find('\n', at)) != std::string::npos; at = end + 1) {
        lines += end > at ? 1 : 0;
    }
    return lines;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const fuzz::directory where;
    static const bool ready = bool(std::ofstream(where.path + "/declared.toml")
                                   << "[links.declared]\nport = \"IDL_A1\"\nvlan = 1\nfar = \"02:00:00:00:00:02\"\n");
    require(ready, "something is declared");
    if (size > LONGEST_INPUT) {
        return 0; // a line that is too long ends the talk
    }
    Input input(data, size);
    const uint8_t manner = input.byte();
    const std::string sent = input.text(size);
    const size_t piece = std::max<size_t>((manner & 0x7F) * size_t{16}, sent.size() / MOST_PIECES + 1);

    manager behind(where.path);
    const int fd = behind.connect_to();
    heard all;
    for (size_t at = 0; at < sent.size();) {
        const ssize_t taken = send(fd, sent.data() + at, std::min(piece, sent.size() - at), MSG_NOSIGNAL);
        at += taken > 0 ? static_cast<size_t>(taken) : 0;
        require(taken > 0 || errno == EAGAIN, "the peer is not let go while it speaks");
        behind.turn();
        if (taken < 0 || (manner & 0x80) != 0) {
            all.read(fd);
        }
    }
    (void)shutdown(fd, SHUT_WR);
    for (int turns = 0; turns < MOST_TURNS && !all.over; turns++) {
        behind.turn();
        all.read(fd);
    }
    require(all.over, "who says that he has done is let go");
    close(fd);
    require(all.check() == lines_in(sent), "each line is answered once");
    for (const auto &[name, link] : behind.keeps.declared()) {
        require(is_link_name(name), "a link's name is one");
    }
    link_book next(paths_in(where.path));
    require(next.load().empty(), "what is kept can be read again");
    require(next.all().size() == behind.book.all().size(), "and is what there was");
    return 0;
}
