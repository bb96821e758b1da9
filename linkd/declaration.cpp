// Reading and writing declarations (declaration.hpp). Both sources, TOML and JSON, go through the same checks.
#include "declaration.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <tuple>

// What the library asserts of a key does not hold of every text ("a%b = 1"), and it says what is wrong a few lines on.
// So it shall neither end the program there nor take it for granted.
#undef NDEBUG
#define TOML_ASSERT(condition) static_cast<void>(0)
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

#include "port_name_list.hpp"

namespace linkd
{

namespace
{

constexpr size_t LONGEST_NAME = 64;
constexpr int64_t LAST_VLAN = 4094;
constexpr int64_t LAST_MP = 63;
constexpr int64_t LEAST_BATCH = 2;
constexpr int64_t MOST_BATCH = 60;
constexpr int64_t MOST_INTERVAL = 30;
constexpr int64_t LEAST_FRAME = 64;
constexpr int64_t MOST_FRAME = 1500;
constexpr int64_t RTT_PERIOD = 60; // seconds; a whole number of batches fits in
constexpr size_t MOST_APP_LINKS = 4096;
constexpr size_t LARGEST_FILE = size_t{16} * 1024 * 1024;

std::string in_quotes(std::string_view text) { return "\"" + std::string(text) + "\""; }

// ---- Values, whatever they were written in; each gives what is wrong, or nothing -----------------------------------

int hex_digit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::optional<mac_bytes> mac_of(std::string_view text)
{
    constexpr size_t LENGTH = 17;
    mac_bytes mac{};
    if (text.size() != LENGTH) {
        return std::nullopt;
    }
    for (size_t i = 0; i < mac.size(); i++) {
        const int high = hex_digit(text[3 * i]);
        const int low = hex_digit(text[3 * i + 1]);
        if (high < 0 || low < 0 || (i + 1 < mac.size() && text[3 * i + 2] != ':')) {
            return std::nullopt;
        }
        mac.at(i) = static_cast<uint8_t>(high * 16 + low);
    }
    return mac;
}

std::string take_mac(std::string_view text, mac_bytes &mac)
{
    const auto read = mac_of(text);
    if (!read) {
        return in_quotes(text) + " is no MAC address like \"02:00:00:00:00:02\"";
    }
    if (*read == mac_bytes{}) {
        return "the address is zero";
    }
    if (((*read)[0] & 1) != 0) {
        return in_quotes(text) + " is the address of a group, not of one station";
    }
    mac = *read;
    return "";
}

std::string take_port(const std::string &text, std::string &port)
{
    std::string name = port_name_of(text);
    if (name.empty()) {
        return "there is no port " + in_quotes(text) + "; there are " + port_name_list();
    }
    port = std::move(name);
    return "";
}

template <class Number> std::string take_number(int64_t value, int64_t least, int64_t most, Number &to)
{
    if (value < least || value > most) {
        return "must be a number from " + std::to_string(least) + " to " + std::to_string(most);
    }
    to = static_cast<Number>(value);
    return "";
}

std::string wrong_with(const rtt_wish &rtt)
{
    const int64_t seconds = int64_t{rtt.batch} * rtt.interval;
    return seconds <= RTT_PERIOD && RTT_PERIOD % seconds == 0
               ? ""
               : "a minute must hold a whole number of batches; one takes " + std::to_string(seconds) + " s here";
}

// ---- What is wrong with a link in itself ---------------------------------------------------------------------------

std::string wrong_with(const app_pair &pair, const mac_bytes &far)
{
    if (pair.near == far || pair.far == far) {
        return "an application has the far end's address";
    }
    return pair.near == pair.far ? "both applications of the pair have the same address" : "";
}

// Ascending, with their places; gives a place and what is wrong, if something is.
std::optional<std::pair<file_place, std::string>> order_app_links(declaration &link)
{
    std::vector<std::pair<app_pair, file_place>> all;
    for (size_t i = 0; i < link.app_links.size(); i++) {
        all.emplace_back(link.app_links[i], i < link.app_links_at.size() ? link.app_links_at[i] : link.at);
    }
    std::stable_sort(all.begin(), all.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    std::optional<std::pair<file_place, std::string>> wrong;
    for (size_t i = 0; i < all.size(); i++) {
        link.app_links[i] = all[i].first;
        if (i < link.app_links_at.size()) {
            link.app_links_at[i] = all[i].second;
        }
        const std::string what = i > 0 && all[i].first == all[i - 1].first
                                     ? "the pair of applications stands here twice"
                                     : wrong_with(all[i].first, link.key.far);
        if (!what.empty() && !wrong) {
            wrong = {all[i].second, what};
        }
    }
    return wrong;
}

// ---- Reading TOML --------------------------------------------------------------------------------------------------

struct mistake {
    toml::source_position at;
    std::string what;
};

class reader
{
public:
    reader(std::string file, bool declared) : file_(std::move(file)), declared_(declared) {}

    void read(const toml::table &document, declarations &links)
    {
        for (const auto &[key, value] : document) {
            if (key.str() != "links") {
                refuse(key.source(), "nothing is called " + in_quotes(key.str()) + " here; write [links.NAME]");
            } else if (const toml::table *table = value.as_table(); table != nullptr) {
                read_all(*table, links);
            } else {
                refuse(value.source(), "write [links.NAME]");
            }
        }
    }

    void refuse(const toml::source_region &where, const std::string &what) { mistakes_.push_back({where.begin, what}); }

    void tell(std::vector<std::string> &lines)
    {
        std::stable_sort(mistakes_.begin(), mistakes_.end(),
                         [](const mistake &a, const mistake &b) { return a.at < b.at; });
        for (const mistake &m : mistakes_) {
            lines.push_back(text_of(file_place{file_, m.at.line, m.at.column}) + m.what);
        }
    }

private:
    using taker = std::function<void(const toml::node &)>;

    file_place place_of(const toml::source_region &where) const
    {
        return {file_, where.begin.line, where.begin.column};
    }

    void read_keys(const toml::node &node, const char *written, const std::map<std::string_view, taker> &known)
    {
        const toml::table *table = node.as_table();
        if (table == nullptr) {
            refuse(node.source(), std::string("write ") + written);
            return;
        }
        for (const auto &[key, value] : *table) {
            const auto found = known.find(key.str());
            if (found == known.end()) {
                refuse(key.source(), "nothing is called " + in_quotes(key.str()) + " here");
            } else {
                found->second(value);
            }
        }
    }

    void text_to(const toml::node &node, const std::function<std::string(const std::string &)> &take)
    {
        const auto *text = node.as_string();
        const std::string wrong = text == nullptr ? "must be a text" : take(text->get());
        if (!wrong.empty()) {
            refuse(node.source(), wrong);
        }
    }

    template <class Number> void number_to(const toml::node &node, int64_t least, int64_t most, Number &to)
    {
        const auto *number = node.as_integer();
        const std::string wrong = take_number(number == nullptr ? least - 1 : number->get(), least, most, to);
        if (!wrong.empty()) {
            refuse(node.source(), wrong);
        }
    }

    void lacks(const toml::source_region &where, const toml::node &table, const char *key, const std::string &what)
    {
        if (table.is_table() && !table.as_table()->contains(key)) {
            refuse(where, what + " lacks " + in_quotes(key));
        }
    }

    void read_app_link(const toml::node &node, declaration &link)
    {
        app_pair pair;
        read_keys(node, "{ near = \"MAC\", far = \"MAC\" }",
                  {{"near",
                    [&](const toml::node &value) {
                        text_to(value, [&](const std::string &text) { return take_mac(text, pair.near); });
                    }},
                   {"far", [&](const toml::node &value) {
                        text_to(value, [&](const std::string &text) { return take_mac(text, pair.far); });
                    }}});
        lacks(node.source(), node, "near", "the pair");
        lacks(node.source(), node, "far", "the pair");
        link.app_links.push_back(pair);
        link.app_links_at.push_back(place_of(node.source()));
    }

    void read_app_links(const toml::node &node, declaration &link)
    {
        const toml::array *list = node.as_array();
        if (list == nullptr) {
            refuse(node.source(), "must be a list of pairs: [{ near = \"MAC\", far = \"MAC\" }]");
        } else if (list->size() > MOST_APP_LINKS) {
            refuse(node.source(), "must be at most " + std::to_string(MOST_APP_LINKS) + " pairs");
        } else {
            for (const toml::node &entry : *list) {
                read_app_link(entry, link);
            }
        }
    }

    void read_rtt(const toml::node &node, declaration &link)
    {
        if (const auto *flag = node.as_boolean(); flag != nullptr) {
            link.rtt = flag->get() ? std::optional(rtt_wish{}) : std::nullopt;
            return;
        }
        rtt_wish rtt;
        const size_t before = mistakes_.size();
        read_keys(
            node, "true, false, or { batch = 5, interval = 1, frame_bytes = 64 }",
            {{"batch", [&](const toml::node &v) { number_to(v, LEAST_BATCH, MOST_BATCH, rtt.batch); }},
             {"interval", [&](const toml::node &v) { number_to(v, 1, MOST_INTERVAL, rtt.interval); }},
             {"frame_bytes", [&](const toml::node &v) { number_to(v, LEAST_FRAME, MOST_FRAME, rtt.frame_bytes); }}});
        const std::string wrong = mistakes_.size() == before ? wrong_with(rtt) : "";
        if (!wrong.empty()) {
            refuse(node.source(), wrong);
        }
        link.rtt = rtt;
    }

    void read_link(const toml::key &key, const toml::node &node, declarations &links)
    {
        declaration link;
        link.name = key.str();
        link.declared = declared_;
        link.at = place_of(key.source());
        const size_t before = mistakes_.size();
        if (!is_link_name(link.name)) {
            refuse(key.source(), "a link's name is 1 to 64 letters, digits, \"-\", \"_\" and \".\"");
        }
        const std::string written = "[links." + link.name + "]";
        read_keys(node, written.c_str(),
                  {{"port",
                    [&](const toml::node &value) {
                        text_to(value, [&](const std::string &text) { return take_port(text, link.key.port); });
                    }},
                   {"vlan", [&](const toml::node &value) { number_to(value, 1, LAST_VLAN, link.key.vlan); }},
                   {"far",
                    [&](const toml::node &value) {
                        link.far_at = place_of(value.source());
                        text_to(value, [&](const std::string &text) { return take_mac(text, link.key.far); });
                    }},
                   {"near_mp", [&](const toml::node &value) { number_to(value, 1, LAST_MP, link.key.near_mp); }},
                   {"app_links", [&](const toml::node &value) { read_app_links(value, link); }},
                   {"rtt", [&](const toml::node &value) { read_rtt(value, link); }}});
        for (const char *needed : {"port", "vlan", "far"}) {
            lacks(key.source(), node, needed, in_quotes(link.name));
        }
        if (mistakes_.size() == before) {
            add(std::move(link), links);
        }
    }

    void add(declaration link, declarations &links)
    {
        if (const auto wrong = order_app_links(link)) {
            mistakes_.push_back({{wrong->first.line, wrong->first.column}, wrong->second});
            return;
        }
        const auto found = links.find(link.name);
        if (found != links.end()) {
            mistakes_.push_back({{link.at.line, link.at.column},
                                 "there is a link " + in_quotes(link.name) + " already: " + found->second.at.file +
                                     ":" + std::to_string(found->second.at.line)});
            return;
        }
        links.emplace(link.name, std::move(link));
    }

    void read_all(const toml::table &table, declarations &links)
    {
        for (const auto &[key, value] : table) {
            read_link(key, value, links);
        }
    }

    std::string file_;
    bool declared_;
    std::vector<mistake> mistakes_;
};

// ---- Files ---------------------------------------------------------------------------------------------------------

void read_file(const std::string &file, bool may_be_away, declarations &links, std::vector<std::string> &mistakes)
{
    std::error_code error;
    if (may_be_away && !std::filesystem::exists(file, error) && !error) {
        return;
    }
    std::ifstream stream(file, std::ios::binary);
    std::stringstream text;
    const uintmax_t size = stream ? std::filesystem::file_size(file, error) : 0;
    if (!stream || error || size > LARGEST_FILE || (size > 0 && !(text << stream.rdbuf()))) {
        mistakes.push_back(file + ": cannot be read");
        return;
    }
    read_links(text.str(), file, true, links, mistakes);
}

std::vector<std::string> files_beside(const std::string &file, std::vector<std::string> &mistakes)
{
    std::filesystem::path directory(file);
    directory.replace_extension(".d");
    std::vector<std::string> files;
    std::error_code error;
    for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
        // Not what an editor leaves beside a file: ".#name.toml".
        if (at->path().extension() == ".toml" && !at->path().filename().string().starts_with('.')) {
            files.push_back(at->path().string());
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        mistakes.push_back(directory.string() + ": cannot be read: " + error.message());
    }
    std::sort(files.begin(), files.end());
    return files;
}

void add_conflicts(const declarations &links, std::vector<std::string> &mistakes)
{
    const auto all = conflicts(links);
    mistakes.insert(mistakes.end(), all.begin(), all.end());
}

// ---- Between links -------------------------------------------------------------------------------------------------

// Where a link can be found that another is told to be at odds with.
std::string whose(const declaration &link)
{
    return "the link " + in_quotes(link.name) +
           (link.at.line == 0 ? "" : ", " + link.at.file + ":" + std::to_string(link.at.line));
}

struct odds {
    file_place at;
    std::string what;
};

// What the daemon looks links up by when it holds one against the others.
class met_links
{
public:
    // What the link is at odds with among those that were added; then it is one of them.
    std::vector<odds> add(const declaration &link)
    {
        std::vector<odds> all;
        const auto same = keys_.emplace(link.key, &link);
        if (!same.second) {
            all.push_back({link.at, "it has port, VLAN, processor and far end of " + whose(*same.first->second)});
        }
        far_end(link, all);
        for (size_t i = 0; i < link.app_links.size(); i++) {
            app_link(link, i, all);
        }
        return all;
    }

private:
    using in_vlan = std::pair<uint16_t, mac_bytes>;
    // One on each port is enough to be at odds with all links of other ports.
    using by_port = std::map<std::string, const declaration *>;

    static const declaration *on_other_port(const by_port &ports, const std::string &port)
    {
        const auto found =
            std::find_if(ports.begin(), ports.end(), [&](const auto &entry) { return entry.first != port; });
        return found == ports.end() ? nullptr : found->second;
    }

    void far_end(const declaration &link, std::vector<odds> &all)
    {
        by_port &ports = far_ends_[{link.key.vlan, link.key.far}];
        if (const declaration *other = on_other_port(ports, link.key.port); other != nullptr) {
            all.push_back({link.far_at.line == 0 ? link.at : link.far_at,
                           "in this VLAN another port reaches that far end: " + whose(*other)});
        }
        ports.emplace(link.key.port, &link);
    }

    void app_link(const declaration &link, size_t i, std::vector<odds> &all)
    {
        by_port &ports = applications_[{link.key.vlan, link.app_links[i].far}];
        if (const declaration *other = on_other_port(ports, link.key.port); other != nullptr) {
            all.push_back({i < link.app_links_at.size() ? link.app_links_at[i] : link.at,
                           "in this VLAN another port has a link to the application " + text_of(link.app_links[i].far) +
                               ": " + whose(*other)});
        }
        ports.emplace(link.key.port, &link);
    }

    std::map<link_key, const declaration *> keys_;
    std::map<in_vlan, by_port> far_ends_;
    std::map<in_vlan, by_port> applications_;
};

// ---- JSON ----------------------------------------------------------------------------------------------------------

using nlohmann::json;

std::string json_mac(const json &object, const char *member, mac_bytes &mac)
{
    const auto found = object.find(member);
    if (found == object.end() || !found->is_string()) {
        return std::string("must be a MAC address");
    }
    return take_mac(found->get_ref<const std::string &>(), mac);
}

template <class Number>
std::string json_number(const json &object, const char *member, int64_t least, int64_t most, Number &to)
{
    const auto found = object.find(member);
    if (found == object.end()) {
        return "";
    }
    // What is no whole number, or too large for one, is outside.
    const bool whole =
        found->is_number_integer() && (!found->is_number_unsigned() || found->get<uint64_t>() <= INT32_MAX);
    return take_number(whole ? found->get<int64_t>() : least - 1, least, most, to);
}

std::string json_app_links(const json &list, declaration &link)
{
    if (!list.is_array() || list.size() > MOST_APP_LINKS) {
        return "must be a list of at most " + std::to_string(MOST_APP_LINKS) + " pairs";
    }
    link.app_links.clear();
    link.app_links_at.clear();
    for (const json &entry : list) {
        app_pair pair;
        std::string wrong =
            entry.is_object() ? json_mac(entry, "near", pair.near) : "must be pairs of \"near\" and \"far\"";
        wrong = wrong.empty() ? json_mac(entry, "far", pair.far) : wrong;
        if (!wrong.empty()) {
            return wrong;
        }
        link.app_links.push_back(pair);
    }
    return "";
}

std::string json_rtt(const json &value, declaration &link)
{
    if (value.is_boolean()) {
        link.rtt = value.get<bool>() ? std::optional(link.rtt.value_or(rtt_wish{})) : std::nullopt;
        return "";
    }
    if (!value.is_object()) {
        return "must be true, false, or an object";
    }
    rtt_wish rtt = link.rtt.value_or(rtt_wish{});
    const std::pair<const char *, std::string> read[] = {
        {"batch: ", json_number(value, "batch", LEAST_BATCH, MOST_BATCH, rtt.batch)},
        {"interval: ", json_number(value, "interval", 1, MOST_INTERVAL, rtt.interval)},
        {"frame_bytes: ", json_number(value, "frame_bytes", LEAST_FRAME, MOST_FRAME, rtt.frame_bytes)}};
    for (const auto &[member, wrong] : read) {
        if (!wrong.empty()) {
            return member + wrong;
        }
    }
    link.rtt = rtt;
    return wrong_with(rtt);
}

std::string json_port(const json &object, declaration &link)
{
    const auto found = object.find("port");
    if (found == object.end()) {
        return "";
    }
    return found->is_string() ? take_port(found->get_ref<const std::string &>(), link.key.port) : "must be a text";
}

// The first member that is wrong, and what is.
std::string json_members(const json &request, declaration &link)
{
    const std::pair<const char *, std::function<std::string()>> members[] = {
        {"port", [&] { return json_port(request, link); }},
        {"vlan", [&] { return json_number(request, "vlan", 1, LAST_VLAN, link.key.vlan); }},
        {"far", [&] { return request.contains("far") ? json_mac(request, "far", link.key.far) : ""; }},
        {"near_mp", [&] { return json_number(request, "near_mp", 1, LAST_MP, link.key.near_mp); }},
        {"app_links", [&] { return request.contains("app_links") ? json_app_links(request["app_links"], link) : ""; }},
        {"rtt", [&] { return request.contains("rtt") ? json_rtt(request["rtt"], link) : ""; }}};
    for (const auto &[member, take] : members) {
        const std::string wrong = take();
        if (!wrong.empty()) {
            return std::string(member) + ": " + wrong;
        }
    }
    return "";
}

} // namespace

// ---- Interface -----------------------------------------------------------------------------------------------------

std::string text_of(const file_place &place)
{
    return place.line == 0 ? place.file + ": "
                           : place.file + ":" + std::to_string(place.line) + ":" + std::to_string(place.column) + ": ";
}

bool is_link_name(const std::string &name)
{
    return !name.empty() && name.size() <= LONGEST_NAME && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
               c == '.';
    });
}

