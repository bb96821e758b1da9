// vornctl capture against the running daemon, read by Wireshark with the dissector that comes along.
#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "capture/frames.hpp"
#include "e2e.hpp"
#include "send_path.hpp"
#include "support/private_etc.hpp"

using namespace std::chrono_literals;

namespace
{

constexpr const char *DISSECTOR = KAP_SOURCE_DIR "/packaging/wireshark/kap_vorn.lua";
constexpr const char *CAPTURE = "capture";

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

class Capture : public EndToEnd
{
protected:
    std::string file() const { return d.stage.log_dir + "/capture.pcapng"; }

    std::vector<std::string> command(const std::vector<std::string> &words) const
    {
        std::vector<std::string> all = {d.stage.bin_dir + "/vornctl", "capture"};
        all.insert(all.end(), words.begin(), words.end());
        return all;
    }

    // Runs until it is stopped; what is of interest happens after this.
    void start_capture(const std::vector<std::string> &words)
    {
        std::vector<std::string> all = {"-w", file()};
        all.insert(all.end(), words.begin(), words.end());
        d.stage.processes[CAPTURE] = process_start(CAPTURE, command(all), d.stage.log_dir + "/capture.log");
        wait_log(CAPTURE, "looking at");
    }

    // Waits until a message with this number is in the file: what nobody waits for comes in its own time.
    void wait_captured(uint32_t msgno)
    {
        std::string sought(sizeof msgno, '\0');
        memcpy(sought.data(), &msgno, sizeof msgno); // a message begins with its number, in this machine's order
        stage_wait(d.stage, "the capture has message " + std::to_string(msgno), 10s, [&] {
            std::ifstream in(file(), std::ios::binary);
            const std::string all{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
            return all.find(sought) != std::string::npos;
        });
    }

    std::string stop_capture()
    {
        const child_process ended = stage_stop_process(d.stage, CAPTURE, SIGINT, 10s);
        EXPECT_EQ(process_status_text(ended), "exit status 0");
        return read_log(CAPTURE);
    }

    std::string dissect(const std::vector<std::string> &arguments) const
    {
        std::vector<std::string> all = {"sh",   "-c", "exec tshark \"$@\" 2>/dev/null",      "tshark", "-n", "-r",
                                        file(), "-X", std::string("lua_script:") + DISSECTOR};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const command_result result = command_run(all);
        EXPECT_EQ(result.status, 0) << result.output;
        return result.output;
    }

    // Nothing that Wireshark or the dissector finds wrong, and no error of the dissector itself.
    void expect_no_complaint() const
    {
        EXPECT_EQ(dissect({"-Y", "_ws.malformed || _ws.expert || _ws.lua || kap.itc.rest"}), "");
    }

    std::vector<std::string> fields(const std::string &filter, const std::vector<std::string> &names) const
    {
        std::vector<std::string> arguments = {"-Y", filter, "-T", "fields", "-E", "separator= "};
        for (const std::string &name : names) {
            arguments.insert(arguments.end(), {"-e", name});
        }
        return lines_of(dissect(arguments));
    }

    // One link without app links, enabled.
    demo_link &enabled_link()
    {
        iemli_link_wish wish = demo_first_wish(d);
        demo_link &link = demo_create(d, wish);
        demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 10s);
        return link;
    }
};

// Those of `seen` that are among `wanted`, in their order.
std::vector<std::string> only(const std::vector<std::string> &seen, const std::vector<std::string> &wanted)
{
    std::vector<std::string> kept;
    std::copy_if(seen.begin(), seen.end(), std::back_inserter(kept), [&](const std::string &line) {
        return std::find(wanted.begin(), wanted.end(), line) != wanted.end();
    });
    return kept;
}

} // namespace

