// A browser that a test looks through: browser.py as a process, a JSON list to it and a JSON value back, a line each.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

#include <sys/types.h>

class browser
{
public:
    // `log`: what it says on stderr. Throws std::runtime_error.
    explicit browser(const std::string &log);
    ~browser();
    browser(const browser &) = delete;
    browser &operator=(const browser &) = delete;

    // Throws std::runtime_error where the browser answers with an error.
    nlohmann::json tell(const nlohmann::json &command);

    void open(const std::string &url, int width, int height, const std::string &scheme)
    {
        tell({"open", url, width, height, scheme});
    }
    nlohmann::json wait(const std::string &script, int seconds = 30) { return tell({"wait", script, seconds}); }
    nlohmann::json value(const std::string &script) { return tell({"eval", script}); }
    void click(const std::string &selector) { tell({"click", selector}); }

private:
    pid_t pid_ = -1;
    FILE *to_ = nullptr;
    FILE *from_ = nullptr;
};
