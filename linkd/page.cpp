#include "page.hpp"
#include "page_files.hpp"

#include "linkd_client.hpp"

#include <httplib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <memory>
#include <sstream>

namespace linkd
{
namespace
{

using linkd_client::connection;
using nlohmann::json;

constexpr std::chrono::seconds PATIENCE{5};    // with the control socket
constexpr std::chrono::milliseconds TURN{200}; // so soon it is seen that the server ends
// Of one answer: it is made in memory twice, here and where the history is.
constexpr uint64_t MOST_EVENTS = 1000;
constexpr uint64_t MOST_POINTS = 2000;
constexpr uint64_t EVENTS_AT_ONCE = 500; // on a stream

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

// What the control socket answers. Ends with the server, whether there is an answer or not.
json told_by(const web &server, const std::string &socket, const std::string &op, const json &request)
{
    connection control(socket);
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    const uint64_t id = control.send(op, request, TURN);
    for (;;) {
        try {
            return control.await(id, TURN);
        } catch (const linkd_client::failure &what) {
            if (what.kind != linkd_client::trouble::silent || server.is_ending() ||
                std::chrono::steady_clock::now() >= end) {
                throw;
            }
        }
    }
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

// No more than that, whether a number was given or not.
void bound(json &request, const char *name, uint64_t most)
{
    request[name] = std::min(request.value(name, most), most);
}

std::string event_text(const json &change)
{
    return "id: " + std::to_string(change.value("id", uint64_t{0})) +
           "\nevent: change\ndata: " + change.dump(-1, ' ', false, json::error_handler_t::replace) + "\n\n";
}

class page
{
public:
    page(const web &server, page_sources sources) : server_(server), sources_(std::move(sources)) {}

    // Answers with what the control socket answers to `op`; `mended` may change it before.
    template <typename MENDED>
    void pass(httplib::Response &answer, const std::string &op, const json &request, MENDED mended)
    {
        try {
            json told = told_by(server_, sources_.control, op, request);
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
        bound(request, "limit", MOST_EVENTS);
        if (request.contains("points")) {
            bound(request, "points", MOST_POINTS);
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
                const uint64_t newest =
                    told_by(server_, sources_.control, "status", json::object()).value("newest_event", uint64_t{0});
                const uint64_t wanted = latest["latest"];
                request["since"] = newest > wanted ? newest - wanted : 0;
            } catch (const linkd_client::failure &what) {
                return say_plainly(answer, status_of(what), what.what());
            }
        }
        bound(request, "limit", MOST_EVENTS);
        pass(answer, "events", request);
    }

    // Throws linkd_client::failure.
    past_events past(uint64_t after) const
    {
        past_events before{"", after, false};
        const json told = told_by(server_, sources_.control, "events", {{"since", after}, {"limit", EVENTS_AT_ONCE}});
        const json events = told.value("events", json::array());
        for (const json &change : events) {
            before.text += event_text(change);
            before.told = change.value("id", before.told);
        }
        before.more = events.size() >= EVENTS_AT_ONCE;
        return before;
    }

private:
    const web &server_;
    page_sources sources_;
};

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

void add_page(web &serves, const page_sources &sources)
{
    httplib::Server &server = serves.routes();
    add_file(server, "/", PAGE_INDEX_HTML, "text/html; charset=utf-8");
    add_file(server, "/page.js", PAGE_PAGE_JS, "text/javascript; charset=utf-8");
    add_file(server, "/page.css", PAGE_PAGE_CSS, "text/css; charset=utf-8");
    add_chart(server, "/dygraph.js", sources.charts + "/dygraph.min.js", "text/javascript; charset=utf-8");
    add_chart(server, "/dygraph.css", sources.charts + "/dygraph.min.css", "text/css; charset=utf-8");

    auto here = std::make_shared<page>(serves, sources);
    using request = const httplib::Request &;
    using response = httplib::Response &;
    server.Get("/api/links", [here](request, response answer) { here->links(answer); });
    server.Get("/api/status", [here](request, response answer) { here->pass(answer, "status", json::object()); });
    server.Get("/api/events", [here](request asked, response answer) { here->events(asked, answer); });
    server.Get("/api/history", [here](request asked, response answer) { here->of_link(asked, answer, "history"); });
    server.Get("/api/samples", [here](request asked, response answer) { here->of_link(asked, answer, "samples"); });
    serves.stream("/events", "retry: 2000\n\n", [here](uint64_t after) { return here->past(after); });
}

void page_news::changed(const link_change &change) { server_.tell(change.id, event_text(json_of(change))); }

} // namespace linkd