TEST_F(Capture, MessagesOfAWholeCreateAreReadWithoutAMalformedField)
{
    start();
    start_capture({"--messages"});
    enabled_link();
    wait_captured(0x1A004C4); // AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM
    const std::string said = stop_capture();
    EXPECT_THAT(said, testing::ContainsRegex("[0-9]+ messages, 0 dropped"));
    expect_no_complaint();
    // Sent: 2, received: 1.
    const std::vector<std::string> road = {"1 IEMLI_CREATE_INTER_ME_LINK_REQ",
                                           "2 PMI_ENABLE_PORT_VLAN_REQ",
                                           "2 EMI_ADD_ENDPOINT_REQ",
                                           "1 PMI_ENABLE_PORT_VLAN_CFM",
                                           "1 EMI_ADD_ENDPOINT_CFM",
                                           "2 FMI_ACL_APPEND_DYNAMIC_RULE_REQ",
                                           "1 FMI_ACL_APPEND_DYNAMIC_RULE_CFM",
                                           "2 IEMLI_CREATE_INTER_ME_LINK_CFM",
                                           "2 AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ",
                                           "1 AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM",
                                           "1 SUPERVISION_IND"};
    const auto seen = fields("kap.itc", {"kap.itc.direction", "kap.itc.message"});
    for (const std::string &step : road) {
        EXPECT_THAT(seen, testing::Contains(step));
    }
    EXPECT_EQ(seen.front(), road.front());
    const std::vector<std::string> in_order = {road[0], road[4], road[7]};
    EXPECT_EQ(only(seen, in_order), in_order);
    EXPECT_THAT(seen, testing::Each(testing::MatchesRegex("[12] [A-Z_]+"))) << "every message has its name";
}

TEST_F(Capture, FieldsOfMessagesHaveTheirValuesAndMailboxesTheirNames)
{
    start();
    start_capture({"--messages"});
    enabled_link();
    stop_capture();
    EXPECT_THAT(fields("kap.itc.message == \"IEMLI_CREATE_INTER_ME_LINK_REQ\"",
                       {"kap.iemli.imlPortName", "kap.iemli.vlanId", "kap.iemli.farEndCpmMac",
                        "kap.iemli.numberOfAppLinks", "kap.itc.receiver_name"}),
                testing::ElementsAre("IDL_A1 100 02:00:00:00:a1:fe 2 kap-vorn"));
    EXPECT_THAT(fields("kap.itc.message == \"PMI_ENABLE_PORT_VLAN_REQ\"",
                       {"kap.pmi.port_name", "kap.pmi.vlan_id", "kap.itc.sender_name", "kap.itc.receiver_name"}),
                testing::ElementsAre("IDLA1 100 kap-vorn pmi-server"));
    EXPECT_THAT(fields("kap.itc.message == \"IEMLI_CREATE_INTER_ME_LINK_CFM\"", {"kap.iemli.link_ref"}),
                testing::ElementsAre("1"));
    EXPECT_THAT(fields("kap.itc.message == \"AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ\"",
                       {"kap.aasi.vlan_id", "kap.aasi.number_of_app_links", "kap.aasi.remote_cpm_mac"}),
                testing::ElementsAre("100 2 02:00:00:00:a1:fe"));
}

TEST_F(Capture, PingsOfAPortHaveTheirTagTheirDirectionAndTheirSession)
{
    start();
    const demo_link &link = enabled_link();
    start_capture({"--port", "IDL_A1", "--messages"});
    const uint64_t before = demo_far_end_counts(link).answered;
    stage_wait(d.stage, "three more pings are answered", 10s,
               [&] { return demo_far_end_counts(link).answered >= before + 3; });
    const std::string said = stop_capture();
    EXPECT_THAT(said, testing::HasSubstr("looking at idl_a1, port IDL_A1 in namespace near"));
    EXPECT_THAT(said, testing::ContainsRegex("[0-9]+ frames, 0 dropped; [0-9]+ messages, 0 dropped"));
    expect_no_complaint();
    const auto pings =
        fields("kap.ping && eth.addr == 02:00:00:00:a1:01",
               {"kap.ping.action", "vlan.id", "frame.packet_flags_direction", "eth.src", "frame.interface_name"});
    EXPECT_THAT(pings, testing::Contains("0 100 0x00000002 02:00:00:00:a1:01 idl_a1")); // out
    EXPECT_THAT(pings, testing::Contains("2 100 0x00000001 02:00:00:00:a1:fe idl_a1")); // in
    EXPECT_THAT(pings, testing::Each(testing::MatchesRegex("[02] 100 0x0000000[12] .*")));
    // The daemon's session, as its message of the same result has it.
    const auto sessions = fields("kap.ping.action == 2 && eth.dst == 02:00:00:00:a1:01", {"kap.ping.session"});
    ASSERT_FALSE(sessions.empty());
    EXPECT_THAT(fields("kap.supervision", {"kap.supervision.session_id"}), testing::Contains(sessions.front()));
}

