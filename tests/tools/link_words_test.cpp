// The words of kap-link: what is taken, and what is said of the others.
#include "words.hpp"

#include <gmock/gmock.h>

#include <cstring>

namespace
{

using namespace kap_link;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char *FAR = "02:00:00:00:00:02";

std::string said_of(const std::vector<std::string> &words)
{
    wish wanted;
    return read_words(words, wanted);
}

TEST(LinkWords, AreAPortAVlanTheFarEndAndPairsOfApplications)
{
    wish wanted;
    ASSERT_THAT(read_words({"TN_D", "4094", "02:aB:00:00:00:FF", "06-00-00-00-00-01,06:00:00:00:00:02"}, wanted), "");
    EXPECT_EQ(wanted.port, "TN_D");
    EXPECT_EQ(wanted.vlan, 4094);
    EXPECT_EQ(wanted.mp_id, 1);
    EXPECT_THAT(wanted.far.byte, ElementsAre(2, 0xAB, 0, 0, 0, 0xFF));
    ASSERT_EQ(wanted.app_links.size(), 1u);
    EXPECT_THAT(wanted.app_links[0].near_end.byte, ElementsAre(6, 0, 0, 0, 0, 1));
    EXPECT_THAT(wanted.app_links[0].far_end.byte, ElementsAre(6, 0, 0, 0, 0, 2));
}

TEST(LinkWords, NeedNoApplications) { EXPECT_THAT(said_of({"IDL_A1", "1", FAR}), IsEmpty()); }

TEST(LinkWords, AreTakenOnlyWhole)
{
    EXPECT_THAT(said_of({}), HasSubstr("which link?"));
    EXPECT_THAT(said_of({"IDL_A1", "1"}), HasSubstr("which link?"));
    for (const char *port : {"", "idl_a1", "IDL_A", "IDL_A11", "IDLA1", " IDL_A1"}) {
        EXPECT_THAT(said_of({port, "1", FAR}), HasSubstr("no port (IDL_A1, ")) << port;
    }
    for (const char *vlan : {"", "0", "4095", "65537", "-1", "+1", "1 ", "0x10", "1e1", "99999999999999999999"}) {
        EXPECT_THAT(said_of({"IDL_A1", vlan, FAR}), HasSubstr("not a VLAN")) << vlan;
    }
    for (const char *pair : {"", "06:00:00:00:00:01", "06:00:00:00:00:01,06:00:00:00:00:02,06:00:00:00:00:03"}) {
        EXPECT_THAT(said_of({"IDL_A1", "1", FAR, pair}), HasSubstr("not a pair of applications")) << pair;
    }
    EXPECT_THAT(said_of({"IDL_A1", "1", FAR, "06:00:00:00:00:01,"}), HasSubstr("not a MAC address"));
}

TEST(LinkWords, ThatAreNoAddressOfOneAreRefused)
{
    for (const char *mac :
         {"", "02:00:00:00:00", "02:00:00:00:00:02:", "2:0:0:0:0:2", "02:00:00:00:00:0g", "02:00-00:00:00:02",
          "020000000002", "02:00:00:00:00:-2", "02:00:00:00:00:+2", "0x:00:00:00:00:02", "02:00:00:00:00: 2"}) {
        EXPECT_THAT(said_of({"IDL_A1", "1", mac}), HasSubstr("not a MAC address")) << mac;
    }
    EXPECT_THAT(said_of({"IDL_A1", "1", "03:00:00:00:00:02"}), HasSubstr("a group's address"));
    EXPECT_THAT(said_of({"IDL_A1", "1", "FF:FF:FF:FF:FF:FF"}), HasSubstr("a group's address"));
    EXPECT_THAT(said_of({"IDL_A1", "1", "00:00:00:00:00:00"}), HasSubstr("nobody's address"));
}

TEST(LinkWords, OfRoundTripsFitTheMinute)
{
    wish wanted;
    EXPECT_FALSE(wanted.rtt);
    EXPECT_THAT(read_rtt("30,2,1500", wanted), IsEmpty());
    EXPECT_TRUE(wanted.rtt);
    EXPECT_EQ(wanted.rtt_settings.batch, 30);
    EXPECT_EQ(wanted.rtt_settings.interval, 2);
    EXPECT_EQ(wanted.rtt_settings.frame_bytes, 1500);
    for (const char *wrong : {"", "5", "5,1", "5,1,64,", "1,1,64", "61,1,64", "5,0,64", "2,31,64", "5,1,63", "5,1,1501",
                              "7,1,64", "60,2,64", "5,1,x"}) {
        EXPECT_THAT(read_rtt(wrong, wanted), HasSubstr("not BATCH,SECONDS,BYTES")) << wrong;
    }
    EXPECT_EQ(wanted.rtt_settings.batch, 30) << "what is refused changes nothing";
}

TEST(LinkWords, NameAProcessor)
{
    wish wanted;
    EXPECT_THAT(read_mp_id("63", wanted), IsEmpty());
    EXPECT_EQ(wanted.mp_id, 63);
    EXPECT_THAT(read_mp_id("64", wanted), HasSubstr("not a processor"));
    EXPECT_THAT(read_mp_id("0", wanted), HasSubstr("not a processor"));
}

} // namespace
