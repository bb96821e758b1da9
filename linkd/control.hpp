// The control socket: JSON, a line each way, for people's tools. Who may what is told by the peer's credentials: root,
// this program's own user and the readers' group may look, root and the writers' group may change something.
//
// No peer holds anybody up: lines, clients and what waits to be sent are bounded; one that does not take its answers is
// not read, and one that follows the events and falls behind is told the rest out of the past when it takes more. Who
// has sent several requests at once waits for his turn between them: a line of each, and the loop goes on with other
// things after a few milliseconds. Readers cannot take all places: some are kept for writers, and more for root and
// this program's own user.
#pragma once

#include "keeper.hpp"
#include "link_book.hpp"
#include "loop.hpp"
#include "past.hpp"

#include <deque>
#include <functional>
#include <list>
#include <string>

namespace linkd
{

// What a request does that is more than a look.
struct control_actions {
    std::function<bool()> has_registry;
    // To be called when the book has changed: has the keeper do it.
    std::function<keeper::difference()> apply;
};

struct control_groups {
    std::string readers = "kap-read";
    std::string writers = "kap-admin";
};

class control : public listener
{
public:
    control(loop &turns, keeper &keeps, link_book &book, past &before, control_actions actions);
    ~control() override;
    control(const control &) = delete;
    control &operator=(const control &) = delete;

    // Throws std::runtime_error.
    void listen(const std::string &path, const control_groups &groups);

    // Lets everybody go; the socket is taken away.
    void stop();

    void changed(const link_change &change) override;

private:
    struct follower {
        nlohmann::json id; // of the request
        std::string link;  // only of this one; empty: of all
        uint64_t told = 0; // the last change that was told
        bool live = false; // nothing of the past is left to be told
    };

    struct client {
        int fd = -1;
        uid_t user = 0;
        bool writes = false;
        bool ending = false; // when its output is gone
        bool gone = false;   // nobody takes its output; what was asked for is done all the same
        bool queued = false; // it is among those that wait for their turn
        std::string in;
        size_t taken = 0;  // of in
        size_t looked = 0; // from `taken` up to here there is no end of a line
        std::string out;
        size_t sent = 0; // of out
        bool reads_closed = false;
        std::optional<follower> follows;
    };

    using client_at = std::list<client>::iterator;

    void on_listen();
    void take_place(client_at who, bool own, bool reads);
    void pause_listening();
    void listen_again();
    void on_client(client_at who, uint32_t events);
    void drop(client_at who);
    bool read(client &who);
    bool write(client &who);
    void watch(client &who);

    // Turns: whoever has something to be done is queued, and one line or one part of the past is done for the first.
    static bool has_room(const client &who);
    static bool has_line(client &who);
    static bool has_work(client &who);
    void go_on(client_at who);
    void serve_queue();
    void do_next(client &who);
    void settle(client_at who);
    static void refuse_long_line(client &who);
    void tell_past(client &who);

    void answer(client &who, const std::string &line);
    nlohmann::json respond(client &who, const nlohmann::json &request);
    std::string links_line(const nlohmann::json &request, const nlohmann::json &id);
    void expect_known(const std::string &link);
    nlohmann::json one_link(const nlohmann::json &request);
    nlohmann::json status();
    nlohmann::json add(const nlohmann::json &request);
    nlohmann::json set(const nlohmann::json &request);
    nlohmann::json remove(const nlohmann::json &request);
    nlohmann::json reload();
    nlohmann::json measure(const nlohmann::json &request);
    nlohmann::json events(client &who, const nlohmann::json &request);
    nlohmann::json history(const nlohmann::json &request);
    nlohmann::json samples(const nlohmann::json &request);
    nlohmann::json done();
    link_view full(link_view view);

    loop &turns_;
    keeper &keeper_;
    link_book &book_;
    past &past_;
    control_actions actions_;
    std::string path_;
    int listening_ = -1;
    std::optional<gid_t> readers_;
    std::optional<gid_t> writers_;
    std::list<client> clients_;
    std::deque<client_at> queue_;
    uint64_t turn_ = 0;  // the timer of the queue; 0: none
    uint64_t pause_ = 0; // the timer after which it listens again; 0: it listens
    int64_t started_us_ = real_us();
};

} // namespace linkd
