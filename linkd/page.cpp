#include "page.hpp"
#include "page_files.hpp"

#include "linkd_client.hpp"

#include <httplib.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <fstream>
#include <memory>
#include <sstream>

namespace linkd
{
namespace
{

using linkd_client::connection;
using nlohmann::json;

constexpr std::chrono::seconds PATIENCE{5};      // with the control socket
constexpr std::chrono::seconds SIGN_OF_LIFE{15}; // on a stream on which nothing happens
constexpr std::chrono::milliseconds TURN{300};   // so soon a stream sees that the server ends
constexpr int MOST_STREAMS = 16;                 // each takes a thread of the server's

void say_plainly(httplib::Response &answer, int status, const std::string &text)
{
    answer.status = status;
    answer.set_content(text + "\n", "text/plain; charset=utf-8");
}

int status_of(const linkd_client::failure &what)
{
    if (what.kind != linkd_client::trouble::refused) {
        return 503;
    }
    return what.code == "unknown_link" ? 404 : 400;
}

std::string host_name()
{
    std::array<char, 256> name = {};
    return gethostname(name.data(), name.size() - 1) == 0 ? std::string(name.data()) : std::string();
}

// The numbers among the request's parameters, as the control protocol takes them. False: one is none.
bool take_numbers(const httplib::Request &asked, std::initializer_list<const char *> names, json &into)
{
    for (const char *name : names) {
        if (!asked.has_param(name)) {
            continue;
        }
        const std::string text = asked.get_param_value(name);
        if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) {
            return false;
        }
        into[name] = std::stoull(text);
    }
    return true;
}

class page
{
public:
    explicit page(page_sources sources) : sources_(std::move(sources)) {}

