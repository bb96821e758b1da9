// The door of the web server: takes TCP connections, gathers the head of one request from each, has it answered, and
// writes the answer; then the connection ends, or it stays open as a stream of events. It knows nothing of HTTP but
// where a head ends.
//
// Whoever is outside is a stranger. One thread has all connections and waits for none of them, a few others answer, and
// those never see a socket: so a client that sends slowly, takes slowly or does nothing costs its place and no more.
// Connections, heads, answers and the time for each are bounded, of one user and of all. Where there is no room, who
// comes takes the place of the oldest connection of the user who has the most: nobody keeps another one out.
#pragma once

#include "peer.hpp"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace linkd
{

class door
{
public:
    static constexpr size_t LONGEST_HEAD = 8192;
    static constexpr size_t LARGEST_ANSWER = size_t{24} << 20;

    struct question {
        std::string head;  // up to its empty line; empty: a stream that has been told everything up to `told` ...
        uint64_t told = 0; // ... wants what comes then
    };
    struct answer {
        std::string bytes;
        bool streams = false; // it stays open: ...
        uint64_t told = 0;    // ... this was the last event in `bytes`, ...
        bool more = false;    // ... and there may be others after it already
    };
    // Called on threads of the door's, several at once.
    using answering = std::function<answer(const question &)>;
    // Whether that user is answered; nothing: it is not known whose connection it is. Called on one thread.
    using admitting = std::function<bool(std::optional<uid_t>)>;

    // What those get who are turned away, whole.
    struct refusals {
        std::string not_admitted;
        std::string head_too_long;
    };

    // Whether the answer to that head costs more than memory that lies ready: one user has one of these made at a time,
    // and they keep nobody from a cheap one.
    using weighing = std::function<bool(const std::string &)>;

    door(answering answers, weighing is_dear, refusals refused);
    ~door();
    door(const door &) = delete;
    door &operator=(const door &) = delete;

    // Throws std::runtime_error: not free, or not to be had.
    void listen(const std::string &address, uint16_t port, admitting admits = nullptr);
    // Ends every connection, and waits for what is being answered.
    void end();
    bool is_ending() const { return ending_; }

    // An event for every stream: its number, and its text as it is sent. It waits for nobody.
    void tell(uint64_t id, std::string text);

private:
    enum class phase {
        head,     // it sends
        asked,    // it is being answered
        takes,    // it takes its answer
        farewell, // it has its answer; it may close
        stream,
    };

    struct connection {
        uint64_t id = 0;
        int fd = -1;
        std::optional<uid_t> user;
        phase at = phase::head;
        int64_t until_ms = 0; // then it ends; of a stream on which nothing happens: then it gets a sign of life
        std::string in;
        std::string out;
        size_t sent = 0;
        size_t unread = 0; // what came beside the request
        bool has_closed = false;
        uint64_t told = 0;  // of a stream: the last event
        bool live = false;  // of a stream: it gets what comes, from `next` on
        bool asked = false; // of a stream: it waits for what was before
        uint64_t next = 0;
        uint32_t watched = 0;
    };

    struct job {
        uint64_t id = 0;
        std::optional<uid_t> user;
        bool dear = false;
        question what;
    };

    struct event {
        uint64_t number = 0; // in the order of telling
        uint64_t id = 0;
        std::shared_ptr<const std::string> text;
    };

    using connections = std::map<uint64_t, connection>; // in the order in which they came

    void run();
    void work();
    void wake();
    std::optional<job> next_job();

    void on_listen(int64_t now);
    void make_room(const std::optional<uid_t> &user);
    void make_room_for(connection &who, size_t bytes);
    bool drop_oldest(const std::optional<uid_t> &user, uint64_t but, bool with_output);
    void on_connection(uint64_t id, uint32_t events, int64_t now);
    bool read(connection &who, int64_t now);
    bool write(connection &who, int64_t now);
    void gather(connection &who, int64_t now);
    void say(connection &who, std::string text, int64_t now);
    void ask(connection &who, question what);
    void take_answers(int64_t now);
    void begin_stream(connection &who, const answer &told);
    bool feed(connection &who, int64_t now);
    void feed_streams(int64_t now);
    void look_at_clock(int64_t now);
    int wait_ms(int64_t now) const;
    void watch(connection &who);
    void drop(uint64_t id);

    const answering answers_;
    const weighing is_dear_;
    const refusals refused_;
    admitting admits_;
    peer_lookup peers_;
    int listening_ = -1;
    int epoll_ = -1;
    int wake_ = -1;
    bool listens_ = false;
    int64_t listens_again_ms_ = 0;
    connections connections_;
    uint64_t next_id_ = 2;
    size_t most_ = 0;
    size_t most_of_a_user_ = 0;
    std::thread thread_;
    std::vector<std::thread> workers_;
    std::atomic<bool> ending_ = false;

    std::mutex mutex_; // of what follows
    std::condition_variable wanted_;
    std::list<job> jobs_;
    std::multimap<std::optional<uid_t>, bool> running_; // what is being answered: for whom, and whether it is dear
    std::vector<std::pair<uint64_t, std::optional<answer>>> answered_;
    std::deque<event> events_; // the last ones
    uint64_t next_event_ = 0;
};

} // namespace linkd
