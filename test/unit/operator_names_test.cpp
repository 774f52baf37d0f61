#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

#include "operator/names.h"
#include "workplace.h"

namespace {

/// Commands that create something named "$1".
const std::map<std::string, std::string> KINDS = {
    {"a file", "touch $1"},
    {"an empty directory", "mkdir $1"},
    {"a directory", "mkdir -p $1/inside"},
    {"a link to a file", "touch there; ln -s there $1"},
    {"a link to a directory", "mkdir -p there.d; ln -s there.d $1"},
    {"a link to nowhere", "ln -s nowhere $1"},
    {"a FIFO", "mkfifo $1"},
};

class Names : public Workplace {
protected:
    static void create(const std::string& kind, const std::string& name) {
        ASSERT_EQ(sh("rm -rf " + name + "; set -- " + name + "; " + KINDS.at(kind)), "");
        ASSERT_NE(inode(name), 0U);
    }
};

TEST_F(Names, Whatever_has_the_name_is_renamed_itself) {
    for (const auto& [kind, command] : KINDS) {
        create(kind, "from");
        const ino_t renamed = inode("from");
        EXPECT_EQ(outcome([] { operator_tool::renameOne("from", "to"); }), "done") << kind;
        EXPECT_EQ(inode("from"), 0U) << kind;
        EXPECT_EQ(inode("to"), renamed) << kind;
        std::filesystem::remove_all("to");
    }
}

TEST_F(Names, Nothing_that_has_the_new_name_is_replaced_or_entered) {
    for (const std::string from : {"a file", "a directory", "a link to a directory"}) {
        for (const auto& [kind, command] : KINDS) {
            create(from, "from");
            create(kind, "to");
            const ino_t before = inode("from");
            const ino_t present = inode("to");
            EXPECT_EQ(outcome([] { operator_tool::renameOne("from", "to"); }),
                      "125: cannot rename from to to: File exists");
            EXPECT_EQ(inode("from"), before) << from << ", " << kind;
            EXPECT_EQ(inode("to"), present) << from << ", " << kind;
            EXPECT_EQ(inode("to/from"), 0U) << from << ", " << kind;
        }
    }
}

TEST_F(Names, Two_names_of_any_kind_are_exchanged_themselves) {
    for (const auto& [one, command] : KINDS) {
        for (const auto& [other, otherCommand] : KINDS) {
            create(one, "one");
            create(other, "other");
            const ino_t first = inode("one");
            const ino_t second = inode("other");
            EXPECT_EQ(outcome([] { operator_tool::exchange("one", "other"); }), "done");
            EXPECT_EQ(inode("one"), second) << one << ", " << other;
            EXPECT_EQ(inode("other"), first) << one << ", " << other;
        }
    }
}

TEST_F(Names, An_exchange_leaves_no_moment_without_the_file) {
    std::filesystem::create_directories("one/file");
    std::filesystem::create_directories("other/file");
    std::atomic<bool> isDone = false;
    std::thread exchanges([&isDone] {
        for (int round = 0; round < 2000; ++round) {
            operator_tool::exchange("one", "other");
        }
        isDone = true;
    });
    int looks = 0;
    int missing = 0;
    while (!isDone) {
        ++looks;
        missing += inode("one/file") == 0 ? 1 : 0;
    }
    exchanges.join();
    EXPECT_GT(looks, 0);
    EXPECT_EQ(missing, 0);
}

TEST_F(Names, What_is_missing_can_be_neither_renamed_nor_exchanged) {
    create("a directory", "present");
    const ino_t present = inode("present");
    EXPECT_EQ(outcome([] { operator_tool::renameOne("missing", "to"); }),
              "125: cannot rename missing to to: No such file or directory");
    EXPECT_EQ(outcome([] { operator_tool::renameOne("present", "missing/to"); }),
              "125: cannot rename present to missing/to: No such file or directory");
    EXPECT_EQ(outcome([] { operator_tool::exchange("present", "missing"); }),
              "125: cannot exchange present and missing: No such file or directory");
    EXPECT_EQ(outcome([] { operator_tool::exchange("missing", "present"); }),
              "125: cannot exchange missing and present: No such file or directory");
    EXPECT_EQ(inode("present"), present);
    EXPECT_EQ(inode("missing"), 0U);
}

TEST_F(Names, A_directory_is_not_exchanged_with_what_is_in_it) {
    create("a directory", "one");
    EXPECT_EQ(outcome([] { operator_tool::exchange("one", "one/inside"); }),
              "125: cannot exchange one and one/inside: Invalid argument");
    EXPECT_NE(inode("one/inside"), 0U);
}

TEST_F(Names, A_slash_at_the_end_would_follow_a_link_and_is_rejected) {
    create("a link to a directory", "link");
    create("a directory", "present");
    const std::string rejected = "2: link/: a name must not end in a slash";
    EXPECT_EQ(outcome([] { operator_tool::renameOne("link/", "to"); }), rejected);
    EXPECT_EQ(outcome([] { operator_tool::renameOne("present", "link/"); }), rejected);
    EXPECT_EQ(outcome([] { operator_tool::exchange("link/", "present"); }), rejected);
    EXPECT_EQ(outcome([] { operator_tool::exchange("present", "link/"); }), rejected);
    EXPECT_NE(inode("there.d"), 0U);
}

TEST_F(Names, A_hyphen_at_the_beginning_has_no_meaning) {
    create("a file", "./-f");
    const ino_t present = inode("./-f");
    EXPECT_EQ(sh("tool rename -f --; touch ./-n; tool exchange -- -n; tool read -n first 1"), "");
    EXPECT_EQ(inode("./-n"), present);
}

}  // namespace
