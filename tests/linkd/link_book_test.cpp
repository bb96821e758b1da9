// The links that there shall be: what files declare and what was asked for at run time, together.
#include "link_book.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace
{

using namespace linkd;
using testing::ElementsAre;
using testing::IsEmpty;

class LinksOfTwoSources : public testing::Test
{
protected:
    LinksOfTwoSources()
    {
        std::string name = std::filesystem::temp_directory_path() / "kap-book-XXXXXX";
        directory_ = mkdtemp(name.data());
        where_.state = directory_;
        where_.links = directory_ + "/declared.toml";
    }
    ~LinksOfTwoSources() override { std::filesystem::remove_all(directory_); }

    void declare(const std::string &text) const { std::ofstream(where_.links) << text; }
    static declaration at_run_time(const std::string &name, uint16_t vlan)
    {
        declaration link;
        link.name = name;
        link.key = {"IDL_A1", vlan, {2, 0, 0, 0, 0, 2}, 1};
        link.declared = false;
        return link;
    }

    std::string directory_;
    paths where_;
};

TEST_F(LinksOfTwoSources, SaysWhatADeclarationStandsInThePlaceOfAndForgetsIt)
{
    link_book book(where_);
    EXPECT_THAT(book.load(), IsEmpty());
    EXPECT_EQ(book.add(at_run_time("same-name", 5)), "");
    EXPECT_EQ(book.add(at_run_time("same-link", 6)), "");
    EXPECT_EQ(book.add(at_run_time("neither", 7)), "");
    declare("[links.same-name]\nport = \"IDL_A1\"\nvlan = 8\nfar = \"02:00:00:00:00:02\"\n"
            "[links.other]\nport = \"IDL_A1\"\nvlan = 6\nfar = \"02:00:00:00:00:02\"\n");
    EXPECT_THAT(book.reload(), IsEmpty());
    const std::string after = ", which was asked for at run time; \"delete\" forgets that one";
    EXPECT_THAT(book.mistakes(),
                ElementsAre(where_.links + ":5:8: \"other\" stands in the place of \"same-link\"" + after,
                            where_.links + ":1:8: \"same-name\" stands in the place of \"same-name\"" + after));
    EXPECT_EQ(book.all().size(), 3U);
    EXPECT_EQ(book.all().at("same-name").key.vlan, 8);
    for (const char *name : {"same-name", "same-link"}) {
        EXPECT_TRUE(book.is_kept(name));
        EXPECT_EQ(book.remove(name), "");
    }
    EXPECT_THAT(book.mistakes(), IsEmpty());
    EXPECT_EQ(book.all().size(), 3U) << "what is declared stays";
    link_book again(where_);
    EXPECT_THAT(again.load(), IsEmpty());
}

TEST_F(LinksOfTwoSources, KnowsHowRoundTripsWereMeasuredWhenTheyAreNot)
{
    declare("[links.declared]\nport = \"IDL_A1\"\nvlan = 8\nfar = \"02:00:00:00:00:02\"\n"
            "rtt = { batch = 10, interval = 2, frame_bytes = 100 }\n");
    link_book book(where_);
    EXPECT_THAT(book.load(), IsEmpty());
    declaration east = at_run_time("east", 5);
    east.rtt = rtt_wish{4, 3, 200};
    EXPECT_EQ(book.add(east), "");
    EXPECT_EQ(book.measure("declared", std::nullopt), "");
    EXPECT_EQ(book.measure("east", std::nullopt), "");
    EXPECT_FALSE(book.all().at("declared").rtt);
    EXPECT_FALSE(book.all().at("east").rtt);
    EXPECT_EQ(book.measured_last("declared"), (rtt_wish{10, 2, 100}));
    EXPECT_EQ(book.measured_last("east"), (rtt_wish{4, 3, 200}));
    EXPECT_EQ(book.remove("east"), "");
    EXPECT_EQ(book.measured_last("east"), std::nullopt) << "another of that name is another link";
}

} // namespace
