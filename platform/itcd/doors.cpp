#include "doors.hpp"

#include <unordered_map>

using namespace itc_wire;

namespace
{

// A door, and the number of its first rule; its other rules and its shares follow.
struct numbered_door {
    const policy_door *door;
    uint32_t first;
};

// A place where a rule names somebody who is let in.
struct mention {
    const std::string *door;
    uint32_t rule;
    uint32_t which;
};

// People whom a rule or a share of that door lets in.
struct circle {
    const std::string *door;
    const policy_people *people;
    uint32_t rule;
};

struct holder {
    registry_client *client = nullptr; // NULL: nobody has the name
    uint32_t mbox = 0;
};

// What is known of a name that the policy speaks of.
struct spoken_of {
    std::vector<numbered_door> doors; // that stand under it
    std::vector<mention> mentions;    // where it is let in
    holder now;
};

registry_output *out;
const policy *rules;
std::unordered_map<std::string, spoken_of> spoken_of_names;
std::vector<circle> circles;

void note_people(const std::string &door, const policy_people &people, uint32_t rule)
{
    if (!people.users.empty() || !people.groups.empty()) {
        circles.push_back({&door, &people, rule});
    }
}

uint32_t note_door(const policy_door &door, uint32_t number)
{
    spoken_of_names[door.name].doors.push_back({&door, number});
    for (const policy_rule &rule : door.rules) {
        note_people(door.name, rule.people, number);
        for (uint32_t which = 0; which < rule.from.size(); which++) {
            spoken_of_names[rule.from[which]].mentions.push_back({&door.name, number, which});
        }
        number++;
    }
    for (const policy_share &share : door.shares) {
        note_people(door.name, share.people, number++);
    }
    return number;
}

void tell_admit(const holder &to, uint32_t rule, uint32_t which, uint32_t mbox)
{
    writer frame(door_admit, 0);
    out->send(*to.client, frame.u32(rule).u32(which).u32(mbox), -1);
}

void tell_rule(const holder &to, const policy_rule &rule, uint32_t number)
{
    for (const auto &[first, last] : rule.numbers) {
        writer frame(door_rule, 0);
        out->send(*to.client, frame.u32(to.mbox).u32(number).u32(first).u32(last), -1);
    }
    for (uint32_t which = 0; which < rule.from.size(); which++) {
        const holder &let_in = spoken_of_names[rule.from[which]].now;
        if (let_in.client != nullptr) {
            tell_admit(to, number, which, let_in.mbox);
        }
    }
}

void tell_share(const holder &to, const policy_share &share, uint32_t number)
{
    writer frame(door_share, 0);
    frame.u32(to.mbox).u32(number).u32(share.opens).u32(share.opened).u32(share.refused).u32(share.closed);
    out->send(*to.client, frame.u32(share.session_at).u32(share.at_most), -1);
}

void tell_door(const holder &to, const numbered_door &numbered)
{
    uint32_t number = numbered.first;
    if (numbered.door->largest != 0) {
        writer frame(door_limit, 0);
        out->send(*to.client, frame.u32(to.mbox).u32(numbered.door->largest), -1);
    }
    for (const policy_rule &rule : numbered.door->rules) {
        tell_rule(to, rule, number++);
    }
    for (const policy_share &share : numbered.door->shares) {
        tell_share(to, share, number++);
    }
}

} // namespace

void doors_start(registry_output &output, const policy &given_rules)
{
    out = &output;
    rules = &given_rules;
    spoken_of_names.clear();
    circles.clear();
    uint32_t number = 0;
    for (const policy_door &door : rules->doors) {
        number = note_door(door, number);
    }
}

void doors_name_given(registry_client &owner, uint32_t mbox, const std::string &name)
{
    const auto found = spoken_of_names.find(name);
    if (found == spoken_of_names.end()) {
        return;
    }
    found->second.now = {&owner, mbox};
    for (const numbered_door &door : found->second.doors) {
        tell_door(found->second.now, door);
    }
    for (const mention &m : found->second.mentions) {
        const holder &receiver = spoken_of_names[*m.door].now;
        if (receiver.client != nullptr) {
            tell_admit(receiver, m.rule, m.which, mbox);
        }
    }
}

void doors_name_gone(const std::string &name)
{
    const auto found = spoken_of_names.find(name);
    if (found != spoken_of_names.end()) {
        found->second.now = {};
    }
}

void doors_meet(registry_client &to, const registry_client &other, uint32_t channel)
{
    for (const circle &c : circles) {
        const bool included = other.who.user == 0 || policy_includes(*c.people, other.who);
        if (included && policy_may_claim(*rules, to.who, *c.door)) {
            writer frame(door_member, 0);
            out->send(to, frame.u32(c.rule).u32(other.process).u32(channel), -1);
        }
    }
}

bool doors_are_empty()
{
    for (const auto &[name, what] : spoken_of_names) {
        if (what.now.client != nullptr) {
            return false;
        }
    }
    return true;
}
