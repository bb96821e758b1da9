#include "web.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace linkd
{
namespace
{

// Scripts, styles and data from here alone, and nobody frames the page.
constexpr const char *POLICY = "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
                               "img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

// All that is looked at. Nothing else gets as far as the library: what is not asked for is not compressed, and not
// given in a thousand pieces.
constexpr std::array<std::string_view, 5> KNOWN_FIELDS = {"host", "last-event-id", "sec-fetch-site", "sec-fetch-mode",
                                                          "transfer-encoding"};

constexpr size_t LONGEST_NUMBER = 18; // digits of one that fits

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

// A browser says whether a page from elsewhere has it ask. Such a page may lead to ours, and no more.
bool is_from_elsewhere(const httplib::Request &asked)
{
    const std::string site = asked.get_header_value("Sec-Fetch-Site");
    if (site.empty() || site == "same-origin" || site == "none") {
        return false;
    }
    return asked.path != "/" || asked.get_header_value("Sec-Fetch-Mode") != "navigate";
}

void refuse(httplib::Response &answer, int status, const std::string &text)
{
    answer.status = status;
    answer.set_content(text + "\n", "text/plain; charset=utf-8");
}

httplib::Server::HandlerResponse look_at(const httplib::Request &asked, httplib::Response &answer)
{
    constexpr auto HANDLED = httplib::Server::HandlerResponse::Handled;
    answer.set_header("Content-Security-Policy", POLICY);
    answer.set_header("X-Content-Type-Options", "nosniff");
    answer.set_header("Referrer-Policy", "no-referrer");
    answer.set_header("Cross-Origin-Resource-Policy", "same-origin");
    // Nobody sends anything here.
    if ((asked.method != "GET" && asked.method != "HEAD") || asked.has_header("Transfer-Encoding")) {
        answer.status = 405;
        return HANDLED;
    }
    if (!is_loopback_name(asked.get_header_value("Host"))) {
        refuse(answer, 403, "ask for 127.0.0.1 or localhost");
        return HANDLED;
    }
    if (is_from_elsewhere(asked)) {
        refuse(answer, 403, "asked by a page from elsewhere");
        return HANDLED;
    }
    return httplib::Server::HandlerResponse::Unhandled;
}

// For all but these the loop is asked, or may be.
bool is_dear(const std::string &head)
{
    constexpr std::array<std::string_view, 4> CHEAP = {"GET / ", "GET /page.", "GET /dygraph.", "GET /metrics "};
    return std::none_of(CHEAP.begin(), CHEAP.end(), [&](std::string_view each) { return head.starts_with(each); });
}

std::string whole_answer(const char *status, const std::string &text)
{
    return std::string("HTTP/1.1 ") + status +
           "\r\nConnection: close\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
           std::to_string(text.size()) + "\r\n\r\n" + text;
}

bool is_known_field(std::string_view line)
{
    std::string name(line.substr(0, line.find(':')));
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return name.size() < line.size() && std::find(KNOWN_FIELDS.begin(), KNOWN_FIELDS.end(), name) != KNOWN_FIELDS.end();
}

// The first line and the fields that are known; nothing where it is not made of lines of text.
std::string known_part(const std::string &head)
{
    if (std::any_of(head.begin(), head.end(),
                    [](unsigned char c) { return (c < ' ' && c != '\r' && c != '\n' && c != '\t') || c == 0x7f; })) {
        return "";
    }
    std::string known;
    for (size_t at = 0, end = 0; (end = head.find("\r\n", at)) != std::string::npos && end != at; at = end + 2) {
        const std::string_view line(head.data() + at, end - at);
        if (at == 0 || is_known_field(line)) {
            known.append(line).append("\r\n");
        }
    }
    return known.empty() ? "" : known + "\r\n";
}

// The library reads a request from it and writes its answer to it: nobody is waited for.
class in_memory : public httplib::Stream
{
public:
    explicit in_memory(const std::string &from) : from_(from) {}

    bool is_readable() const override { return at_ < from_.size(); }
    bool is_writable() const override { return true; }
    ssize_t read(char *to, size_t size) override
    {
        const size_t n = std::min(size, from_.size() - at_);
        memcpy(to, from_.data() + at_, n);
        at_ += n;
        return static_cast<ssize_t>(n);
    }
    ssize_t write(const char *from, size_t size) override
    {
        if (written.size() + size > door::LARGEST_ANSWER) {
            too_large = true;
            return -1;
        }
        written.append(from, size);
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string &, int &) const override {}
    void get_local_ip_and_port(std::string &, int &) const override {}
    socket_t socket() const override { return -1; }

    std::string written;
    bool too_large = false;

private:
    const std::string &from_;
    size_t at_ = 0;
};

// What the route of a stream has to say beside its answer; one request at a time is answered on a thread.
thread_local door::answer *being_answered = nullptr;

std::optional<uint64_t> number_of(const std::string &text)
{
    if (text.empty() || text.size() > LONGEST_NUMBER || text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    return std::stoull(text);
}

} // namespace

web::web()
{
    set_pre_routing_handler(look_at);
    set_exception_handler([](const httplib::Request &, httplib::Response &answer, const std::exception_ptr &) {
        refuse(answer, 500, "it could not be answered");
    });
    svr_sock_ = 0; // or else the library thinks that it is to end
    door_ = std::make_unique<door>([this](const door::question &asked) { return answer(asked); }, is_dear,
                                   door::refusals{whole_answer("403 Forbidden", "this user is not answered here\n"),
                                                  whole_answer("431 Request Header Fields Too Large", "too long\n")});
}

web::~web() { door_->end(); }

door::answer web::answer(const door::question &asked)
{
    door::answer told;
    if (asked.head.empty()) {
        const past_events more = past_(asked.told);
        return {more.text, true, more.told, more.more};
    }
    const std::string head = known_part(asked.head);
    in_memory stream(head);
    bool closed = false;
    being_answered = &told;
    (void)process_request(stream, true, closed, nullptr);
    being_answered = nullptr;
    told.bytes = stream.too_large         ? whole_answer("503 Service Unavailable", "too much for one answer\n")
                 : stream.written.empty() ? whole_answer("400 Bad Request", "no request\n")
                                          : std::move(stream.written);
    told.streams = told.streams && !stream.too_large;
    return told;
}

void web::stream(const std::string &path, const std::string &first, std::function<past_events(uint64_t)> past)
{
    past_ = std::move(past);
    Get(path, [this, first](const httplib::Request &asked, httplib::Response &answer) {
        const auto since = asked.has_param("since") ? number_of(asked.get_param_value("since")) : uint64_t{0};
        if (!since) {
            return refuse(answer, 400, "since is a number");
        }
        if (asked.method != "GET") {
            return;
        }
        // What a browser has seen when it connects again.
        past_events before;
        try {
            before = past_(number_of(asked.get_header_value("Last-Event-ID")).value_or(*since));
        } catch (const std::exception &why) {
            return refuse(answer, 503, why.what());
        }
        answer.set_header("Cache-Control", "no-store");
        answer.set_content_provider("text/event-stream", [text = first + before.text](size_t, httplib::DataSink &sink) {
            const bool taken = sink.write(text.data(), text.size());
            sink.done();
            return taken;
        });
        being_answered->streams = true;
        being_answered->told = before.told;
        being_answered->more = before.more;
    });
}

void web::listen(const std::string &address, uint16_t port, const std::string &group)
{
    if (!is_loopback(address)) {
        throw std::runtime_error("http: " + address + " is no address of loopback");
    }
    door::admitting admits;
    if (!group.empty()) {
        members_ = std::make_unique<membership>(group);
        admits = [this](std::optional<uid_t> user) { return user && members_->has(*user); };
    }
    door_->listen(address == "localhost" ? "127.0.0.1" : address, port, std::move(admits));
}

} // namespace linkd