    // Answers with what the control socket answers to `op`; `mended` may change it before.
    template <typename MENDED>
    void pass(httplib::Response &answer, const std::string &op, const json &request, MENDED mended)
    {
        try {
            connection control(sources_.control);
            json told = control.ask(op, request, PATIENCE);
            told.erase("v");
            told.erase("id");
            told.erase("ok");
            mended(told);
            answer.set_content(told.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
        } catch (const linkd_client::failure &what) {
            say_plainly(answer, status_of(what), what.what());
        }
    }

    void pass(httplib::Response &answer, const std::string &op, const json &request)
    {
        pass(answer, op, request, [](json &) {});
    }

    void links(httplib::Response &answer)
    {
        pass(answer, "links", json::object(), [](json &told) { told["host"] = host_name(); });
    }

    void of_link(const httplib::Request &asked, httplib::Response &answer, const std::string &op)
    {
        json request = {{"name", asked.get_param_value("link")}};
        if (!take_numbers(asked, {"from_us", "to_us", "limit", "points"}, request)) {
            return say_plainly(answer, 400, "from_us, to_us, limit and points are numbers");
        }
        pass(answer, op, request);
    }

    void events(const httplib::Request &asked, httplib::Response &answer)
    {
        json request = json::object();
        json latest = json::object();
        if (!take_numbers(asked, {"since", "limit"}, request) || !take_numbers(asked, {"latest"}, latest)) {
            return say_plainly(answer, 400, "since, limit and latest are numbers");
        }
        if (asked.has_param("link")) {
            request["link"] = asked.get_param_value("link");
        }
        if (latest.contains("latest")) {
            try {
                connection control(sources_.control);
                const uint64_t newest =
                    control.ask("status", json::object(), PATIENCE).value("newest_event", uint64_t{0});
                const uint64_t wanted = latest["latest"];
                request["since"] = newest > wanted ? newest - wanted : 0;
            } catch (const linkd_client::failure &what) {
                return say_plainly(answer, status_of(what), what.what());
            }
        }
        pass(answer, "events", request);
    }

    void stream(const httplib::Request &asked, httplib::Response &answer);

private:
    // One more stream, while it lives.
    struct seat {
        explicit seat(std::atomic<int> &all) : taken(all) { ++taken; }
        ~seat() { --taken; }
        seat(const seat &) = delete;
        seat &operator=(const seat &) = delete;
        std::atomic<int> &taken;
    };

    page_sources sources_;
    std::atomic<int> streams_ = 0;
};

std::string event_text(const json &change)
{
    return "id: " + std::to_string(change.value("id", uint64_t{0})) +
           "\nevent: change\ndata: " + change.dump(-1, ' ', false, json::error_handler_t::replace) + "\n\n";
}

void page::stream(const httplib::Request &asked, httplib::Response &answer)
{
    auto here = std::make_shared<seat>(streams_);
    if (streams_ > MOST_STREAMS) {
        return say_plainly(answer, 503, "too many look already");
    }
    json request = {{"follow", true}};
    if (!take_numbers(asked, {"since"}, request)) {
        return say_plainly(answer, 400, "since is a number");
    }
    const std::string last = asked.get_header_value("Last-Event-ID");
    if (!last.empty() && last.size() <= 18 && last.find_first_not_of("0123456789") == std::string::npos) {
        request["since"] = std::stoull(last); // what a browser has seen when it connects again
    }
    std::shared_ptr<connection> control;
    std::string first = "retry: 2000\n\n";
    try {
        control = std::make_shared<connection>(sources_.control);
        for (const json &change : control->ask("events", request, PATIENCE).value("events", json::array())) {
            first += event_text(change);
        }
    } catch (const linkd_client::failure &what) {
        return say_plainly(answer, status_of(what), what.what());
    }
    answer.set_header("Cache-Control", "no-store");
    answer.set_chunked_content_provider(
        "text/event-stream", [here, control, first,
                              told = std::chrono::steady_clock::now()](size_t offset, httplib::DataSink &sink) mutable {
            const auto now = std::chrono::steady_clock::now();
            std::string text = offset == 0 ? first : "";
            try {
                if (const auto line = offset == 0 ? std::nullopt : control->next_line(TURN);
                    line && line->contains("event")) {
                    text = event_text((*line)["event"]);
                } else if (text.empty() && now - told >= SIGN_OF_LIFE) {
                    text = ": here\n\n";
                }
            } catch (const linkd_client::failure &) {
                return false; // the browser connects again
            }
            if (text.empty()) {
                return true; // the server looks whether it is to end
            }
            told = now;
            return sink.write(text.data(), text.size());
        });
}

void add_chart(httplib::Server &server, const std::string &path, const std::string &file, const char *type)
{
    server.Get(path, [file, type](const httplib::Request &, httplib::Response &answer) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            return say_plainly(answer, 404, "no chart: " + file + " is not there");
        }
        std::ostringstream whole;
        whole << in.rdbuf();
        answer.set_content(whole.str(), type);
    });
}

void add_file(httplib::Server &server, const std::string &path, std::string_view text, const char *type)
{
    server.Get(path, [text, type](const httplib::Request &, httplib::Response &answer) {
        answer.set_content(text.data(), text.size(), type);
    });
}

} // namespace

void add_page(httplib::Server &server, const page_sources &sources)
{
    add_file(server, "/", PAGE_INDEX_HTML, "text/html; charset=utf-8");
    add_file(server, "/page.js", PAGE_PAGE_JS, "text/javascript; charset=utf-8");
    add_file(server, "/page.css", PAGE_PAGE_CSS, "text/css; charset=utf-8");
    add_chart(server, "/dygraph.js", sources.charts + "/dygraph.min.js", "text/javascript; charset=utf-8");
    add_chart(server, "/dygraph.css", sources.charts + "/dygraph.min.css", "text/css; charset=utf-8");

    auto here = std::make_shared<page>(sources);
    using request = const httplib::Request &;
    using response = httplib::Response &;
    server.Get("/api/links", [here](request, response answer) { here->links(answer); });
    server.Get("/api/status", [here](request, response answer) { here->pass(answer, "status", json::object()); });
    server.Get("/api/events", [here](request asked, response answer) { here->events(asked, answer); });
    server.Get("/api/history", [here](request asked, response answer) { here->of_link(asked, answer, "history"); });
    server.Get("/api/samples", [here](request asked, response answer) { here->of_link(asked, answer, "samples"); });
    server.Get("/events", [here](request asked, response answer) { here->stream(asked, answer); });
}

} // namespace linkd
