#include "complete.hpp"

#include <algorithm>
#include <cstdio>

#include "asking.hpp"
#include "masks.hpp"
#include "output.hpp"
#include "words.hpp"

namespace vornctl
{

namespace
{

std::vector<candidate> as_candidates(const std::vector<std::string> &words)
{
    std::vector<candidate> all;
    for (const std::string &word : words) {
        all.push_back({word, ""});
    }
    return all;
}

// An option that the word names; of the command itself or, where it has none, of one above it.
const CLI::Option *option_of(const CLI::App *app, const std::string &word)
{
    for (; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option *option : app->get_options()) {
            if (!option->get_positional() && option->check_name(word)) {
                return option;
            }
        }
    }
    return nullptr;
}

const CLI::App *subcommand_of(const CLI::App &app, const std::string &word)
{
    for (const CLI::App *one : app.get_subcommands([](const CLI::App *) { return true; })) {
        if (one->get_name() == word && !one->get_group().empty()) {
            return one;
        }
    }
    return nullptr;
}

std::vector<candidate> values_of(const CLI::Option &option, const living_names &names)
{
    if (option.check_name("--port")) {
        return as_candidates(port_names());
    }
    if (option.check_name("--state")) {
        return as_candidates(state_words());
    }
    return option.check_name("--link") ? as_candidates(names.links()) : std::vector<candidate>();
}

// What may stand where the command takes words: the `position`th of them.
std::vector<candidate> positionals_of(const CLI::App &app, size_t position, const living_names &names)
{
    size_t at = 0;
    for (const CLI::Option *option : app.get_options()) {
        if (!option->get_positional() || at++ != position) {
            continue;
        }
        const std::string name = option->get_name(true);
        if (name == "NAME") {
            const bool of_trace = app.get_parent() != nullptr && app.get_parent()->get_name() == "trace";
            return app.get_name() == "add" ? std::vector<candidate>()
                                           : as_candidates(of_trace ? names.traces() : names.links());
        }
        return name == "SWITCH" ? as_candidates({"on", "off"}) : std::vector<candidate>();
    }
    return {};
}

std::vector<candidate> options_of(const CLI::App *app)
{
    std::vector<candidate> all;
    for (; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option *option : app->get_options()) {
            const bool repeated = std::any_of(all.begin(), all.end(), [&](const candidate &known) {
                return "--" + option->get_single_name() == known.word;
            });
            if (!option->get_positional() && !repeated) {
                all.push_back({"--" + option->get_single_name(), option->get_description()});
            }
        }
    }
    return all;
}

std::vector<candidate> commands_of(const CLI::App &app)
{
    std::vector<candidate> all;
    for (const CLI::App *one : app.get_subcommands([](const CLI::App *) { return true; })) {
        if (!one->get_group().empty()) {
            all.push_back({one->get_name(), one->get_description()});
        }
    }
    return all;
}

} // namespace

std::vector<candidate> candidates(const CLI::App &app, const std::vector<std::string> &words, const living_names &names)
{
    if (words.empty()) {
        return commands_of(app);
    }
    const CLI::App *inner = &app;
    const CLI::Option *open = nullptr; // wants its value next
    size_t position = 0;
    for (size_t i = 0; i + 1 < words.size(); ++i) {
        if (open != nullptr) {
            open = nullptr;
        } else if (words[i].starts_with("-")) {
            const CLI::Option *option = option_of(inner, words[i]);
            open = option != nullptr && option->get_items_expected_min() > 0 ? option : nullptr;
        } else if (const CLI::App *next = position == 0 ? subcommand_of(*inner, words[i]) : nullptr) {
            inner = next;
        } else {
            ++position;
        }
    }
    std::vector<candidate> all;
    if (open != nullptr) {
        all = values_of(*open, names);
    } else if (words.back().starts_with("-")) {
        all = options_of(inner);
    } else {
        all = position == 0 ? commands_of(*inner) : std::vector<candidate>();
        const auto more = positionals_of(*inner, position, names);
        all.insert(all.end(), more.begin(), more.end());
    }
    std::erase_if(all, [&](const candidate &one) { return !one.word.starts_with(words.back()); });
    return all;
}

// Nothing is complained of: whoever completes a word wants no message.
int print_candidates(const CLI::App &app, const std::vector<std::string> &words)
{
    call c;
    c.linkd_socket = linkd_client::SOCKET_PATH;
    for (size_t i = 0; i + 2 < words.size(); ++i) {
        c.linkd_socket = words[i] == "--linkd" ? words[i + 1] : c.linkd_socket;
    }
    const living_names names = {[&] {
                                    std::vector<std::string> all;
                                    const auto links = linkd_links(c, {"name"}).take();
                                    for (const auto &link : links.value_or(nlohmann::json::array())) {
                                        all.push_back(text_in(link, "name"));
                                    }
                                    return all;
                                },
                                [] {
                                    std::vector<std::string> all = {"default"};
                                    for (const auto &process : trace_masks::processes()) {
                                        all.push_back(process.name);
                                    }
                                    return all;
                                }};
    for (const candidate &one : candidates(app, words, names)) {
        (void)printf("%s\t%s\n", one.word.c_str(), one.description.c_str());
    }
    return 0;
}

} // namespace vornctl
