// The journal of what has no name in the kernel: what an earlier run has written down, whatever became of that run.
#include "kernel/journal.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace kap_node
{
namespace
{

namespace files = std::filesystem;
using entries = std::set<std::string>;

class Journal : public ::testing::Test
{
protected:
    void SetUp() override
    {
        char name[] = "/tmp/kap-journal-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        directory = name;
        ASSERT_EQ(setenv("RUNTIME_DIRECTORY", name, 1), 0);
    }
    void TearDown() override { files::remove_all(directory); }

    static void add(kernel_journal &journal, const std::vector<std::string> &some) { EXPECT_FALSE(journal.add(some)); }
    std::string text() const
    {
        std::ifstream file(directory / "kept");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    files::path directory;
};

TEST_F(Journal, HasWhatAnEarlierRunAddedAndDidNotForget)
{
    {
        kernel_journal first("kept");
        add(first, {"one", "two", "three words here"});
        first.forget("two");
        first.forget("what it never had");
    }
    const kernel_journal second("kept");
    EXPECT_EQ(second.entries(), (entries{"one", "three words here"}));
    EXPECT_TRUE(second.holds("one"));
    EXPECT_FALSE(second.holds("two"));
}

TEST_F(Journal, TakesALineWithoutAnEndForNothing)
{
    std::ofstream(directory / "kept") << "+one\n+two\n-two\n+thr";
    EXPECT_EQ(kernel_journal("kept").entries(), entries{"one"});
    EXPECT_EQ(text(), "+one\n");
}

TEST_F(Journal, PassesOverLinesThatAreNone)
{
    std::ofstream(directory / "kept") << "\n+\nhello\n-\n+one\n";
    EXPECT_EQ(kernel_journal("kept").entries(), entries{"one"});
}

TEST_F(Journal, IsWrittenAnewWhenItIsMostlyPast)
{
    kernel_journal journal("kept");
    add(journal, {"stays"});
    for (int i = 0; i < 5000; ++i) {
        add(journal, {"goes"});
        journal.forget("goes");
    }
    EXPECT_LT(text().size(), 10000u);
    EXPECT_EQ(kernel_journal("kept").entries(), entries{"stays"});
}

TEST_F(Journal, CannotBeWhereThereIsNoDirectory)
{
    ASSERT_EQ(setenv("RUNTIME_DIRECTORY", (directory / "not/there").c_str(), 1), 0);
    EXPECT_THROW(kernel_journal("kept"), std::system_error);
}

} // namespace
} // namespace kap_node