TEST_F(Capture, OneLinkOfAPortIsToldFromTheOthers)
{
    start();
    demo_create(d, demo_first_wish(d));
    const uint32_t second = demo_create(d, demo_second_wish(d)).link_ref;
    demo_wait_status(d, second, IML_LINK_ENABLED, 0, 10s);
    const command_result four = command_run(command({"--link", "1", "--count", "4", "-w", file()}));
    EXPECT_EQ(four.status, 0) << four.output;
    EXPECT_THAT(four.output, testing::HasSubstr("4 frames, 0 dropped"));
    const auto vlans = fields("eth", {"vlan.id", "eth.type"});
    EXPECT_EQ(vlans.size(), 4u);
    EXPECT_THAT(vlans, testing::Each("100 0x8100"));
}

// Else a flood of them would keep the command from the signal that ends it.
TEST_F(Capture, FramesThatNobodyWantsDoNotHoldUpWhoLooks)
{
    start();
    const uint8_t nobody[6] = {2, 0, 0, 0, 0, 9};
    const uint8_t wanted[6] = {2, 0, 0, 0, 0, 2};
    capture::frame_source source("near", "idl_a1", {true, {}, {{2, 0, 0, 0, 0, 2}}}, 96);
    send_experimental("near", "idl_a1", nobody, 200);
    send_experimental("near", "idl_a1", wanted, 1);
    pollfd readable{source.fd(), POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, 10000), 1);
    EXPECT_FALSE(source.next().has_value()) << "so many looks, and no more";
    ASSERT_EQ(poll(&readable, 1, 10000), 1) << "there is more";
    const auto seen = source.next();
    ASSERT_TRUE(seen.has_value());
    EXPECT_TRUE(std::equal(wanted, wanted + 6, seen->bytes.begin()));
}

TEST_F(Capture, TheFileSaysWhereAndHowMuchWasSeen)
{
    start();
    enabled_link();
    start_capture({"--port", "IDLA1", "--messages", "--snap-length", "64"});
    stage_wait(d.stage, "something is in the file", 10s, [&] {
        struct stat facts {
        };
        return stat(file().c_str(), &facts) == 0 && facts.st_size > 2000;
    });
    stop_capture();
    const std::string facts = command_must({"capinfos", "-M", file()});
    EXPECT_THAT(facts, testing::HasSubstr("File type:           pcapng"));
    EXPECT_THAT(facts, testing::HasSubstr("Name = idl_a1"));
    EXPECT_THAT(facts, testing::HasSubstr("Description = port IDLA1 in namespace near"));
    EXPECT_THAT(facts, testing::HasSubstr("Name = kap-vorn"));
    EXPECT_THAT(facts, testing::HasSubstr("Time precision = nanoseconds (9)"));
    EXPECT_THAT(facts, testing::HasSubstr("Number of stat entries = 1"));
    EXPECT_THAT(facts, testing::HasSubstr("Strict time order:   True"));
}

// The commands of a section of a document: its first block of them.
std::vector<std::string> commands_of(const std::string &document, const std::string &section)
{
    std::ifstream text(KAP_SOURCE_DIR "/" + document);
    std::vector<std::string> commands;
    bool in_section = false;
    bool in_block = false;
    for (std::string line; std::getline(text, line);) {
        in_section = in_section || line == section;
        if (in_section && line.rfind("```", 0) == 0) {
            if (in_block) {
                break;
            }
            in_block = true;
        } else if (in_block) {
            commands.push_back(line);
        }
    }
    return commands;
}

TEST_F(Capture, TheCommandsOfTheHandbookDoWhatItSays)
{
    start();
    enabled_link();
    // Where Wireshark looks for a user's own dissectors.
    const std::filesystem::path plugins = d.stage.log_dir + "/.local/lib/wireshark/plugins";
    std::filesystem::create_directories(plugins);
    std::filesystem::copy(DISSECTOR, plugins / "kap_vorn.lua");
    const auto commands = commands_of("docs/operations.md", "## A capture");
    ASSERT_EQ(commands.size(), 3u);
    std::vector<std::string> output;
    for (const std::string &line : commands) {
        output.push_back(
            command_must({"sh", "-c", "cd \"$0\" && PATH=\"$1:$PATH\" HOME=\"$0\" && export HOME && " + line,
                          d.stage.log_dir, d.stage.bin_dir}));
    }
    EXPECT_THAT(output[0], testing::ContainsRegex("[0-9]+ frames, 0 dropped; [0-9]+ messages, 0 dropped"));
    EXPECT_THAT(output[1], testing::HasSubstr("\t1\tSUPERVISION_IND\n"));
    EXPECT_THAT(output[2], testing::ContainsRegex("100\t0\t[0-9]+\t[0-9]+\n"));
}

