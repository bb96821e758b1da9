// What is really on the wire, read by a dissector that is not ours.
#include <algorithm>
#include <csignal>
#include <sstream>

#include "e2e.hpp"

using namespace std::chrono_literals;

namespace
{

// One captured frame, as the dissector reads it.
struct frame {
    std::string source;
    std::string destination;
    std::string vlans; // every 802.1Q tag of the frame, comma between two
    std::string type_after_tag;
    std::string message_type;
    std::string action;
};

class OnTheWire : public EndToEnd
{
protected:
    std::string capture_file(const std::string &interface) const
    {
        return d.stage.log_dir + "/" + interface + ".pcapng";
    }

    void start_capture(const std::string &interface)
    {
        d.stage.processes["capture"] = process_start(
            "capture",
            {"ip", "netns", "exec", NEAR_NAMESPACE, "dumpcap", "-q", "-i", interface, "-w", capture_file(interface)},
            d.stage.log_dir + "/capture.log");
        wait_log("capture", "File: ");
    }

    void stop_capture() { stage_stop_process(d.stage, "capture", SIGINT, 10s); }

    static std::string dissect(const std::vector<std::string> &arguments)
    {
        // What it remarks about its own user goes to standard error.
        std::vector<std::string> command = {"sh", "-c", "exec tshark -n -r \"$@\" 2>/dev/null", "tshark"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        command_result result = command_run(command);
        EXPECT_EQ(result.status, 0) << result.output;
        return result.output;
    }

    // All that is tagged but IPv6: a kernel that has VLAN devices looks for neighbours on them.
    std::vector<frame> frames(const std::string &interface)
    {
        std::string text = dissect({capture_file(interface),
                                    "-Y",
                                    "(eth.type == 0x8100 || ecpri) && !ipv6",
                                    "-T",
                                    "fields",
                                    "-E",
                                    "separator=;",
                                    "-E",
                                    "occurrence=a",
                                    "-e",
                                    "eth.src",
                                    "-e",
                                    "eth.dst",
                                    "-e",
                                    "vlan.id",
                                    "-e",
                                    "vlan.etype",
                                    "-e",
                                    "ecpri.type",
                                    "-e",
                                    "ecpri.actiontype"});
        std::vector<frame> all;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            all.push_back(read_frame(line));
        }
        return all;
    }

    static frame read_frame(const std::string &line)
    {
        std::istringstream fields(line);
        frame f;
        for (std::string *field :
             {&f.source, &f.destination, &f.vlans, &f.type_after_tag, &f.message_type, &f.action}) {
            std::getline(fields, *field, ';');
        }
        return f;
    }

    // Brings one link up and captures at least two answered pings of it. The newest frames may still be on their way to
    // the capture's file when it is stopped: one ping more is waited for.
    void capture_pings(const iemli_link_wish &wish, const std::string &interface)
    {
        start_capture(interface);
        demo_link &link = demo_create(d, wish);
        demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
        stage_wait(d.stage, "three pings are answered", 5s, [&] { return demo_far_end_counts(link).answered >= 3; });
        stop_capture();
    }

    void expect_pings(const std::string &interface, const std::string &near, const std::string &far,
                      const std::string &vlan)
    {
        size_t requests = 0;
        size_t answers = 0;
        for (const frame &f : frames(interface)) {
            EXPECT_EQ(f.vlans, vlan) << "the tag stands in a frame exactly once";
            EXPECT_EQ(f.type_after_tag, "0xaefe");
            EXPECT_EQ(f.message_type, "0x05") << "one-way delay measurement";
            requests += f.source == near && f.destination == far && f.action == "0x00" ? 1 : 0;
            answers += f.source == far && f.destination == near && f.action == "0x02" ? 1 : 0;
        }
        EXPECT_GE(requests, 2u);
        EXPECT_GE(answers, 2u);
    }

    void expect_no_complaint(const std::string &interface)
    {
        EXPECT_EQ(dissect({capture_file(interface), "-Y", "ecpri && (_ws.malformed || _ws.expert)", "-T", "fields",
                           "-e", "_ws.expert.message"}),
                  "");
    }
};

} // namespace

TEST_F(OnTheWire, PingAndAnswerAreOneWayDelayMeasurementsWithOneTag)
{
    start();
    iemli_link_wish wish = demo_first_wish(d);
    wish.app_links.clear();
    capture_pings(wish, "idl_a1");
    expect_pings("idl_a1", "02:00:00:00:a1:01", "02:00:00:00:a1:fe", "100");
    expect_no_complaint("idl_a1");
}

TEST_F(OnTheWire, AVlanOfAPortsOwnIsTaggedOnceToo)
{
    start();
    iemli_link_wish wish = demo_second_wish(d);
    wish.app_links.clear();
    capture_pings(wish, "tn_a");
    expect_pings("tn_a", "02:00:00:00:aa:01", "02:00:00:00:aa:fe", "200");
    expect_no_complaint("tn_a");
}

TEST_F(OnTheWire, KeepAlivesComeFromTheNearEndApplications)
{
    start();
    iemli_link_wish wish = demo_first_wish(d);
    capture_pings(wish, "idl_a1");
    auto all = frames("idl_a1");
    for (const IemliAppLink &app : wish.app_links) {
        std::string near = mac_to_text(app.nearEndAppMac);
        std::transform(near.begin(), near.end(), near.begin(), [](unsigned char c) { return std::tolower(c); });
        EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](const frame &f) {
            return f.source == near && f.destination == "02:00:00:00:a1:fe" && f.action == "0x00";
        })) << near;
    }
    expect_no_complaint("idl_a1");
}
