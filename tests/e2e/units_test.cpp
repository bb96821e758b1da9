// The units of packaging/: the node runs with the users, capabilities and limits that they give, and needs no more.
#include <fstream>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

#include "e2e.hpp"
#include "support/private_etc.hpp"
#include "support/unit_file.hpp"

using namespace std::chrono_literals;

namespace
{

namespace fs = std::filesystem;

constexpr const char *PACKAGING = KAP_SOURCE_DIR "/packaging/";
constexpr unsigned FIRST_ID = 64001;
constexpr const char *SERVICES[] = {"iepcsi", "pmi", "emi", "fmi", "aasi"};

// The bits of Linux's capabilities.
constexpr uint64_t NET_ADMIN = 1ull << 12;
constexpr uint64_t NET_RAW = 1ull << 13;
constexpr uint64_t SYS_ADMIN = 1ull << 21;

// The users and groups that the package makes.
std::vector<private_user> packaged_users()
{
    std::vector<private_user> users;
    std::ifstream file(std::string(PACKAGING) + "sysusers.d/kap-itc.conf");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string kind;
        std::string name;
        if (words >> kind >> name && (kind == "u" || kind == "g")) {
            users.push_back({name, FIRST_ID + static_cast<unsigned>(users.size())});
        }
    }
    return users;
}

// Root of a user namespace has no other users to become.
bool has_other_users()
{
    std::ifstream map("/proc/self/uid_map");
    uint64_t inside = 0;
    uint64_t outside = 0;
    uint64_t count = 0;
    return map >> inside >> outside >> count && count > FIRST_ID + 20;
}

std::string status_of(const child_process &child, const std::string &field)
{
    std::ifstream file("/proc/" + std::to_string(child.pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(field + ":")) {
            return line.substr(line.find_first_not_of(" \t", field.size() + 1));
        }
    }
    return "";
}

uint64_t capabilities_of(const child_process &child, const std::string &set)
{
    return std::stoull(status_of(child, set), nullptr, 16);
}

class Units : public EndToEnd
{
protected:
    std::vector<private_user> users = packaged_users();

    void SetUp() override
    {
        EndToEnd::SetUp();
        if (!has_other_users()) {
            GTEST_SKIP() << "there are no other users in this user namespace";
        }
        private_etc_make(users);
        d.stage.bin_dir = programs_for_everybody(d.stage.bin_dir);
        make_directory("/run/kap-itc", "kap-itc");
        make_directory("/run/kap-tri", "kap-vorn");
        fs::create_directories("/etc/kap-itc");
        fs::copy(std::string(PACKAGING) + "policy.d", "/etc/kap-itc/policy.d");
        run_as_unit(REGISTRY, "kap-itcd.service");
        run_as_unit(DAEMON, "kap-vorn.service");
        for (const char *service : SERVICES) {
            run_as_unit(service, std::string("kap-node-") + service + ".service");
        }
    }

    void TearDown() override
    {
        EndToEnd::TearDown();
        fs::remove_all("/run/kap-itc");
        fs::remove_all("/run/kap-tri");
    }

    unsigned id_of(const std::string &name)
    {
        const auto user = std::find_if(users.begin(), users.end(), [&](const auto &u) { return u.name == name; });
        return user == users.end() ? 0 : user->id;
    }

    // As RuntimeDirectory= does.
    void make_directory(const std::string &path, const std::string &user)
    {
        fs::create_directories(path);
        ASSERT_EQ(chown(path.c_str(), id_of(user), id_of(user)), 0);
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    }

    void run_as_unit(const char *program, const std::string &unit)
    {
        d.stage.launchers[program] = unit_launcher(unit_read(PACKAGING + ("systemd/" + unit)));
    }
};

} // namespace

TEST_F(Units, TheNodeWorksWithTheRightsThatItsUnitsGive)
{
    start();
    const child_process &registry = d.stage.processes.at(REGISTRY);
    EXPECT_EQ(std::stoul(status_of(registry, "Uid")), id_of("kap-itc"));
    EXPECT_EQ(capabilities_of(registry, "CapEff"), 0u);
    EXPECT_EQ(capabilities_of(registry, "CapBnd"), 0u);
    EXPECT_EQ(std::stoul(status_of(daemon(), "Uid")), id_of("kap-vorn"));
    EXPECT_EQ(capabilities_of(daemon(), "CapEff"), NET_ADMIN | NET_RAW | SYS_ADMIN);
    EXPECT_EQ(capabilities_of(daemon(), "CapBnd"), NET_ADMIN | NET_RAW | SYS_ADMIN);

    for (const char *service : SERVICES) {
        const child_process &runs = d.stage.processes.at(service);
        EXPECT_EQ(std::stoul(status_of(runs, "Uid")), id_of(std::string("kap-") + service)) << service;
        const uint64_t needed = std::string(service) == "aasi" ? 0 : NET_ADMIN | SYS_ADMIN;
        EXPECT_EQ(capabilities_of(runs, "CapEff"), needed) << service;
        EXPECT_EQ(capabilities_of(runs, "CapBnd"), needed) << service;
    }

    // It finds the registry, enters the namespaces of both ports, sends and receives frames there, leaves them again.
    for (const iemli_link_wish &wish : {demo_first_wish(d), demo_second_wish(d)}) {
        demo_wait_status(d, demo_create(d, wish).link_ref, IML_LINK_ENABLED, 0, 10s);
    }
    demo_delete_all(d);
    const auto shared = fs::directory_iterator("/run/kap-tri");
    EXPECT_NE(shared, fs::directory_iterator()) << "nobody shares a trace mask";
}

// Where there is a systemd to ask: it knows every setting, and every group of system calls.
TEST_F(Units, SystemdUnderstandsThem)
{
    if (command_run({"systemd-analyze", "--version"}).status != 0) {
        GTEST_SKIP() << "no systemd-analyze";
    }
    std::vector<std::string> command = {"systemd-analyze", "verify", "--man=no"};
    for (const auto &entry : fs::directory_iterator(std::string(PACKAGING) + "systemd")) {
        const fs::path copy = "/run" / entry.path().filename();
        std::ifstream from(entry.path());
        std::ofstream to(copy);
        for (std::string line; std::getline(from, line);) {
            const std::string program = "/usr/sbin/";
            const size_t at = line.find(program);
            to << (at == std::string::npos ? line : line.replace(at, program.size(), d.stage.bin_dir + "/")) << "\n";
        }
        command.push_back(copy);
    }
    const command_result said = command_run(command);
    EXPECT_EQ(said.status, 0);
    EXPECT_EQ(said.output, "");
}
