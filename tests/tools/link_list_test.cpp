// The reply is written out here byte by byte, as the daemon lays it down.
#include "link_list/link_list.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <sstream>

namespace
{

using Bytes = std::vector<uint8_t>;

void put(Bytes *bytes, size_t offset, const void *value, size_t size) { memcpy(bytes->data() + offset, value, size); }
void put32(Bytes *bytes, size_t offset, uint32_t value) { put(bytes, offset, &value, 4); }
void put16(Bytes *bytes, size_t offset, uint16_t value) { put(bytes, offset, &value, 2); }

// A reply with one enabled link on IDL_A1 in VLAN 100, two app links, RTT on and measured.
Bytes one_link()
{
    Bytes b(8 + 344);
    put32(&b, 0, 0x1B0CE2);
    put32(&b, 4, 1);
    put32(&b, 8 + 0, 1); // owner
    put32(&b, 8 + 4, 7); // link_ref
    b[8 + 8] = 3;        // MP id
    put(&b, 8 + 9, "\x02\x00\x00\x00\x00\xA1", 6);
    put(&b, 8 + 15, "\x02\x00\x00\x00\x0C\x01", 6);
    put(&b, 8 + 21, "IDL_A1", 7);
    put16(&b, 8 + 38, 100);
    put32(&b, 8 + 40, 2); // app links
    put32(&b, 8 + 44, 1); // enabled
    put32(&b, 8 + 48, 4);
    put(&b, 8 + 52, "\x02\x00\x00\x00\x0A\x01\x02\x00\x00\x00\x0B\x01", 12);
    put(&b, 8 + 64, "\x02\x00\x00\x00\x0A\x02\x02\x00\x00\x00\x0B\x02", 12);
    put32(&b, 8 + 244, 1);
    put32(&b, 8 + 248, 1);
    put16(&b, 8 + 252, 5);
    put16(&b, 8 + 254, 2);
    put16(&b, 8 + 256, 128);
    put32(&b, 8 + 260, 40);
    put32(&b, 8 + 264, 3);
    b[8 + 270] = 1;
    put32(&b, 8 + 320, 12);
    put32(&b, 8 + 324, 5);
    put32(&b, 8 + 328, 1234);
    put32(&b, 8 + 332, 56);
    put32(&b, 8 + 336, 2000);
    put32(&b, 8 + 340, 0);
    return b;
}

std::vector<link_list::link> read(const Bytes &bytes)
{
    std::string error;
    auto links = link_list::decode(bytes.data(), bytes.size(), &error);
    EXPECT_TRUE(links) << error;
    return links.value_or(std::vector<link_list::link>());
}

std::string refusal(const Bytes &bytes)
{
    std::string error;
    EXPECT_FALSE(link_list::decode(bytes.data(), bytes.size(), &error));
    return error;
}

TEST(LinkList, ReadsEveryFieldOfARecord)
{
    const auto links = read(one_link());
    ASSERT_EQ(links.size(), 1u);
    EXPECT_EQ(link_list::to_json(links), R"({
  "links": [
    {
      "link_ref": 7,
      "connection_ref": 1,
      "port": "IDL_A1",
      "vlan": 100,
      "mp_id": 3,
      "near_end_cpm_mac": "02:00:00:00:00:A1",
      "far_end_cpm_mac": "02:00:00:00:0C:01",
      "app_links": [
        {
          "near_end_mac": "02:00:00:00:0A:01",
          "far_end_mac": "02:00:00:00:0B:01"
        },
        {
          "near_end_mac": "02:00:00:00:0A:02",
          "far_end_mac": "02:00:00:00:0B:02"
        }
      ],
      "enabled": true,
      "status": "enabled",
      "supervision": "running",
      "results": 40,
      "lost": 3,
      "rtt": "on",
      "batch_size": 5,
      "interval_s": 2,
      "frame_size": 128,
      "rtt_us": {
        "min": 12.05,
        "avg": 1234.56,
        "max": 2000.0
      }
    }
  ]
}
)");
}

