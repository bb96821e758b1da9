#include "web.hpp"

#include <httplib.h>

#include <csignal>
#include <stdexcept>

namespace linkd
{
namespace
{

// A stream of events takes one for itself (page.cpp has their bound), so that some are left for the others.
constexpr size_t THREADS = 24;
constexpr time_t PATIENCE_S = 5; // with a client that sends its request, or takes its answer, slowly
constexpr size_t LARGEST_BODY = 4096;

// Scripts, styles and data from here alone, and nobody frames the page.
constexpr const char *POLICY = "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
                               "img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

bool is_loopback(const std::string &address)
{
    return address == "127.0.0.1" || address == "::1" || address == "localhost";
}

bool is_loopback_name(const std::string &host)
{
    if (host.starts_with('[')) {
        return host.substr(0, host.find(']') + 1) == "[::1]";
    }
    return is_loopback(host.substr(0, host.find(':')));
}

httplib::Server::HandlerResponse look_at(const httplib::Request &asked, httplib::Response &answer)
{
    answer.set_header("Content-Security-Policy", POLICY);
    answer.set_header("X-Content-Type-Options", "nosniff");
    answer.set_header("Referrer-Policy", "no-referrer");
    answer.set_header("Cross-Origin-Resource-Policy", "same-origin");
    // Nobody sends anything here; a body of any length would be taken into memory.
    if ((asked.method != "GET" && asked.method != "HEAD") || asked.has_header("Transfer-Encoding")) {
        answer.status = 405;
        answer.set_header("Connection", "close");
        return httplib::Server::HandlerResponse::Handled;
    }
    if (is_loopback_name(asked.get_header_value("Host"))) {
        return httplib::Server::HandlerResponse::Unhandled;
    }
    answer.status = 403;
    answer.set_content("ask for 127.0.0.1 or localhost\n", "text/plain; charset=utf-8");
    return httplib::Server::HandlerResponse::Handled;
}

} // namespace

web::web() : server_(std::make_unique<httplib::Server>())
{
    server_->new_task_queue = [] { return new httplib::ThreadPool(THREADS); };
    // What the library sets by itself would let another one have the same port.
    server_->set_socket_options([](socket_t socket) {
        const int on = 1;
        (void)setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
    server_->set_read_timeout(PATIENCE_S);
    server_->set_write_timeout(PATIENCE_S);
    server_->set_payload_max_length(LARGEST_BODY);
    server_->set_pre_routing_handler(look_at);
}

web::~web()
{
    server_->stop();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void web::listen(const std::string &address, uint16_t port)
{
    if (!is_loopback(address)) {
        throw std::runtime_error("http: " + address + " is no address of loopback");
    }
    if (!server_->bind_to_port(address, port)) {
        throw std::runtime_error("http: " + address + " port " + std::to_string(port) + " cannot be listened on");
    }
    // Signals are the loop's.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] {
        (void)server_->listen_after_bind();
        ended_ = true;
    });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    // A server that does not run yet cannot be stopped.
    while (!server_->is_running() && !ended_) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace linkd
