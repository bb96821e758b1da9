// The page of kap-linkd in a real browser, before the whole scene: what a person sees with no link, with two and with
// a thousand, while a link is cut, and after a restart. Pictures are kept beside the logs of each test.
#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "browser.hpp"
#include "e2e/e2e.hpp"

using namespace std::chrono_literals;
using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

constexpr const char *PROGRAM = "kap-linkd";
constexpr const char *URL = "http://127.0.0.1:9643/";
constexpr const char *LINKS = "/run/kap-linkd/links.toml";
constexpr int WIDE = 1200;
constexpr int PHONE = 360;

constexpr const char *TWO_LINKS = R"([links.north]
port = "IDL_A1"
vlan = 100
far = "02:00:00:00:a1:fe"
app_links = [{ near = "06:00:00:00:01:01", far = "06:00:00:00:01:fe" }]
rtt = { batch = 2, interval = 1, frame_bytes = 100 }
[links.south]
port = "IDL_A1"
vlan = 101
far = "02:00:00:00:a1:fe"
)";

const std::string SUM = "document.getElementById('sum').textContent";

std::string quoted(const std::string &text) { return json(text).dump(); }

class Page : public EndToEnd
{
protected:
    void SetUp() override
    {
        EndToEnd::SetUp();
        ASSERT_EQ(system("ip link set lo up"), 0); // of this test's own namespace; browser and page meet there
        std::filesystem::create_directories("/run/kap-linkd");
        std::filesystem::create_directories(d.stage.log_dir + "/state");
    }

    // A picture of what is seen, beside the logs.
    void keep(browser &page, const std::string &name) const
    {
        page.tell({"shot", d.stage.log_dir + "/" + name + ".png"});
    }

    void declare(const std::string &text) const { std::ofstream(LINKS) << text; }

    void run_linkd()
    {
        d.stage.processes[PROGRAM] = process_start(PROGRAM,
                                                   {d.stage.bin_dir + "/" + PROGRAM, "--links", LINKS, "--state",
                                                    d.stage.log_dir + "/state", "--settings", "/nowhere"},
                                                   d.stage.log_dir + "/" + PROGRAM + ".log");
    }

    static void wait_sum(browser &page, const std::string &text, int seconds = 30)
    {
        page.wait(SUM + ".includes(" + quoted(text) + ")", seconds);
    }

    // What must hold of the page whatever it shows.
    static void expect_sound(browser &page)
    {
        EXPECT_EQ(page.tell({"complaints"}), json::array());
        EXPECT_EQ(page.value("performance.getEntriesByType('resource').map(e => e.name)"
                             ".filter(name => !name.startsWith(location.origin))"),
                  json::array())
            << "it takes nothing from elsewhere";
        EXPECT_LE(page.value("document.scrollingElement.scrollWidth - innerWidth").get<int>(), 0)
            << "nothing is cut off at the side";
    }
};

TEST_F(Page, SaysWhatToDoWhenNoLinkIsDeclared)
{
    declare("");
    start();
    run_linkd();
    browser page(d.stage.log_dir + "/browser.log");
    stage_wait(d.stage, "the page is served", 20s, [&] {
        page.open(URL, WIDE, 800, "light");
        return page.value("document.title") == "Links";
    });
    page.tell({"complaints"}); // those of before it was served
    wait_sum(page, "No link is declared.");
    EXPECT_THAT(page.value("document.getElementById('none').textContent").get<std::string>(),
                HasSubstr("vornctl link add"));
    EXPECT_FALSE(page.value("document.getElementById('links').checkVisibility()").get<bool>());
    expect_sound(page);
    keep(page, "none");
}

TEST_F(Page, ShowsACutAndItsEndWhileTheyHappenAndOutlivesARestart)
{
    declare(TWO_LINKS);
    start();
    run_linkd();
    browser page(d.stage.log_dir + "/browser.log");
    stage_wait(d.stage, "the page is served", 20s, [&] {
        page.open(std::string(URL) + "#link=north", WIDE, 900, "light");
        return page.value("document.title") != "127.0.0.1";
    });
    page.tell({"complaints"});
    wait_sum(page, "All 2 links are enabled.");
    page.value("(window.sameDocument = true)");
    page.click("tbody tr:first-child button");
    page.wait("document.querySelectorAll('#plot canvas').length > 0");
    page.wait("document.getElementById('plot-words').textContent.startsWith('Shortest')");
    EXPECT_THAT(page.value("document.getElementById('facts').textContent").get<std::string>(),
                AllOf(HasSubstr("02:00:00:00:a1:fe"), HasSubstr("IDL_A1, 100")));
    expect_sound(page);
    keep(page, "two");

    stage_control(FAR_END, {"silent", "on"});
    wait_sum(page, "0 of 2 links enabled: 2 disabled.");
    page.wait("document.querySelectorAll('#events .disabled').length >= 2");
    EXPECT_EQ(page.value("document.querySelector('tbody .why').textContent"), "no connectivity");
    page.wait("document.querySelectorAll('#timeline .disabled').length > 0");
    keep(page, "cut");
    stage_control(FAR_END, {"silent", "off"});
    wait_sum(page, "All 2 links are enabled.");
    expect_sound(page);

    child_process ended = stage_stop_process(d.stage, PROGRAM, SIGTERM, 10s);
    EXPECT_EQ(process_status_text(ended), "exit status 0");
    page.wait("!document.getElementById('trouble').hidden");
    keep(page, "gone");
    run_linkd();
    page.wait("document.getElementById('trouble').hidden");
    wait_sum(page, "All 2 links are enabled.");
    EXPECT_TRUE(page.value("window.sameDocument").get<bool>()) << "nobody had to load it again";
    page.wait("document.querySelectorAll('#past .disabled').length > 0");
    keep(page, "restarted");
}