std::string port_name_of(const std::string &written)
{
    const auto *found = std::find_if(std::begin(PORT_NAMES), std::end(PORT_NAMES), [&](const port_names &names) {
        return written == names.iemli || written == names.iepcsi;
    });
    return found == std::end(PORT_NAMES) ? "" : found->iemli;
}

void read_links(const std::string &text, const std::string &file, bool declared, declarations &links,
                std::vector<std::string> &mistakes)
{
    reader reads(file, declared);
    const toml::parse_result parsed = toml::parse(text);
    if (parsed) {
        reads.read(parsed.table(), links);
    } else {
        reads.refuse(parsed.error().source(), std::string(parsed.error().description()));
    }
    reads.tell(mistakes);
}

declarations read_link_files(const std::string &file, std::vector<std::string> &mistakes)
{
    declarations links;
    read_file(file, true, links, mistakes);
    for (const std::string &beside : files_beside(file, mistakes)) {
        read_file(beside, false, links, mistakes);
    }
    add_conflicts(links, mistakes);
    return links;
}

declarations read_link_files(const std::vector<std::string> &files, std::vector<std::string> &mistakes)
{
    declarations links;
    for (const std::string &file : files) {
        read_file(file, false, links, mistakes);
    }
    add_conflicts(links, mistakes);
    return links;
}

