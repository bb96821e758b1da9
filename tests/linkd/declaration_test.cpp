// Declarations: what is read, and everything that is wrong, with its place.
#include "declaration.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace
{

using namespace linkd;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> mistakes_in(const std::string &text, declarations *links = nullptr)
{
    declarations here;
    declarations &to = links == nullptr ? here : *links;
    std::vector<std::string> mistakes;
    read_links(text, "f", true, to, mistakes);
    for (const std::string &each : conflicts(to)) {
        mistakes.push_back(each);
    }
    return mistakes;
}

// A link that is right but for one line, which replaces the one of its key.
std::string with(const std::string &line)
{
    std::string text = "[links.a]\n";
    const std::string key = line.substr(0, line.find(' '));
    for (const char *each : {"port = \"IDL_A1\"", "vlan = 100", "far = \"02:00:00:00:00:02\""}) {
        text += (std::string(each).starts_with(key + " ") ? line : each) + "\n";
    }
    return text + (key == "port" || key == "vlan" || key == "far" ? "" : line + "\n");
}

TEST(Declarations, AreReadWithWhatIsLeftOut)
{
    declarations links;
    EXPECT_THAT(mistakes_in(R"([links.to-north]
port = "IDLA1"
vlan = 100
far = "02:00:00:00:00:0A"
[links."b.2_x"]
port = "TN_D"
vlan = 4094
far = "02:00:00:00:00:02"
near_mp = 63
app_links = [{ near = "02:00:00:00:02:01", far = "02:00:00:00:02:02" }, { near = "02:00:00:00:01:01", far = "02:00:00:00:01:02" }]
rtt = { batch = 4, interval = 15 }
)",
                            &links),
                IsEmpty());
    const declaration &north = links.at("to-north");
    EXPECT_EQ(north.key.port, "IDL_A1");
    EXPECT_EQ(text_of(north.key.far), "02:00:00:00:00:0a");
    EXPECT_EQ(north.key.near_mp, 1);
    EXPECT_EQ(north.rtt, std::nullopt);
    EXPECT_EQ(text_of(north.at), "f:1:8: ");
    const declaration &second = links.at("b.2_x");
    EXPECT_EQ(second.rtt, (rtt_wish{4, 15, 64}));
    ASSERT_EQ(second.app_links.size(), 2u);
    EXPECT_EQ(text_of(second.app_links[0].near), "02:00:00:00:01:01") << "in the order of the addresses";
}

TEST(Declarations, SayWhereAndWhatIsWrong)
{
    const std::pair<const char *, const char *> cases[] = {
        {"port = \"IDL_C1\"", "f:2:8: there is no port \"IDL_C1\""},
        {"port = 1", "f:2:8: must be a text"},
        {"vlan = 0", "f:3:8: must be a number from 1 to 4094"},
        {"vlan = 4095", "f:3:8: must be a number from 1 to 4094"},
        {"vlan = \"1\"", "f:3:8: must be a number from 1 to 4094"},
        {"far = \"02:00:00:00:00\"", "f:4:7: \"02:00:00:00:00\" is no MAC address"},
        {"far = \"02-00-00-00-00-02\"", "is no MAC address"},
        {"far = \"03:00:00:00:00:02\"", "f:4:7: \"03:00:00:00:00:02\" is the address of a group"},
        {"far = \"00:00:00:00:00:00\"", "f:4:7: the address is zero"},
        {"near_mp = 0", "f:5:11: must be a number from 1 to 63"},
        {"near_mp = 64", "f:5:11: must be a number from 1 to 63"},
        {"rtt = 1", "f:5:7: write true, false, or {"},
        {"rtt = { batch = 1 }", "must be a number from 2 to 60"},
        {"rtt = { interval = 31 }", "must be a number from 1 to 30"},
        {"rtt = { frame_bytes = 63 }", "must be a number from 64 to 1500"},
        {"rtt = { batch = 7, interval = 8 }", "f:5:7: a minute must hold a whole number of batches"},
        {"rtt = { size = 7 }", "nothing is called \"size\" here"},
        {"app_links = 1", "f:5:13: must be a list of pairs"},
        {"app_links = [{ near = \"02:00:00:00:00:03\" }]", "f:5:14: the pair lacks \"far\""},
        {"app_links = [{ near = \"02:00:00:00:00:03\", far = \"02:00:00:00:00:02\" }]",
         "f:5:14: an application has the far end's address"},
        {"app_links = [{ near = \"02:00:00:00:00:02\", far = \"02:00:00:00:00:03\" }]",
         "f:5:14: an application has the far end's address"},
        {"app_links = [{ near = \"02:00:00:00:00:03\", far = \"02:00:00:00:00:03\" }]",
         "f:5:14: both applications of the pair have the same address"},
        {"app_links = [{ near = \"02:00:00:00:00:03\", far = \"02:00:00:00:00:04\" }, { near = \"02:00:00:00:00:03\", "
         "far = \"02:00:00:00:00:04\" }]",
         "f:5:73: the pair of applications stands here twice"},
        {"colour = 1", "f:5:1: nothing is called \"colour\" here"},
    };
    EXPECT_THAT(mistakes_in(with("vlan = 100")), IsEmpty());
    for (const auto &[line, complaint] : cases) {
        EXPECT_THAT(mistakes_in(with(line)), ElementsAre(HasSubstr(complaint))) << line;
    }
}

