// vornctl: the operator's tool. It asks the daemon, the node's port control and the link manager kap-linkd, and prints;
// what it changes it has kap-linkd change. Each command is a file of its own, commands.cpp has the table.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "asking.hpp"
#include "command.hpp"
#include "complete.hpp"
#include "program_call.hpp"

namespace vornctl
{

namespace
{

constexpr program_call PROGRAM = {"vornctl", "usage: vornctl COMMAND ...\n"};

// As every program of this project says it: first how it is called.
class formatter : public CLI::Formatter
{
public:
    std::string make_usage(const CLI::App *app, std::string name) const override
    {
        std::string text = CLI::Formatter::make_usage(app, name);
        const std::string theirs = "Usage:";
        const size_t at = text.find(theirs);
        text = at == std::string::npos ? text : text.replace(at, theirs.size(), "usage:");
        text.erase(0, text.find_first_not_of('\n'));
        return text + app->get_description() + "\n";
    }
    std::string make_description(const CLI::App * /*app*/) const override { return ""; }
};

std::string exit_table()
{
    std::string text = "Exit status:\n";
    for (const exit_meaning &one : EXITS) {
        text += "  " + std::to_string(static_cast<int>(one.status)) + "  " + one.meaning + "\n";
    }
    return text;
}

void describe(CLI::App &app, call &c)
{
    app.formatter(std::make_shared<formatter>());
    app.name("vornctl");
    app.set_help_flag("-h,--help", "prints this");
    app.set_version_flag("--version", std::string("vornctl ") + KAP_VERSION, "prints the version");
    app.add_option("--linkd", c.linkd_socket, "the control socket of kap-linkd, where it is another")
        ->type_name("SOCKET")
        ->default_val(linkd_client::SOCKET_PATH);
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(exit_table());
    for (const command &one : commands()) {
        one.add(app, c);
    }
}

int complain(exits status, const std::string &text)
{
    (void)fflush(stdout);
    (void)fprintf(stderr, "vornctl: %s\n", text.c_str());
    return static_cast<int>(status);
}

// The line of the help of the command that was named.
std::string usage_of(const CLI::App &app)
{
    const std::string help = app.help();
    const size_t begin = help.find("usage:");
    return begin == std::string::npos ? PROGRAM.usage : help.substr(begin, help.find('\n', begin) - begin + 1);
}

// A mask may begin with a minus, and is no option for that.
std::vector<const char *> words_of(int argc, char **argv)
{
    std::vector<const char *> words(argv, argv + argc);
    const bool sets_mask = argc > 3 && std::find_if(words.begin(), words.end(), [](const char *word) {
                                           return strcmp(word, "trace") == 0;
                                       }) != words.end();
    if (sets_mask && words.back()[0] == '-' && isdigit(static_cast<unsigned char>(words.back()[1])) != 0) {
        words.insert(words.end() - 1, "--");
    }
    return words;
}

int refuse(const CLI::App &app, const std::string &text)
{
    (void)fprintf(stderr, "vornctl: %s\n%s", text.c_str(), usage_of(app).c_str());
    return static_cast<int>(exits::wrong_use);
}

int run(int argc, char **argv)
{
    CLI::App app("Asks the daemon that supervises links, the node's ports and the link manager.");
    call c;
    describe(app, c);
    if (argc > 1 && strcmp(argv[1], "complete") == 0) { // for the completion of shells; people have no use for it
        return program_end(PROGRAM, print_candidates(app, {argv + 2, argv + argc}));
    }
    try {
        const auto words = words_of(argc, argv);
        app.parse(static_cast<int>(words.size()), words.data());
        return program_end(PROGRAM, static_cast<int>(c.run()));
    } catch (const CLI::CallForHelp &) {
        (void)fputs(app.help().c_str(), stdout);
        return program_end(PROGRAM, 0);
    } catch (const CLI::CallForVersion &version) {
        (void)printf("%s\n", version.what());
        return program_end(PROGRAM, 0);
    } catch (const CLI::ParseError &wrong) {
        return refuse(app, wrong.what());
    } catch (const failure &problem) {
        return problem.status == exits::wrong_use ? refuse(app, problem.what())
                                                  : complain(problem.status, problem.what());
    } catch (const linkd_client::failure &problem) {
        const failure said = as_failure(problem);
        return complain(said.status, said.what());
    } catch (const std::exception &problem) {
        return complain(exits::failed, problem.what());
    }
}

} // namespace

} // namespace vornctl

int main(int argc, char **argv) { return vornctl::run(argc, argv); }
