// The control socket: JSON, a line each way, for people's tools. Who may what is told by the peer's credentials: root,
// this program's own user and the readers' group may look, root and the writers' group may change something.
//
// No peer holds anybody up: lines, clients and what waits to be sent are bounded; one that does not take its answers is
// not read, and one that follows the events and falls behind is told the rest out of the past when it takes more.
#pragma once

#include "keeper.hpp"
#include "link_book.hpp"
#include "loop.hpp"
#include "past.hpp"

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
        std::string in;
        size_t looked = 0; // so much of it holds no end of a line, from the last one on
        std::string out;
        size_t sent = 0; // of out
        bool reads_closed = false;
        std::optional<follower> follows;
    };

    using client_at = std::list<client>::iterator;

    void on_listen();
    void on_client(client_at who, uint32_t events);
    void drop(client_at who);
    bool read(client &who);
    bool write(client &who);
    void take_lines(client &who);
    void tell_past(client &who);
    void watch(client &who);

    void answer(client &who, const std::string &line);
    nlohmann::json respond(client &who, const nlohmann::json &request);
    nlohmann::json links();
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
    int64_t started_us_ = real_us();
};

} // namespace linkd
