/* The policy's files: what they allow, what is wrong with them, and whose a name is while nobody has it. */
#include "itcd_fixture.hpp"

#include "ns.h"
#include "raw_client.hpp"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace itc_test;

namespace
{

constexpr uid_t DAEMON = 1; // users that every Debian has
constexpr uid_t NOBODY = 65534;
constexpr gid_t GAMES = 60;
constexpr char DIRECTORY[] = "/run/policy.d";

void become(uid_t user, gid_t group)
{
    if (setgroups(0, nullptr) != 0 || setgid(group) != 0 || setuid(user) != 0) {
        _exit(97);
    }
}

class Policy : public ItcTest
{
protected:
    void SetUp() override
    {
        ItcTest::SetUp();
        mkdir(DIRECTORY, 0755);
    }

    static void write(const std::string &name, const std::string &text)
    {
        std::ofstream(std::string(DIRECTORY) + "/" + name) << text;
    }

    void start(const std::string &text)
    {
        write("test.toml", text);
        start_registry({"--policy", DIRECTORY});
    }
};

// What itcd says and ends with when it is called so.
std::pair<int, std::string> call(const std::vector<std::string> &arguments)
{
    const pid_t pid = fork();
    if (pid == 0) {
        const int log = open("/run/called.log", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(log, STDERR_FILENO);
        std::vector<char *> argv = {const_cast<char *>("itcd")};
        for (const std::string &argument : arguments) {
            argv.push_back(const_cast<char *>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execv(ITCD_PATH, argv.data());
        _exit(99);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    std::stringstream said;
    said << std::ifstream("/run/called.log").rdbuf();
    return {WEXITSTATUS(status), said.str()};
}

// ---- Files
// -----------------------------------------------------------------------------------------------------------

TEST_F(Policy, TheCheckSaysEverythingThatIsWrongWithItsPlace)
{
    write("a.toml", "[connect]\n"
                    "users = [\"nobody\", \"no such\"]\n"
                    "usres = []\n"
                    "[[name]]\n"
                    "name = \"x\"\n"
                    "prefix = \"y\"\n"
                    "groups = \"games\"\n");
    write("b.toml", "[[door]]\n"
                    "name = \"d\"\n"
                    "largest = -1\n"
                    "[[door.only]]\n"
                    "numbers = [[5, 3], \"x\", [1]]\n"
                    "from = \"other\"\n"
                    "[[door.share]]\n"
                    "opens = 1\n"
                    "groups = [\"no such\"]\n"
                    "[[service]]\n"
                    "users = [7]\n");
    write("c.toml", "[connect\n");
    write("d.toml", "name = 5\n");
    write("not-one.txt", "[");
    const auto [status, said] = call({"--check", DIRECTORY});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(said, "itcd: /run/policy.d/a.toml:2:20: there is no user \"no such\"\n"
                    "itcd: /run/policy.d/a.toml:3:1: nothing is called \"usres\" here\n"
                    "itcd: /run/policy.d/a.toml:4:1: needs a \"name\" or a \"prefix\", one of them, and not empty\n"
                    "itcd: /run/policy.d/a.toml:7:10: must be a list of texts\n"
                    "itcd: /run/policy.d/b.toml:3:11: must be a number from 4 to 1073741824\n"
                    "itcd: /run/policy.d/b.toml:5:16: must be a number from 5 to 4294967295\n"
                    "itcd: /run/policy.d/b.toml:5:20: must be a number from 0 to 4294967295\n"
                    "itcd: /run/policy.d/b.toml:5:25: must be a number, or [first, last]\n"
                    "itcd: /run/policy.d/b.toml:6:8: must be \"self\", or a list of names\n"
                    "itcd: /run/policy.d/b.toml:7:1: lacks \"opened\"\n"
                    "itcd: /run/policy.d/b.toml:7:1: lacks \"refused\"\n"
                    "itcd: /run/policy.d/b.toml:7:1: lacks \"closed\"\n"
                    "itcd: /run/policy.d/b.toml:7:1: lacks \"session_at\"\n"
                    "itcd: /run/policy.d/b.toml:7:1: lacks \"at_most\"\n"
                    "itcd: /run/policy.d/b.toml:9:11: there is no group \"no such\"\n"
                    "itcd: /run/policy.d/b.toml:10:1: lacks \"name\"\n"
                    "itcd: /run/policy.d/b.toml:11:10: must be a text\n"
                    "itcd: /run/policy.d/c.toml:1:9: Error while parsing table header: expected ']', saw '\\n'\n"
                    "itcd: /run/policy.d/d.toml:1:8: write [[name]]\n");
}

TEST_F(Policy, TheCheckKnowsEachKindOfMistake)
{
    const std::string long_name(256, 'n');
    write("a.toml", "connect = 5\n");
    write("b.toml", "[[name]]\nname = \"\"\n[[name]]\nprefix = \"\"\nusers = [\"nobody\"]\n[[name]]\nname = 7\n"
                    "groups = []\n[[name]]\nname = \"" +
                        long_name + "\"\nusers = []\n[[name]]\nname = \"a\\u0000b\"\nusers = []\n");
    write("c.toml", "[[service]]\nname = \"s\"\nscope = 1\n");
    write("d.toml", "[[door]]\nonly = 5\nshare = [1]\n[[door]]\nname = \"d\"\n[[door.only]]\n[[door.only]]\n"
                    "numbers = []\nfrom = [\"\", \"" +
                        long_name +
                        "\", 8]\n[[door.only]]\nnumbers = 7\nfrom = 7\n[[door.only]]\n"
                        "numbers = [[\"x\", 2], [1, \"y\"], -1, 4294967296]\ngroups = [\"games\"]\n[[door.share]]\n"
                        "opens = 1\nopened = 2\nrefused = 3\nclosed = 4\nsession_at = 3\nat_most = 65537\n");
    write("e.toml", "");
    ASSERT_EQ(mkdir("/run/policy.d/f.toml", 0755), 0);
    const auto [status, said] = call({"--check", DIRECTORY});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(said, "itcd: /run/policy.d/a.toml:1:11: write [connect]\n"
                    "itcd: /run/policy.d/b.toml:1:1: lacks \"users\" or \"groups\"\n"
                    "itcd: /run/policy.d/b.toml:1:1: needs a \"name\" or a \"prefix\", one of them, and not empty\n"
                    "itcd: /run/policy.d/b.toml:3:1: needs a \"name\" or a \"prefix\", one of them, and not empty\n"
                    "itcd: /run/policy.d/b.toml:6:1: needs a \"name\" or a \"prefix\", one of them, and not empty\n"
                    "itcd: /run/policy.d/b.toml:7:8: must be a text of at most 255 bytes\n"
                    "itcd: /run/policy.d/b.toml:9:1: needs a \"name\" or a \"prefix\", one of them, and not empty\n"
                    "itcd: /run/policy.d/b.toml:10:8: must be a text of at most 255 bytes\n"
                    "itcd: /run/policy.d/b.toml:12:1: needs a \"name\" or a \"prefix\", one of them, and not empty\n"
                    "itcd: /run/policy.d/b.toml:13:8: must be a text of at most 255 bytes\n"
                    "itcd: /run/policy.d/c.toml:1:1: lacks \"users\" or \"groups\"\n"
                    "itcd: /run/policy.d/c.toml:3:9: must be a text of at most 255 bytes\n"
                    "itcd: /run/policy.d/d.toml:1:1: lacks \"name\"\n"
                    "itcd: /run/policy.d/d.toml:2:8: write [[door.only]]\n"
                    "itcd: /run/policy.d/d.toml:3:9: write [[door.share]]\n"
                    "itcd: /run/policy.d/d.toml:6:1: lacks \"numbers\"\n"
                    "itcd: /run/policy.d/d.toml:6:1: lacks \"from\", \"users\" or \"groups\"\n"
                    "itcd: /run/policy.d/d.toml:8:11: must be a list of numbers\n"
                    "itcd: /run/policy.d/d.toml:9:9: must be a name of 1 to 255 bytes\n"
                    "itcd: /run/policy.d/d.toml:9:13: must be a name of 1 to 255 bytes\n"
                    "itcd: /run/policy.d/d.toml:9:273: must be a text\n"
                    "itcd: /run/policy.d/d.toml:11:11: must be a list of numbers\n"
                    "itcd: /run/policy.d/d.toml:12:8: must be a list of texts\n"
                    "itcd: /run/policy.d/d.toml:14:13: must be a number from 0 to 4294967295\n"
                    "itcd: /run/policy.d/d.toml:14:26: must be a number from 1 to 4294967295\n"
                    "itcd: /run/policy.d/d.toml:14:32: must be a number from 0 to 4294967295\n"
                    "itcd: /run/policy.d/d.toml:14:36: must be a number from 0 to 4294967295\n"
                    "itcd: /run/policy.d/d.toml:16:1: lacks \"users\" or \"groups\"\n"
                    "itcd: /run/policy.d/d.toml:21:14: must be a number from 4 to 65536\n"
                    "itcd: /run/policy.d/d.toml:22:11: must be a number from 0 to 65536\n"
                    "itcd: /run/policy.d/e.toml: cannot be read, or is empty\n"
                    "itcd: /run/policy.d/f.toml: cannot be read, or is empty\n");
}

TEST_F(Policy, TheCheckOfWhatIsNoDirectorySaysSo)
{
    EXPECT_EQ(call({"--check", "/run/there-is-none"}),
              std::make_pair(1, std::string("itcd: /run/there-is-none: no policy there, not one file *.toml\n")));
    write("a.toml", "");
    EXPECT_EQ(call({"--check", "/run/policy.d/a.toml"}),
              std::make_pair(1, std::string("itcd: /run/policy.d/a.toml: Not a directory\n")));
}

TEST_F(Policy, TheCheckOfAGoodPolicySaysNothing)
{
    write("a.toml", "[connect]\nusers = [\"nobody\"]\ngroups = [\"games\"]\n"
                    "[[name]]\nprefix = \"x\"\nusers = [\"nobody\"]\n"
                    "[[service]]\nname = \"s\"\nscope = \"\"\nusers = [\"nobody\"]\n"
                    "[[door]]\nname = \"d\"\nlargest = 5\n"
                    "[[door.only]]\nnumbers = [1, [2, 3]]\nfrom = [\"x\"]\n"
                    "[[door.only]]\nnumbers = [4]\nfrom = \"self\"\n"
                    "[[door.share]]\nopens = 1\nopened = 2\nrefused = 3\nclosed = 4\nsession_at = 8\nat_most = 1\n"
                    "users = [\"nobody\"]\n");
    EXPECT_EQ(call({"--check", DIRECTORY}), std::make_pair(0, std::string()));
}

TEST_F(Policy, ARegistryWithAWrongPolicyDoesNotStart)
{
    write("a.toml", "[conect]\n");
    EXPECT_EQ(call({"--policy", DIRECTORY}),
              std::make_pair(1, std::string("itcd: /run/policy.d/a.toml:1:2: nothing is called \"conect\" here\n")));
}

TEST_F(Policy, ARegistryThatIsToldWhereItsPolicyIsDoesNotStartWithoutOne)
{
    const std::string said = "/run/policy.d: no policy there, not one file *.toml\n";
    EXPECT_EQ(call({"--policy", DIRECTORY}), std::make_pair(1, "itcd: " + said));
    EXPECT_EQ(call({"--check", DIRECTORY}), std::make_pair(1, "itcd: " + said));
}

// ---- Who may connect
// -------------------------------------------------------------------------------------------------

TEST_F(Policy, UsersAndGroupsOfThePolicyMayConnectAndOthersMayNot)
{
    start("[connect]\nusers = [\"daemon\"]\ngroups = [\"games\"]\n");
    Child user([] {
        become(DAEMON, DAEMON);
        return itc_init(1, 0, nullptr, nullptr, 0);
    });
    Child by_primary_group([] {
        become(NOBODY, GAMES);
        return itc_init(1, 0, nullptr, nullptr, 0);
    });
    Child by_other_group([] {
        const gid_t games = GAMES;
        return setgroups(1, &games) == 0 && setgid(NOBODY) == 0 && setuid(NOBODY) == 0
                   ? itc_init(1, 0, nullptr, nullptr, 0)
                   : 97;
    });
    Child stranger([] {
        become(NOBODY, NOBODY);
        return itc_init(1, 0, nullptr, nullptr, 0);
    });
    EXPECT_EQ(user.finish(), 0);
    EXPECT_EQ(by_primary_group.finish(), 0);
    EXPECT_EQ(by_other_group.finish(), 0);
    EXPECT_EQ(stranger.finish(), EACCES);
}

// ---- Whose a name is
// -------------------------------------------------------------------------------------------------

constexpr char NAMES[] = "[connect]\nusers = [\"daemon\", \"nobody\"]\n"
                         "[[name]]\nname = \"server\"\nusers = [\"daemon\"]\n"
                         "[[name]]\nprefix = \"server-\"\nusers = [\"daemon\"]\n"
                         "[[service]]\nname = \"service\"\nscope = \"near\"\nusers = [\"daemon\"]\n";

// Tries for that name as a stranger. 0 if it was refused every time, also as a further name.
int try_for(const char *name, int times)
{
    become(NOBODY, NOBODY);
    if (join("stranger") == ITC_NO_MBOX) {
        return 90;
    }
    for (int i = 0; i < times; i++) {
        if (itc_create_mailbox(name, 0) != ITC_NO_MBOX || itc_add_name(itc_current_mbox(), name) != EACCES) {
            return 1;
        }
    }
    return 0;
}

TEST_F(Policy, ANameBelongsToItsUserBeforeHeEverHadIt)
{
    start(NAMES);
    Child stranger([] { return try_for("server", 1); });
    EXPECT_EQ(stranger.finish(), 0);
    Child by_prefix([] { return try_for("server-2", 1); });
    EXPECT_EQ(by_prefix.finish(), 0);
    Child other_name([] { return try_for("server2", 1); });
    EXPECT_EQ(other_name.finish(), 1);
    Child server([] {
        become(DAEMON, DAEMON);
        return join("server") != ITC_NO_MBOX && itc_create_mailbox("server-2", 0) != ITC_NO_MBOX ? 0 : 1;
    });
    EXPECT_EQ(server.finish(), 0);
    EXPECT_NE(join("server"), ITC_NO_MBOX); // root may do it too
}

TEST_F(Policy, ANameBelongsToItsUserBetweenHisDeathAndHisRestart)
{
    start(NAMES);
    for (int round = 0; round < 30; round++) {
        const Gate there;
        Child server([&] {
            become(DAEMON, DAEMON);
            join("server");
            there.open();
            receive_any(); // until it is killed
            return 1;
        });
        ASSERT_TRUE(there.wait());
        const Gate trying;
        Child stranger([&] {
            become(NOBODY, NOBODY);
            join("stranger");
            trying.open();
            for (int i = 0; i < 200; i++) {
                if (itc_create_mailbox("server", 0) != ITC_NO_MBOX) {
                    return 1;
                }
            }
            return 0;
        });
        ASSERT_TRUE(trying.wait());
        server.kill();
        ASSERT_EQ(stranger.finish(), 0) << round;
    }
}

TEST_F(Policy, AServiceIsPublishedByItsUsersAloneInItsScope)
{
    start(NAMES);
    Child stranger([] {
        become(NOBODY, NOBODY);
        const uint32_t own = join("stranger");
        const bool refused =
            ns_publish("service", "near", own, "") == EACCES && ns_publish("service", "", own, "") == EACCES;
        return refused && ns_publish("service", "far", own, "") == 0 && ns_publish("other", "near", own, "") == 0 ? 0
                                                                                                                  : 1;
    });
    EXPECT_EQ(stranger.finish(), 0);
    Child server([] {
        become(DAEMON, DAEMON);
        const uint32_t own = join("server");
        return ns_publish("service", "near", own, "") == 0 ? 0 : 1;
    });
    EXPECT_EQ(server.finish(), 0);
}

} // namespace