TEST_F(Page, ShowsAThousandLinks)
{
    std::ostringstream text;
    for (int vlan = 1; vlan <= 1000; vlan++) {
        text << "[links.link-" << vlan << "]\nport = \"IDL_A1\"\nvlan = " << vlan << "\nfar = \"02:00:00:00:a1:fe\"\n";
    }
    declare(text.str());
    start();
    run_linkd();
    browser page(d.stage.log_dir + "/browser.log");
    stage_wait(d.stage, "the page is served", 20s, [&] {
        page.open(URL, WIDE, 800, "light");
        return page.value("document.title") != "127.0.0.1";
    });
    page.tell({"complaints"});
    wait_sum(page, "All 1000 links are enabled.", 60);
    const std::string rows = "document.querySelectorAll('tbody tr').length";
    EXPECT_EQ(page.value(rows), 100);
    page.click("#more");
    EXPECT_EQ(page.value(rows), 1000);
    page.tell({"type", "#words", "link-77"});
    page.wait(rows + " == 11");
    EXPECT_EQ(page.value("document.getElementById('shown').textContent"), "11 of 1000 fit");
    expect_sound(page);
    keep(page, "thousand");
}

TEST_F(Page, FitsATelephoneAndCanBeReadByEveryEyeAndEar)
{
    declare(TWO_LINKS);
    start();
    run_linkd();
    browser page(d.stage.log_dir + "/browser.log");
    stage_wait(d.stage, "the page is served", 20s, [&] {
        page.open(URL, PHONE, 740, "light");
        return page.value("document.title") != "127.0.0.1";
    });
    page.tell({"complaints"});
    for (const char *scheme : {"light", "dark"}) {
        page.open(URL, PHONE, 740, scheme);
        wait_sum(page, "All 2 links are enabled.");
        page.click("tbody tr:first-child button");
        page.wait("document.querySelectorAll('#plot canvas').length > 0");
        // Contrast of what is written, as the guidelines for accessible pages count it: 4.5 at the least.
        EXPECT_EQ(page.value(R"((() => {
            const style = getComputedStyle(document.documentElement);
            const light = (name) => {
                const hex = style.getPropertyValue(name).trim();
                const [r, g, b] = [1, 3, 5].map((at) => parseInt(hex.slice(at, at + 2), 16) / 255)
                    .map((part) => (part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4));
                return 0.2126 * r + 0.7152 * g + 0.0722 * b;
            };
            const weak = [];
            for (const ground of ['--ground', '--raised']) {
                for (const ink of ['--ink', '--faint', '--mark', '--enabled', '--disabled', '--rejected', '--waiting']) {
                    const [less, more] = [light(ground), light(ink)].sort((a, b) => a - b);
                    if ((more + 0.05) / (less + 0.05) < 4.5) {
                        weak.push(`${ink} on ${ground}`);
                    }
                }
            }
            return weak;
        })())"),
                  json::array())
            << scheme;
        expect_sound(page);
        keep(page, std::string("phone-") + scheme);
    }
    std::vector<std::string> said;
    for (const json &node : page.tell({"tree"})) {
        const std::string role = node[0];
        const std::string name = node[1];
        said.push_back(role + " " + name);
        if (role == "button" || role == "searchbox" || role == "combobox" || role == "image" || role == "table") {
            EXPECT_FALSE(name.empty()) << "a " << role << " has no name";
        }
    }
    EXPECT_THAT(said, Contains("button north"));
    EXPECT_THAT(said, Contains("table All links"));
    EXPECT_THAT(said, Contains("searchbox Name, port or address"));
    EXPECT_THAT(said, Contains(HasSubstr("Round trips of the last hour")));
}

} // namespace
