// The far end as a service (far_end_program.hpp).
#include "far_end_program.hpp"

#include "message.hpp"

#include <system_error>

namespace kap_node
{

namespace
{

constexpr uint32_t LONGEST_DELAY_US = 60'000'000;
constexpr const char *COMMANDS =
    "show, die, silent on|off, delay US, loss PERCENT, drop N, unusable-time on|off, any-address on|off";

bool parse_switch(const std::string &text)
{
    if (text != "on" && text != "off") {
        throw command_error("\"" + text + "\" is neither on nor off");
    }
    return text == "on";
}

mac mac_of(const mac_address &address)
{
    mac copy{};
    std::copy(std::begin(address.byte), std::end(address.byte), copy.begin());
    return copy;
}

json show_counters(const far_end *engine)
{
    auto list = json::array();
    for (const far_end_counters &counters : far_end_get_counters(engine)) {
        list.push_back({{"interface", counters.interface},
                        {"vlan_id", counters.vlan},
                        {"peer", mac_text(mac_of(counters.peer))},
                        {"requests", counters.requests},
                        {"answered", counters.answered},
                        {"dropped", counters.dropped},
                        {"failed", counters.failed}});
    }
    return list;
}

} // namespace

far_end_program::far_end_program(const node_config &config, descriptor_hooks hooks) : hooks_(std::move(hooks))
{
    for (const far_end_config &wanted : config.far_end) {
        places_.push_back({wanted.name_space, wanted.interfaces, nullptr, {}, "not opened yet"});
    }
    if (places_.empty()) {
        throw config_error("far_end: no interface to answer on");
    }
}

far_end_program::~far_end_program()
{
    for (place &where : places_) {
        close(where);
    }
}

void far_end_program::check_name_spaces()
{
    for (place &where : places_) {
        if (where.engine != nullptr && where.identity != namespace_identity::of(where.name_space)) {
            close(where);
        }
        if (where.engine == nullptr) {
            open(where);
        }
    }
}

void far_end_program::open(place &where)
{
    try {
        where.identity = namespace_identity::of(where.name_space);
        const namespace_visit visit(where.name_space);
        where.engine = far_end_open(where.interfaces, &where.problem);
    } catch (const std::system_error &problem) {
        where.problem = problem.what();
    }
    if (where.engine == nullptr) {
        return;
    }
    where.problem.clear();
    far_end_get_knobs(where.engine) = knobs_;
    hooks_.watch(far_end_fd(where.engine), [engine = where.engine] { far_end_handle(engine); });
}

void far_end_program::close(place &where)
{
    if (where.engine != nullptr) {
        hooks_.unwatch(far_end_fd(where.engine));
        far_end_close(where.engine);
        where.engine = nullptr;
        where.problem = "the namespace is gone";
    }
}

void far_end_program::receive(mailbox /*sender*/, std::span<const uint8_t> /*data*/, millis /*now*/)
{
    ++unknown_number_;
}

json far_end_program::control(const arguments &words)
{
    const std::string name = words.empty() ? "" : words[0];
    if (name == "show") {
        expect_words(words, 1, 1, "show");
        return show();
    }
    if (name == "die") {
        expect_words(words, 1, 1, "die");
        dying_ = true;
        return nullptr;
    }
    if (set_knob(words)) {
        return nullptr;
    }
    throw command_error("unknown command \"" + name + "\"; known: " + COMMANDS);
}

// The knobs hold for engines that are opened later, too.
bool far_end_program::set_knob(const arguments &words)
{
    const std::string name = words.empty() ? "" : words[0];
    if (words.size() != 2) {
        return false;
    }
    if (name == "silent") {
        knobs_.silent = parse_switch(words[1]);
    } else if (name == "unusable-time") {
        knobs_.unusable_time = parse_switch(words[1]);
    } else if (name == "any-address") {
        knobs_.any_address = parse_switch(words[1]);
    } else if (name == "delay") {
        knobs_.delay_us = parse_number(words[1], LONGEST_DELAY_US, "delay in microseconds");
    } else if (name == "loss") {
        knobs_.loss_percent = parse_number(words[1], 100, "loss in percent");
    } else if (name != "drop") {
        return false;
    }
    const uint32_t drop = name == "drop" ? parse_number(words[1], UINT32_MAX, "number of requests") : 0;
    for (const place &where : places_) {
        if (where.engine != nullptr) {
            far_end_knobs &set = far_end_get_knobs(where.engine);
            const uint32_t dropping = name == "drop" ? drop : set.drop_next;
            set = knobs_;
            set.drop_next = dropping;
        }
    }
    return true;
}

json far_end_program::show()
{
    auto places = json::array();
    for (const place &where : places_) {
        const bool open = where.engine != nullptr;
        places.push_back({{"namespace", where.name_space},
                          {"interfaces", where.interfaces},
                          {"open", open},
                          {"problem", where.problem},
                          {"drop_next", open ? far_end_get_knobs(where.engine).drop_next : 0},
                          {"peers", open ? show_counters(where.engine) : json::array()}});
    }
    return {{"service", "far-end"},
            {"mailbox", FAR_END_MAILBOX},
            {"knobs",
             {{"silent", knobs_.silent},
              {"delay_us", knobs_.delay_us},
              {"loss_percent", knobs_.loss_percent},
              {"unusable_time", knobs_.unusable_time}}},
            {"any_address", knobs_.any_address},
            {"counters", {{"unknown_number", unknown_number_}}},
            {"places", std::move(places)}};
}

} // namespace kap_node