std::vector<std::string> conflicts(const declarations &links)
{
    std::vector<const declaration *> in_order;
    for (const auto &[name, link] : links) {
        in_order.push_back(&link);
    }
    const auto place = [](const declaration *link) {
        return std::tie(link->at.file, link->at.line, link->at.column, link->name);
    };
    std::sort(in_order.begin(), in_order.end(), [&](const auto *a, const auto *b) { return place(a) < place(b); });
    met_links met;
    std::vector<std::string> lines;
    for (const declaration *link : in_order) {
        for (const odds &each : met.add(*link)) {
            lines.push_back(text_of(each.at) + each.what);
        }
    }
    return lines;
}

std::string conflict_of(const declaration &link, const declarations &others)
{
    met_links met;
    for (const auto &[name, other] : others) {
        if (name != link.name) {
            (void)met.add(other);
        }
    }
    const auto all = met.add(link);
    return all.empty() ? "" : all.front().what;
}

std::string take_json(const nlohmann::json &request, bool all, declaration &link)
{
    for (const char *needed : {"port", "vlan", "far"}) {
        if (all && !request.contains(needed)) {
            return std::string("lacks \"") + needed + "\"";
        }
    }
    declaration changed = link;
    std::string wrong = json_members(request, changed);
    if (wrong.empty()) {
        const auto pairs = order_app_links(changed);
        wrong = pairs ? "app_links: " + pairs->second : "";
    }
    if (wrong.empty()) {
        link = std::move(changed);
    }
    return wrong;
}

std::string toml_of(const declarations &links)
{
    std::ostringstream text;
    for (const auto &[name, link] : links) {
        text << "[links.\"" << name << "\"]\nport = \"" << link.key.port << "\"\nvlan = " << link.key.vlan
             << "\nfar = \"" << text_of(link.key.far) << "\"\nnear_mp = " << int{link.key.near_mp} << "\napp_links = [";
        const char *separator = "\n";
        for (const app_pair &pair : link.app_links) {
            text << separator << "  { near = \"" << text_of(pair.near) << "\", far = \"" << text_of(pair.far) << "\" }";
            separator = ",\n";
        }
        text << "]\nrtt = ";
        if (link.rtt) {
            text << "{ batch = " << link.rtt->batch << ", interval = " << link.rtt->interval
                 << ", frame_bytes = " << link.rtt->frame_bytes << " }\n\n";
        } else {
            text << "false\n\n";
        }
    }
    return text.str();
}

} // namespace linkd