TEST_F(Capture, ACaptureThatIsReadFromAPipeNeedsNoFile)
{
    start();
    enabled_link();
    const std::string piped = d.stage.bin_dir + "/vornctl capture --port IDL_A1 --count 2 -w - 2>/dev/null | "
                                                "tshark -n -r - -T fields -e vlan.id 2>/dev/null";
    EXPECT_EQ(command_must({"sh", "-c", piped}), "100\n100\n");
}

TEST_F(Capture, TheCaptureOfADaemonThatEndsEndsToo)
{
    start();
    child_process capture =
        process_start(CAPTURE, command({"--messages", "-w", file()}), d.stage.log_dir + "/capture.log");
    wait_log(CAPTURE, "looking at");
    EXPECT_EQ(process_status_text(stage_stop_process(d.stage, DAEMON, SIGTERM, 5s)), "exit status 0");
    EXPECT_TRUE(process_wait(capture, 10s));
    EXPECT_EQ(process_status_text(capture), "exit status 0");
    EXPECT_THAT(read_log(CAPTURE), testing::HasSubstr("kap-vorn has ended"));
    expect_no_complaint();
}

TEST_F(Capture, TheDaemonDoesNotNoticeACaptureThatStandsStill)
{
    start();
    start_capture({"--messages"});
    kill(d.stage.processes.at(CAPTURE).pid, SIGSTOP);
    enabled_link();
    kill(d.stage.processes.at(CAPTURE).pid, SIGCONT);
    stop_capture();
    expect_no_complaint();
}

TEST_F(Capture, WhatCannotBeLookedAtIsSaidWithAStatusOfItsOwn)
{
    start();
    const command_result port = command_run(command({"--port", "IDL_C9", "-w", "/dev/null"}));
    EXPECT_EQ(port.status, 1);
    EXPECT_THAT(port.output, testing::StartsWith("vornctl capture: there is no port \"IDL_C9\"; there are IDLA1"));
    const command_result link = command_run(command({"--link", "7", "-w", "/dev/null"}));
    EXPECT_EQ(link.status, 1);
    EXPECT_EQ(link.output, "vornctl capture: there is no link 7\n");
    const command_result interface = command_run(command({"--interface", "nothing", "-w", "/dev/null"}));
    EXPECT_EQ(interface.status, 1);
    EXPECT_EQ(interface.output, "vornctl capture: the interface \"nothing\": No such device\n");
    EXPECT_EQ(command_run(command({"-w", "/dev/null"})).status, 2);
    EXPECT_EQ(command_run(command({"--messages", "--vlan", "5", "-w", "/dev/null"})).status, 2);
    EXPECT_EQ(command_run(command({"--port", "IDL_A1", "--count", "none", "-w", "/dev/null"})).status, 2);
    d.stage.bin_dir = programs_for_everybody(d.stage.bin_dir);
    const std::string as_nobody = "exec setpriv --reuid=65534 --regid=65534 --clear-groups \"$@\"";
    for (const std::vector<std::string> &words :
         std::vector<std::vector<std::string>>{{"--messages"}, {"--interface", "lo"}}) {
        std::vector<std::string> all = {"sh", "-c", as_nobody, "sh"};
        const auto called = command(words);
        all.insert(all.end(), called.begin(), called.end());
        all.insert(all.end(), {"-w", "/dev/null"});
        const command_result refused = command_run(all);
        EXPECT_EQ(refused.status, 5) << refused.output;
    }
    const command_result full = command_run(command({"--messages", "--duration", "1", "-w", "/dev/full"}));
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.output, testing::HasSubstr("cannot be written: No space left on device"));
    EXPECT_EQ(process_status_text(stage_stop_process(d.stage, DAEMON, SIGTERM, 5s)), "exit status 0");
    const command_result daemon = command_run(command({"--messages", "-w", "/dev/null"}));
    EXPECT_EQ(daemon.status, 3);
    EXPECT_EQ(daemon.output, "vornctl capture: kap-vorn does not run\n");
}