TEST(LinkList, PrintsATableWithOneLineALink)
{
    Bytes two = one_link();
    two.resize(8 + 2 * 344);
    put32(&two, 4, 2);
    put32(&two, 8 + 344 + 4, 12);
    put(&two, 8 + 344 + 21, "TN_A", 5);
    put16(&two, 8 + 344 + 38, 200);
    put32(&two, 8 + 344 + 48, 2);
    EXPECT_EQ(link_list::to_table(read(two)),
              "LINK  PORT    VLAN  FAR-END CPM        APPS  STATUS                     SUPERVISION  LOST  RTT  MIN us  "
              "AVG us   MAX us   OWNER\n"
              "7     IDL_A1  100   02:00:00:00:0C:01  2     enabled                    running      3/40  on   12.05   "
              "1234.56  2000.00  1\n"
              "12    TN_A    200   00:00:00:00:00:00  0     disabled with reason down  not running  0/0   off  -       "
              "-        -        0\n");
}

TEST(LinkList, ATableOfFewerColumnsGoesOnInFurtherLinesAndLosesNoFigure)
{
    Bytes two = one_link();
    two.resize(8 + 2 * 344);
    put32(&two, 4, 2);
    put32(&two, 8 + 344 + 4, 12);
    put(&two, 8 + 344 + 21, "TN_A", 5);
    put16(&two, 8 + 344 + 38, 200);
    put32(&two, 8 + 344 + 48, 4);
    EXPECT_EQ(link_list::to_table(read(two), 80),
              "LINK  PORT    VLAN  FAR-END CPM        APPS\n"
              "      STATUS                                SUPERVISION  LOST  RTT  MIN us\n"
              "      AVG us   MAX us   OWNER\n"
              "7     IDL_A1  100   02:00:00:00:0C:01  2\n"
              "      enabled                               running      3/40  on   12.05\n"
              "      1234.56  2000.00  1\n"
              "12    TN_A    200   00:00:00:00:00:00  0\n"
              "      disabled with reason no connectivity  not running  0/0   off  -\n"
              "      -        -        0\n");
}

TEST(LinkList, ATableOfAnyWidthHasEveryCellAndNoLineThatIsLonger)
{
    const auto links = read(one_link());
    const auto words = [](const std::string &text) {
        std::istringstream stream(text);
        return std::vector<std::string>{std::istream_iterator<std::string>(stream), {}};
    };
    for (size_t columns = 26; columns < 130; ++columns) {
        const std::string table = link_list::to_table(links, columns);
        EXPECT_EQ(words(table), words(link_list::to_table(links))) << columns;
        std::istringstream lines(table);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), columns) << line;
        }
    }
}

TEST(LinkList, AnEmptyListIsATableOfItsHeadAlone)
{
    Bytes empty(352);
    put32(&empty, 0, 0x1B0CE2);
    EXPECT_EQ(link_list::to_json(read(empty)), "{\n  \"links\": []\n}\n");
    EXPECT_EQ(link_list::to_table(read(empty)).find('\n'), link_list::to_table(read(empty)).size() - 1);
}

TEST(LinkList, AReplyShorterThanItsCountIsRefusedAtEveryLength)
{
    const Bytes whole = one_link();
    for (size_t size = 0; size < whole.size(); ++size) {
        EXPECT_NE(refusal(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))), "") << size;
    }
    Bytes huge = whole;
    put32(&huge, 4, 0xFFFFFFFF);
    EXPECT_EQ(refusal(huge), "the reply counts 4294967295 links, but has only 352 bytes");
}

TEST(LinkList, AMessageOfAnotherNumberIsRefused)
{
    Bytes other = one_link();
    put32(&other, 0, 0x1B0CE3);
    EXPECT_EQ(refusal(other), "the reply has number 0x1b0ce3");
}

TEST(LinkList, ACountOfAppLinksBeyondTheRecordIsCutAndANameWithoutEndIsBounded)
{
    Bytes odd = one_link();
    put32(&odd, 8 + 40, 1000);
    put(&odd, 8 + 21, "ABCDEFGHIJKLMNOP", 16);
    const auto links = read(odd);
    ASSERT_EQ(links.size(), 1u);
    EXPECT_EQ(links[0].app_links.size(), 16u);
    EXPECT_EQ(links[0].port, "ABCDEFGHIJKLMNOP");
}

// The name comes from the port control server through the daemon: who prints it must not end over it.
TEST(LinkList, APortNameThatIsNoTextIsPrintedAllTheSame)
{
    Bytes odd = one_link();
    put(&odd, 8 + 21, "A\xFF\xFE", 4);
    const auto links = read(odd);
    EXPECT_NE(link_list::to_json(links).find("\"port\": \"A\xEF\xBF\xBD\xEF\xBF\xBD\""), std::string::npos);
    EXPECT_NE(link_list::to_table(links), "");
}

} // namespace
