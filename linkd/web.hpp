// The web server: what it listens on, who is answered, and with what in every head. The paths are added by those whose
// they are, before it listens. It has threads of its own: what answers a request is called on one of these.
//
// Only loopback is listened on, and only who asks for a loopback name is answered: a page from elsewhere cannot have
// its own name stand for this machine.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace httplib
{
class Server;
}

namespace linkd
{

class web
{
public:
    web();
    ~web(); // ends every request
    web(const web &) = delete;
    web &operator=(const web &) = delete;

    httplib::Server &routes() { return *server_; }

    // Throws std::runtime_error: not an address of loopback, or not free.
    void listen(const std::string &address, uint16_t port);

private:
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    std::atomic<bool> ended_ = false;
};

} // namespace linkd