TEST(Declarations, SayWhatIsMissingAndWhatIsNoLink)
{
    EXPECT_THAT(mistakes_in("[links.a]\n"), ElementsAre("f:1:8: \"a\" lacks \"port\"", "f:1:8: \"a\" lacks \"vlan\"",
                                                        "f:1:8: \"a\" lacks \"far\""));
    EXPECT_THAT(mistakes_in("[link.a]\n"), ElementsAre("f:1:2: nothing is called \"link\" here; write [links.NAME]"));
    EXPECT_THAT(mistakes_in("links = 1\n"), ElementsAre("f:1:9: write [links.NAME]"));
    EXPECT_THAT(mistakes_in("[links]\na = 1\n"), testing::Contains(HasSubstr("f:2:5: write [links.a]")));
    EXPECT_THAT(mistakes_in("[links.\"a b\"]\nport = \"IDL_A1\"\nvlan = 1\nfar = \"02:00:00:00:00:02\"\n"),
                ElementsAre(HasSubstr("f:1:8: a link's name is")));
    EXPECT_THAT(mistakes_in("x = [\n"), ElementsAre(HasSubstr("f:1:7: ")));
}

TEST(Declarations, MayNotBeAtOddsWithEachOther)
{
    const auto link = [](const std::string &name, const std::string &port, int vlan, const std::string &far,
                         const std::string &rest = "") {
        return "[links." + name + "]\nport = \"" + port + "\"\nvlan = " + std::to_string(vlan) + "\nfar = \"" + far +
               "\"\n" + rest;
    };
    const std::string one = link("a", "IDL_A1", 100, "02:00:00:00:00:02",
                                 "app_links = [{ near = \"02:00:00:00:01:01\", far = \"02:00:00:00:01:02\" }]\n");
    EXPECT_THAT(mistakes_in(one + link("b", "IDLA1", 100, "02:00:00:00:00:02")),
                ElementsAre("f:6:8: it has port, VLAN, processor and far end of the link \"a\", f:1"));
    EXPECT_THAT(mistakes_in(one + link("b", "IDL_A1", 100, "02:00:00:00:00:02", "near_mp = 2\n")), IsEmpty());
    EXPECT_THAT(mistakes_in(one + link("b", "TN_A", 100, "02:00:00:00:00:02")),
                ElementsAre("f:9:7: in this VLAN another port reaches that far end: the link \"a\", f:1"));
    EXPECT_THAT(mistakes_in(one + link("b", "TN_A", 101, "02:00:00:00:00:02")), IsEmpty());
    const std::string same_app = "app_links = [{ near = \"02:00:00:00:03:01\", far = \"02:00:00:00:01:02\" }]\n";
    EXPECT_THAT(
        mistakes_in(one + link("b", "TN_A", 100, "02:00:00:00:00:03", same_app)),
        ElementsAre("f:10:14: in this VLAN another port has a link to the application 02:00:00:00:01:02: the link "
                    "\"a\", f:1"));
    EXPECT_THAT(mistakes_in(one + link("b", "TN_A", 101, "02:00:00:00:00:03", same_app)), IsEmpty());
    EXPECT_THAT(mistakes_in(one + link("b", "IDL_A1", 100, "02:00:00:00:00:03", same_app)), IsEmpty());
}

