// What the event loop runs: a core that is given messages, deaths, commands and the time.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace kap_node
{

using json = nlohmann::json;
using mailbox = uint32_t;
using millis = uint64_t;
using arguments = std::vector<std::string>;

// A command that cannot be carried out as it was given; its text goes to whoever gave it.
struct command_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class program
{
public:
    program() = default;
    virtual ~program() = default;
    program(const program &) = delete;
    program &operator=(const program &) = delete;

    virtual void receive(mailbox sender, std::span<const uint8_t> data, millis now) = 0;
    virtual void client_gone(mailbox address) = 0;

    // Does what is due; when the next thing is.
    virtual void tick(millis now) = 0;
    virtual std::optional<millis> next_deadline() const = 0;

    // Carries out a command and returns its result, or throws command_error.
    virtual json control(const arguments &words) = 0;

    // The process is to end at once, as if it had crashed.
    virtual bool dying() const = 0;
};

// A decimal or 0x number of at most `max`; throws command_error that names `what`.
uint32_t parse_number(const std::string &text, uint32_t max, const char *what);
// Throws command_error with the usage unless there are `least` to `most` words.
void expect_words(const arguments &words, size_t least, size_t most, const char *usage);

} // namespace kap_node
