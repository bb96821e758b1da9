#include "policy_file.hpp"

#include "itc_wire.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
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

namespace
{

struct mistake {
    toml::source_position at;
    std::string what;
};

// What is wrong with one file, in the order in which it was found.
struct file {
    std::vector<mistake> mistakes;

    void refuse(const toml::source_region &where, const std::string &what) { mistakes.push_back({where.begin, what}); }
};

// What a table may hold: for each key what to do with its value. Whatever else it holds is refused.
using keys = std::map<std::string_view, std::function<void(const toml::node &)>>;

void read_table(file &f, const toml::table &table, const keys &known)
{
    for (const auto &[key, value] : table) {
        const auto found = known.find(key.str());
        if (found == known.end()) {
            f.refuse(key.source(), "nothing is called \"" + std::string(key.str()) + "\" here");
        } else {
            found->second(value);
        }
    }
}

// Every table of an array of tables.
void read_tables(file &f, const toml::node &node, const char *name,
                 const std::function<void(const toml::table &)> &read)
{
    const toml::array *tables = node.as_array();
    if (tables == nullptr || !tables->is_array_of_tables()) {
        f.refuse(node.source(), std::string("write [[") + name + "]]");
        return;
    }
    for (const toml::node &table : *tables) {
        read(*table.as_table());
    }
}

void require(file &f, const toml::table &table, std::initializer_list<const char *> wanted)
{
    for (const char *key : wanted) {
        if (!table.contains(key)) {
            f.refuse(table.source(), std::string("lacks \"") + key + "\"");
        }
    }
}

std::function<void(const toml::node &)> text_to(file &f, std::string *to)
{
    return [&f, to](const toml::node &node) {
        const auto *text = node.as_string();
        if (text == nullptr || text->get().size() > itc_wire::name_limit ||
            text->get().find('\0') != std::string::npos) {
            f.refuse(node.source(), "must be a text of at most 255 bytes");
        } else {
            *to = text->get();
        }
    };
}

bool read_number(file &f, const toml::node &node, uint32_t first, uint32_t last, uint32_t *to)
{
    const auto *number = node.as_integer();
    if (number == nullptr || number->get() < first || number->get() > last) {
        f.refuse(node.source(), "must be a number from " + std::to_string(first) + " to " + std::to_string(last));
        return false;
    }
    *to = static_cast<uint32_t>(number->get());
    return true;
}

std::function<void(const toml::node &)> number_to(file &f, uint32_t first, uint32_t last, uint32_t *to)
{
    return [&f, first, last, to](const toml::node &node) { (void)read_number(f, node, first, last, to); };
}

// A list of texts; `take` returns what is wrong with one, or nothing.
void read_texts(file &f, const toml::node &node, const std::function<std::string(const std::string &)> &take)
{
    const toml::array *list = node.as_array();
    if (list == nullptr) {
        f.refuse(node.source(), "must be a list of texts");
        return;
    }
    for (const toml::node &entry : *list) {
        const auto *text = entry.as_string();
        const std::string bad = text == nullptr ? "must be a text" : take(text->get());
        if (!bad.empty()) {
            f.refuse(entry.source(), bad);
        }
    }
}

void people_to(file &f, keys &known, policy_people *people)
{
    known["users"] = [&f, people](const toml::node &node) {
        read_texts(f, node, [people](const std::string &name) {
            uid_t user = 0;
            const bool found = policy_find_user(name.c_str(), &user);
            people->users.push_back(user);
            return found ? "" : "there is no user \"" + name + "\"";
        });
    };
    known["groups"] = [&f, people](const toml::node &node) {
        read_texts(f, node, [people](const std::string &name) {
            gid_t group = 0;
            const bool found = policy_find_group(name.c_str(), &group);
            people->groups.push_back(group);
            return found ? "" : "there is no group \"" + name + "\"";
        });
    };
}

void require_people(file &f, const toml::table &table)
{
    if (!table.contains("users") && !table.contains("groups")) {
        f.refuse(table.source(), "lacks \"users\" or \"groups\"");
    }
}

void read_connect(file &f, const toml::node &node, policy &p)
{
    if (node.as_table() == nullptr) {
        f.refuse(node.source(), "write [connect]");
        return;
    }
    keys known;
    people_to(f, known, &p.guests);
    read_table(f, *node.as_table(), known);
}

void read_name(file &f, const toml::table &table, policy &p)
{
    policy_name name{};
    std::string exact;
    std::string prefix;
    keys known = {{"name", text_to(f, &exact)}, {"prefix", text_to(f, &prefix)}};
    people_to(f, known, &name.people);
    read_table(f, table, known);
    require_people(f, table);
    name.prefix = table.contains("prefix");
    name.name = name.prefix ? prefix : exact;
    if (table.contains("name") == name.prefix || name.name.empty()) {
        f.refuse(table.source(), "needs a \"name\" or a \"prefix\", one of them, and not empty");
    }
    p.names.push_back(name);
}

void read_service(file &f, const toml::table &table, policy &p)
{
    policy_service service{};
    std::string scope;
    keys known = {{"name", text_to(f, &service.name)}, {"scope", text_to(f, &scope)}};
    people_to(f, known, &service.people);
    read_table(f, table, known);
    require(f, table, {"name"});
    require_people(f, table);
    if (table.contains("scope")) {
        service.scope = scope;
    }
    p.services.push_back(service);
}

// One number, or [first, last].
void read_range(file &f, const toml::node &node, std::vector<std::pair<uint32_t, uint32_t>> *to)
{
    uint32_t first = 0;
    uint32_t last = 0;
    const toml::array *two = node.as_array();
    if (two == nullptr) {
        if (read_number(f, node, 0, UINT32_MAX, &first)) {
            to->emplace_back(first, first);
        }
    } else if (two->size() != 2) {
        f.refuse(node.source(), "must be a number, or [first, last]");
    } else if (read_number(f, *two->get(0), 0, UINT32_MAX, &first) &&
               read_number(f, *two->get(1), first, UINT32_MAX, &last)) {
        to->emplace_back(first, last);
    }
}

void read_numbers(file &f, const toml::node &node, std::vector<std::pair<uint32_t, uint32_t>> *to)
{
    const toml::array *list = node.as_array();
    if (list == nullptr || list->empty()) {
        f.refuse(node.source(), "must be a list of numbers");
        return;
    }
    for (const toml::node &entry : *list) {
        read_range(f, entry, to);
    }
}

void read_from(file &f, const toml::node &node, std::vector<std::string> *to)
{
    const auto *text = node.as_string();
    if (text != nullptr) {
        if (text->get() != "self") {
            f.refuse(node.source(), "must be \"self\", or a list of names");
        }
        return;
    }
    read_texts(f, node, [to](const std::string &name) {
        to->push_back(name);
        return name.empty() || name.size() > itc_wire::name_limit ? "must be a name of 1 to 255 bytes" : "";
    });
}

void read_only(file &f, const toml::table &table, policy_door &door)
{
    policy_rule rule;
    keys known = {{"numbers", [&](const toml::node &node) { read_numbers(f, node, &rule.numbers); }},
                  {"from", [&](const toml::node &node) { read_from(f, node, &rule.from); }}};
    people_to(f, known, &rule.people);
    read_table(f, table, known);
    require(f, table, {"numbers"});
    if (!table.contains("from") && !table.contains("users") && !table.contains("groups")) {
        f.refuse(table.source(), "lacks \"from\", \"users\" or \"groups\"");
    }
    door.rules.push_back(rule);
}

void read_share(file &f, const toml::table &table, policy_door &door)
{
    policy_share share{};
    keys known = {{"opens", number_to(f, 0, UINT32_MAX, &share.opens)},
                  {"opened", number_to(f, 0, UINT32_MAX, &share.opened)},
                  {"refused", number_to(f, 0, UINT32_MAX, &share.refused)},
                  {"closed", number_to(f, 0, UINT32_MAX, &share.closed)},
                  {"session_at", number_to(f, 4, 65536, &share.session_at)},
                  {"at_most", number_to(f, 0, 65536, &share.at_most)}};
    people_to(f, known, &share.people);
    read_table(f, table, known);
    require(f, table, {"opens", "opened", "refused", "closed", "session_at", "at_most"});
    require_people(f, table);
    door.shares.push_back(share);
}

void read_door(file &f, const toml::table &table, policy &p)
{
    policy_door door{};
    const keys known = {
        {"name", text_to(f, &door.name)},
        {"largest", number_to(f, sizeof(uint32_t), itc_wire::message_limit, &door.largest)},
        {"only",
         [&](const toml::node &node) {
             read_tables(f, node, "door.only", [&](const toml::table &only) { read_only(f, only, door); });
         }},
        {"share",
         [&](const toml::node &node) {
             read_tables(f, node, "door.share", [&](const toml::table &share) { read_share(f, share, door); });
         }},
    };
    read_table(f, table, known);
    require(f, table, {"name"});
    p.doors.push_back(door);
}

void read_policy(file &f, const toml::table &table, policy &p)
{
    const keys known = {
        {"connect", [&](const toml::node &node) { read_connect(f, node, p); }},
        {"name",
         [&](const toml::node &node) {
             read_tables(f, node, "name", [&](const toml::table &name) { read_name(f, name, p); });
         }},
        {"service",
         [&](const toml::node &node) {
             read_tables(f, node, "service", [&](const toml::table &service) { read_service(f, service, p); });
         }},
        {"door",
         [&](const toml::node &node) {
             read_tables(f, node, "door", [&](const toml::table &door) { read_door(f, door, p); });
         }},
    };
    read_table(f, table, known);
}

void read_file(const std::string &path, policy &p, std::vector<std::string> &wrong)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    if (!in.is_open() || !(text << in.rdbuf())) {
        wrong.push_back(path + ": cannot be read, or is empty");
        return;
    }
    const std::string bytes = text.str();
    const toml::parse_result parsed = toml::parse(bytes);
    file f;
    if (parsed) {
        read_policy(f, parsed.table(), p);
    } else {
        f.refuse(parsed.error().source(), std::string(parsed.error().description()));
    }
    std::stable_sort(f.mistakes.begin(), f.mistakes.end(),
                     [](const mistake &a, const mistake &b) { return a.at < b.at; });
    for (const mistake &m : f.mistakes) {
        wrong.push_back(path + ":" + std::to_string(m.at.line) + ":" + std::to_string(m.at.column) + ": " + m.what);
    }
}

bool is_policy_file(std::string_view name)
{
    constexpr std::string_view ending = ".toml";
    return name.size() > ending.size() && name[0] != '.' && name.substr(name.size() - ending.size()) == ending;
}

} // namespace

std::vector<std::string> policy_read(policy &p, const std::string &directory, size_t *files)
{
    std::vector<std::string> wrong;
    std::vector<std::string> names;
    *files = 0;
    DIR *dir = opendir(directory.c_str());
    if (dir == nullptr) {
        if (errno != ENOENT) {
            wrong.push_back(directory + ": " + strerror(errno));
        }
        return wrong;
    }
    while (const dirent *entry = readdir(dir)) {
        if (is_policy_file(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        std::string path = directory;
        read_file(path.append("/").append(name), p, wrong);
    }
    *files = names.size();
    return wrong;
}
