// Reading the settings (settings.hpp).
#include "settings.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

// What the library asserts of a key does not hold of every text ("a%b = 1"), and it says what is wrong a few lines on.
// So it shall neither end the program there nor take it for granted.
#undef NDEBUG
#define TOML_ASSERT(condition) static_cast<void>(0)
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

namespace linkd
{

namespace
{

constexpr int64_t MOST_DAYS = 3650;
constexpr int64_t MOST_MIB = 65536;
constexpr int64_t MOST_HOLD_DOWN_S = 86400;
constexpr int64_t MOST_FLAPS = 1000;
constexpr int64_t MOST_SECONDS = 300;
constexpr int64_t LAST_PORT = 65535;

using keys = std::map<std::string_view, std::function<void(const toml::node &)>>;

struct reader {
    std::vector<std::pair<toml::source_position, std::string>> mistakes;

    void refuse(const toml::source_region &where, const std::string &what) { mistakes.emplace_back(where.begin, what); }

    void table(const toml::node &node, const char *written, const keys &known)
    {
        const toml::table *all = node.as_table();
        if (all == nullptr) {
            refuse(node.source(), std::string("write ") + written);
            return;
        }
        for (const auto &[key, value] : *all) {
            const auto found = known.find(key.str());
            if (found == known.end()) {
                refuse(key.source(), "nothing is called \"" + std::string(key.str()) + "\" here");
            } else {
                found->second(value);
            }
        }
    }

    template <class Number> auto number(int64_t least, int64_t most, Number &to)
    {
        return [this, least, most, &to](const toml::node &node) {
            const auto *value = node.as_integer();
            if (value == nullptr || value->get() < least || value->get() > most) {
                refuse(node.source(), "must be a number from " + std::to_string(least) + " to " + std::to_string(most));
            } else {
                to = static_cast<Number>(value->get());
            }
        };
    }

    auto text(std::string &to, const std::function<std::string(const std::string &)> &wrong_with)
    {
        return [this, &to, wrong_with](const toml::node &node) {
            const auto *value = node.as_string();
            const std::string wrong = value == nullptr ? "must be a text" : wrong_with(value->get());
            if (!wrong.empty()) {
                refuse(node.source(), wrong);
            } else {
                to = value->get();
            }
        };
    }
};

std::string wrong_with_directory(const std::string &text)
{
    return text.starts_with('/') ? "" : "must be a path that begins with \"/\"";
}

// What a neighbour on a network can reach is not for this.
std::string wrong_with_address(const std::string &text)
{
    return text.empty() || text == "127.0.0.1" || text == "::1" ? ""
                                                                : "must be \"127.0.0.1\", \"::1\", or \"\" for none";
}

// Whether there is one is seen where it is needed.
std::string wrong_with_group(const std::string &text)
{
    return text.find_first_of(std::string(" :,\n\0", 5)) == std::string::npos ? "" : "must be the name of a group";
}

} // namespace

settings read_settings_text(const std::string &text, const std::string &file, std::vector<std::string> &mistakes)
{
    settings out;
    reader r;
    const toml::parse_result parsed = toml::parse(text);
    if (!parsed) {
        r.refuse(parsed.error().source(), std::string(parsed.error().description()));
    } else {
        r.table(parsed.table(), "a table",
                {{"history",
                  [&](const toml::node &node) {
                      r.table(node, "[history]",
                              {{"days", r.number(1, MOST_DAYS, out.history_days)},
                               {"max_mib", r.number(1, MOST_MIB, out.history_max_mib)}});
                  }},
                 {"notify",
                  [&](const toml::node &node) {
                      r.table(node, "[notify]",
                              {{"directory", r.text(out.notify_directory, wrong_with_directory)},
                               {"flap_changes", r.number(1, MOST_FLAPS, out.notify_flap_changes)},
                               {"flap_seconds", r.number(1, MOST_HOLD_DOWN_S, out.notify_flap_seconds)},
                               {"hold_down_s", r.number(0, MOST_HOLD_DOWN_S, out.notify_hold_down_s)},
                               {"seconds", r.number(1, MOST_SECONDS, out.notify_seconds)}});
                  }},
                 {"http", [&](const toml::node &node) {
                      r.table(node, "[http]",
                              {{"address", r.text(out.http_address, wrong_with_address)},
                               {"port", r.number(1, LAST_PORT, out.http_port)},
                               {"group", r.text(out.http_group, wrong_with_group)}});
                  }}});
    }
    std::stable_sort(r.mistakes.begin(), r.mistakes.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    for (const auto &[at, what] : r.mistakes) {
        mistakes.push_back(file + ":" + std::to_string(at.line) + ":" + std::to_string(at.column) + ": " + what);
    }
    return out;
}

settings read_settings(const std::string &path, std::vector<std::string> &mistakes)
{
    std::error_code error;
    if (!std::filesystem::exists(path, error) && !error) {
        return {};
    }
    std::ifstream stream(path, std::ios::binary);
    std::stringstream text;
    if (!stream || (stream.peek() != std::ifstream::traits_type::eof() && !(text << stream.rdbuf()))) {
        mistakes.push_back(path + ": cannot be read");
        return {};
    }
    return read_settings_text(text.str(), path, mistakes);
}

} // namespace linkd
