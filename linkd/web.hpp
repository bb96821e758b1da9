// The web server: what it listens on, who is answered, and with what in every head. The paths are added by those whose
// they are, before it listens. What answers a request is called on one of a few threads (door.hpp); what it answers is
// gathered in memory, so that it never waits for who asked.
//
// Only loopback is listened on, and only who asks for a loopback name is answered: a page from elsewhere cannot have
// its own name stand for this machine, and it may not have a browser ask in its place.
#pragma once

#include "door.hpp"

#include <httplib.h>

#include <memory>
#include <string>

namespace linkd
{

// What the past knows after an event, as a stream has it.
struct past_events {
    std::string text;
    uint64_t told = 0; // the last one in `text`, or the one that was asked about
    bool more = false; // it was too much for one answer
};

class web : private httplib::Server
{
public:
    web();
    ~web() override; // ends every request
    web(const web &) = delete;
    web &operator=(const web &) = delete;

    httplib::Server &routes() { return *this; }

    // At `path` is a stream of events that begins with `first`, and goes on after the event that the request names as
    // since= or Last-Event-ID. The past is asked on threads of the server's; it throws where it cannot be asked, and
    // the stream ends.
    void stream(const std::string &path, const std::string &first, std::function<past_events(uint64_t)> past);
    // An event for every stream, after all that the past knew before. From any thread.
    void tell(uint64_t id, const std::string &text) { door_->tell(id, text); }

    // Throws std::runtime_error: not an address of loopback, not free, or no such group. Where a group is named, only
    // root, this program's own user and the members of that group are answered.
    void listen(const std::string &address, uint16_t port, const std::string &group = "");

    // What is being answered is to come to an end.
    bool is_ending() const { return door_->is_ending(); }

private:
    door::answer answer(const door::question &asked);

    std::function<past_events(uint64_t)> past_;
    std::unique_ptr<membership> members_;
    std::unique_ptr<door> door_;
};

} // namespace linkd
