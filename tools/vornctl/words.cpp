#include "words.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "port_names.hpp"

namespace vornctl
{

namespace
{

constexpr size_t LONGEST_NAME = 64;
constexpr size_t MAC_LENGTH = 17;

std::string bare(const std::string &port)
{
    std::string out;
    for (const char c : port) {
        if (c != '_') {
            out += static_cast<char>(toupper(static_cast<unsigned char>(c)));
        }
    }
    return out;
}

[[noreturn]] void wrong(const std::string &what) { throw failure(exits::wrong_use, what); }

std::vector<std::string> split(const std::string &word, char at)
{
    std::vector<std::string> parts(1);
    for (const char c : word) {
        if (c == at) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

unsigned number_word(const std::string &word, unsigned least, unsigned most, const char *what)
{
    const bool digits = !word.empty() && word.size() <= 6 &&
                        std::all_of(word.begin(), word.end(), [](unsigned char c) { return isdigit(c) != 0; });
    const unsigned long number = digits ? strtoul(word.c_str(), nullptr, 10) : 0;
    if (!digits || number < least || number > most) {
        wrong("\"" + word + "\" is no " + what + ", which is a number from " + std::to_string(least) + " to " +
              std::to_string(most));
    }
    return static_cast<unsigned>(number);
}

} // namespace

const std::vector<std::string> &port_names()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const auto &port : PORT_NAMES) {
            all.emplace_back(port.iemli);
        }
        return all;
    }();
    return names;
}

std::string people_port(const std::string &word)
{
    for (const std::string &name : port_names()) {
        if (bare(name) == bare(word)) {
            return name;
        }
    }
    return word;
}

bool same_port(const std::string &one, const std::string &other) { return bare(one) == bare(other); }

std::string mac_word(const std::string &word)
{
    bool good = word.size() == MAC_LENGTH;
    for (size_t i = 0; good && i < word.size(); ++i) {
        good = i % 3 == 2 ? word[i] == ':' || word[i] == '-' : isxdigit(static_cast<unsigned char>(word[i])) != 0;
    }
    if (!good) {
        wrong("\"" + word + "\" is no MAC address, which is six bytes as 02:00:00:00:00:01");
    }
    std::string mac = word;
    std::replace(mac.begin(), mac.end(), '-', ':');
    return mac;
}

nlohmann::json app_link_word(const std::string &word)
{
    const auto parts = split(word, ',');
    if (parts.size() != 2) {
        wrong("\"" + word + "\" is no app link, which is two MAC addresses: NEAR,FAR");
    }
    return {{"near", mac_word(parts[0])}, {"far", mac_word(parts[1])}};
}

nlohmann::json rtt_word(const std::string &word)
{
    if (word.empty()) {
        return true;
    }
    const auto parts = split(word, ',');
    if (parts.size() != 3) {
        wrong("\"" + word + "\" are no RTT settings, which are BATCH,SECONDS,BYTES as 5,1,64");
    }
    return {{"batch", number_word(parts[0], 2, 60, "batch")},
            {"interval", number_word(parts[1], 1, 30, "interval")},
            {"frame_bytes", number_word(parts[2], 64, 1500, "frame size")}};
}

std::string link_name_word(const std::string &word)
{
    const bool good = !word.empty() && word.size() <= LONGEST_NAME &&
                      std::all_of(word.begin(), word.end(),
                                  [](unsigned char c) { return isalnum(c) != 0 || c == '-' || c == '_' || c == '.'; });
    if (!good) {
        wrong("\"" + word + "\" is no name of a link, which is letters, digits, - _ . and at most 64 of them");
    }
    return word;
}

const std::vector<std::string> &state_words()
{
    static const std::vector<std::string> words = {"enabled", "disabled", "waiting",        "rejected",
                                                   "down",    "locked",   "no-connectivity"};
    return words;
}

bool selection::takes(const std::string &port, const std::string &state, const std::string &reason) const
{
    std::string said = reason;
    std::replace(said.begin(), said.end(), ' ', '-');
    const bool port_taken =
        ports.empty() || std::any_of(ports.begin(), ports.end(), [&](const auto &p) { return same_port(p, port); });
    const bool state_taken = states.empty() || std::any_of(states.begin(), states.end(), [&](const auto &s) {
                                 return s == state || (state == "disabled" && s == said);
                             });
    return port_taken && state_taken;
}

} // namespace vornctl
