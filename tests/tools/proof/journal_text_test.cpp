#include "tools/proof/journal_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

namespace {

using proof::host_name;
using proof::hosts_block;
using proof::journal_entries;
using proof::journal_entry;
using proof::journal_line;
using proof::without_hosts_blocks;
using testing::ElementsAre;

const std::array names{host_name{"127.0.0.1", "updates.tavrin.example"},
                       host_name{"127.0.0.2", "reports.tavrin.example"}};

TEST(proof_journal, keeps_one_change_a_line) {
    EXPECT_EQ(journal_line({"task"}), "task\n");
    EXPECT_EQ(journal_line({"value", "SOFTWARE\\Tavrin", "Channel", "1", "6200"}),
              "value\tSOFTWARE\\Tavrin\tChannel\t1\t6200\n");
}

TEST(proof_journal, reads_back_what_it_has_written_empty_parts_too) {
    const journal_entry none_before{"value", "SOFTWARE\\Tavrin", "", "", ""};
    const journal_entry folder{"folder", "C:\\Program Files\\Tavrin"};
    EXPECT_THAT(journal_entries(journal_line(none_before) + journal_line(folder)),
                ElementsAre(none_before, folder));
}

TEST(proof_journal, takes_a_line_without_its_end_for_none_wherever_it_was_cut) {
    const std::string whole = journal_line({"folder", "C:\\a"});
    const std::string cut = journal_line({"key", "SOFTWARE\\Tavrin"});
    for (std::size_t size = 0; size < cut.size(); ++size) {
        EXPECT_THAT(journal_entries(whole + cut.substr(0, size)),
                    ElementsAre(journal_entry{"folder", "C:\\a"}));
    }
    EXPECT_EQ(journal_entries(whole + cut).size(), 2U);
}

TEST(proof_journal, reads_nothing_out_of_an_empty_list) {
    EXPECT_TRUE(journal_entries("").empty());
    EXPECT_TRUE(journal_entries("\n\n").empty());
}

TEST(proof_journal, adds_names_to_a_hosts_file_in_one_block) {
    EXPECT_EQ(hosts_block(names), "\r\n# Begin of the Lumaris proof\r\n127.0.0.1 updates.tavrin.example\r\n"
                                  "127.0.0.2 reports.tavrin.example\r\n# End of the Lumaris proof\r\n");
}

TEST(proof_journal, cuts_its_block_out_of_a_hosts_file_and_leaves_every_other_byte) {
    const std::string before = "# somebody's\n127.0.0.1 localhost";
    const std::string behind = "10.1.1.1 printer\n";
    EXPECT_EQ(without_hosts_blocks(before + hosts_block(names)), before);
    EXPECT_EQ(without_hosts_blocks(before + hosts_block(names) + behind), before + behind);
    EXPECT_EQ(without_hosts_blocks(hosts_block(names) + before + hosts_block(names)), before);
    EXPECT_EQ(without_hosts_blocks(before), before);
    EXPECT_EQ(without_hosts_blocks(""), "");
}

TEST(proof_journal, cuts_a_block_that_was_cut_off_before_its_end) {
    const std::string before = "127.0.0.1 localhost\r\n";
    const std::string block = hosts_block(names);
    const std::size_t first_name = block.find("127.");
    for (std::size_t size = first_name; size < block.size(); ++size) {
        EXPECT_EQ(without_hosts_blocks(before + block.substr(0, size)), before);
    }
}

} // namespace
