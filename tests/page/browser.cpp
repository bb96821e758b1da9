#include "browser.hpp"

#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

browser::browser(const std::string &log)
{
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe for the browser");
    }
    pid_ = fork();
    if (pid_ == 0) {
        const int err = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        // Not the first python3 of the PATH: the packages that it needs are the distribution's.
        execl("/usr/bin/python3", "python3", KAP_SOURCE_DIR "/tests/page/browser.py", nullptr);
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    to_ = fdopen(in[1], "w");
    from_ = fdopen(out[0], "r");
    if (pid_ < 0 || to_ == nullptr || from_ == nullptr) {
        throw std::runtime_error("the browser could not be started");
    }
}

browser::~browser()
{
    (void)fclose(to_);
    int status = 0;
    waitpid(pid_, &status, 0);
    (void)fclose(from_);
}

nlohmann::json browser::tell(const nlohmann::json &command)
{
    (void)fprintf(to_, "%s\n", command.dump().c_str());
    (void)fflush(to_);
    char *line = nullptr;
    size_t room = 0;
    const ssize_t length = getline(&line, &room, from_);
    const std::unique_ptr<char, decltype(&free)> held(line, free);
    if (length <= 0) {
        throw std::runtime_error("the browser ended at " + command.dump());
    }
    nlohmann::json answer = nlohmann::json::parse(line, line + length);
    if (answer.is_object() && answer.contains("error")) {
        throw std::runtime_error(command.dump() + ": " + answer["error"].get<std::string>());
    }
    return answer;
}