TEST(Declarations, StandInOneFileAndInADirectoryBesideIt)
{
    char pattern[] = "/tmp/linkd_declarations.XXXXXX";
    const std::string directory = mkdtemp(pattern);
    const std::string text = "\nport = \"IDL_A1\"\nvlan = 1\nfar = \"02:00:00:00:00:02\"\n";
    std::vector<std::string> mistakes;
    EXPECT_TRUE(read_link_files(directory + "/links.toml", mistakes).empty());
    EXPECT_THAT(mistakes, IsEmpty()) << "nothing is declared yet";
    std::filesystem::create_directory(directory + "/links.d");
    std::ofstream(directory + "/links.toml") << "[links.a]" << text;
    std::ofstream(directory + "/links.d/2.toml") << "[links.a]" << text;
    std::ofstream(directory + "/links.d/1.toml") << "[links.b]" << text;
    std::ofstream(directory + "/links.d/3.toml~") << "nonsense";
    const declarations links = read_link_files(directory + "/links.toml", mistakes);
    EXPECT_EQ(links.size(), 2u);
    EXPECT_THAT(
        mistakes,
        ElementsAre(directory + "/links.d/2.toml:1:8: there is a link \"a\" already: " + directory + "/links.toml:1",
                    directory + "/links.toml:1:8: it has port, VLAN, processor and far end of the link \"b\", " +
                        directory + "/links.d/1.toml:1"));
    EXPECT_TRUE(read_link_files(std::vector<std::string>{directory + "/none"}, mistakes).empty());
    EXPECT_EQ(mistakes.back(), directory + "/none: cannot be read");
    std::filesystem::remove_all(directory);
}

TEST(Declarations, AreWrittenAsTheyAreRead)
{
    declarations links;
    EXPECT_THAT(mistakes_in(with("rtt = { batch = 4, interval = 15, frame_bytes = 100 }") +
                                "app_links = [{ near = \"02:00:00:00:01:01\", far = \"02:00:00:00:01:02\" }, { near = "
                                "\"02:00:00:00:01:03\", far = \"02:00:00:00:01:04\" }]\n",
                            &links),
                IsEmpty());
    declarations again;
    EXPECT_THAT(mistakes_in(toml_of(links), &again), IsEmpty());
    EXPECT_EQ(toml_of(again), toml_of(links));
    EXPECT_EQ(again.at("a").key, links.at("a").key);
    EXPECT_EQ(again.at("a").app_links, links.at("a").app_links);
    EXPECT_EQ(again.at("a").rtt, links.at("a").rtt);
}

TEST(Declarations, ComeAsJsonToo)
{
    using nlohmann::json;
    declaration link;
    const json good = {{"port", "IDLA1"}, {"vlan", 7}, {"far", "02:00:00:00:00:02"}, {"rtt", true}, {"more", 1}};
    EXPECT_EQ(take_json(good, true, link), "");
    EXPECT_EQ(link.key.port, "IDL_A1");
    EXPECT_EQ(link.rtt, rtt_wish{});
    EXPECT_EQ(take_json({{"rtt", {{"batch", 10}}}}, false, link), "");
    EXPECT_EQ(take_json({{"rtt", false}}, false, link), "");
    EXPECT_EQ(link.key.vlan, 7) << "what is not named stays";
    const std::pair<json, const char *> wrong[] = {
        {{{"vlan", 4095}}, "vlan: must be a number from 1 to 4094"},
        {{{"vlan", 1.5}}, "vlan: must be"},
        {{{"vlan", 18446744073709551615U}}, "vlan: must be"},
        {{{"port", 1}}, "port: must be a text"},
        {{{"far", "x"}}, "far: \"x\" is no MAC address"},
        {{{"far", nullptr}}, "far: must be a MAC address"},
        {{{"app_links", {1}}}, "app_links: must be pairs"},
        {{{"app_links", json::object()}}, "app_links: must be a list"},
        {{{"app_links", {{{"near", "02:00:00:00:00:03"}, {"far", "02:00:00:00:00:02"}}}}},
         "app_links: an application has"},
        {{{"rtt", 1}}, "rtt: must be true"},
        {{{"rtt", {{"batch", 7}}}}, "rtt: a minute must hold"},
    };
    for (const auto &[request, complaint] : wrong) {
        const auto before = toml_of({{"a", link}});
        EXPECT_THAT(take_json(request, false, link), HasSubstr(complaint)) << request;
        EXPECT_EQ(toml_of({{"a", link}}), before) << "nothing was changed: " << request;
    }
    EXPECT_EQ(take_json({{"port", "IDL_A1"}, {"vlan", 1}}, true, link), "lacks \"far\"");
}

} // namespace
