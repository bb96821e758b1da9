#include "output.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include <unistd.h>

#include "terminal.hpp"

namespace vornctl
{

namespace
{

// What is no text in a name must not end the program.
constexpr auto REPLACE = nlohmann::json::error_handler_t::replace;

bool is_terminal() { return isatty(STDOUT_FILENO) == 1; }

} // namespace

bool with_colour() { return is_terminal() && terminal_takes_codes() && terminal_wants_colour(); }

size_t columns() { return is_terminal() ? static_cast<size_t>(terminal_get_size().columns) : SIZE_MAX; }

void print_table(const std::vector<text_table::row> &rows)
{
    (void)fputs(text_table::draw(rows, columns(), with_colour()).c_str(), stdout);
}

void print_facts(const std::vector<std::pair<std::string, text_table::cell>> &facts)
{
    size_t widest = 0;
    for (const auto &[name, value] : facts) {
        widest = std::max(widest, text_table::width_of(name));
    }
    for (const auto &[name, value] : facts) {
        const std::string shown = with_colour() ? text_table::painted(value.text, value.paint) : value.text;
        (void)printf("%s  %s\n", text_table::fill(name, widest).c_str(), shown.c_str());
    }
}

void print_json(const json &value) { (void)fputs((value.dump(2, ' ', false, REPLACE) + "\n").c_str(), stdout); }

void print_json_members(const std::vector<std::pair<std::string, std::string>> &members)
{
    const char *before = "{\n  \"";
    for (const auto &[name, text] : members) {
        (void)fputs((before + name + "\": ").c_str(), stdout);
        (void)fputs(text.c_str(), stdout);
        before = ",\n  \"";
    }
    (void)fputs("\n}\n", stdout);
}

// Ends of lines are only between the parts: in a text they are escaped.
std::string inner_json(const json &value)
{
    std::string text;
    for (const char c : value.dump(2, ' ', false, REPLACE)) {
        text += c;
        text += c == '\n' ? "  " : "";
    }
    return text;
}

void print_json_line(const nlohmann::json &value)
{
    (void)fputs((value.dump(-1, ' ', false, REPLACE) + "\n").c_str(), stdout);
    (void)fflush(stdout);
}

text_table::colour colour_of_state(const std::string &state)
{
    using text_table::colour;
    if (state == "enabled") {
        return colour::good;
    }
    if (state == "disabled" || state == "rejected") {
        return colour::bad;
    }
    return state == "waiting" ? colour::warning : colour::faint;
}

std::string sparkline(const std::vector<double> &values)
{
    static const char *const bars[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    constexpr double TOP = 7;
    double least = -1;
    double greatest = -1;
    for (const double value : values) {
        if (value >= 0) {
            least = least < 0 ? value : std::min(least, value);
            greatest = std::max(greatest, value);
        }
    }
    std::string line;
    for (const double value : values) {
        if (value < 0) {
            line += " ";
        } else {
            const double height = greatest > least ? (value - least) / (greatest - least) : 0;
            line += bars[static_cast<size_t>(height * TOP + 0.5)];
        }
    }
    return line;
}

std::string text_in(const nlohmann::json &object, const char *name)
{
    const auto found = object.is_object() ? object.find(name) : object.end();
    return object.is_object() && found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

int64_t number_in(const nlohmann::json &object, const char *name)
{
    const auto found = object.is_object() ? object.find(name) : object.end();
    return object.is_object() && found != object.end() && found->is_number() ? found->get<int64_t>() : 0;
}

} // namespace vornctl
