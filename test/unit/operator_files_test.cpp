#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/time.h>

#include <functional>
#include <thread>

#include "operator/files.h"
#include "operator/printable.h"
#include "workplace.h"

namespace {

/// What happens between the opening of a lock file and its lock.
std::function<void()> beforeLock = [] {};

}  // namespace

/// The program's own, in place of the system's.
extern "C" int flock(int file, int operation) {
    const std::function<void()> happens = beforeLock;  // which may replace itself
    happens();
    static const auto real = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "flock"));
    return real(file, operation);
}

namespace {

using operator_tool::Part;

class Files : public Workplace {
protected:
    static std::string read(const std::string& path) {
        return outcome([&path] { operator_tool::printPart(path, Part::FIRST, 10); });
    }

    static std::string lock(const std::string& path, unsigned seconds = 0) {
        return outcome([&path, seconds] { operator_tool::takeLock(path, seconds); });
    }

    void TearDown() override {
        beforeLock = [] {};
        close(operator_tool::LOCK_DESCRIPTOR);
        Workplace::TearDown();
    }
};

TEST_F(Files, The_first_or_last_bytes_are_printed_or_all_of_a_shorter_file) {
    put("file", "0123456789");
    put("empty", "");
    EXPECT_EQ(sh("tool read file first 3; echo; tool read file last 3; echo\n"
                 "tool read file first 0; tool read file last 0\n"
                 "tool read file first 99999999; echo; tool read file last 11; echo\n"
                 "tool read empty first 5; tool read empty last 5; echo $?"),
              "012\n789\n0123456789\n0123456789\n0\n");
}

TEST_F(Files, A_large_file_is_printed_whole) {
    std::string text;
    for (int line = 0; line < 100000; ++line) {
        text += std::to_string(line) + "\n";
    }
    put("file", text);
    EXPECT_EQ(sh("tool read file first 99999999"), text);
    EXPECT_EQ(sh("tool read file last 300001"), text.substr(text.size() - 300001));
}

TEST_F(Files, A_file_that_shrinks_while_it_is_read_ends_there) {
    put("file", std::string(1'000'000, 'x'));
    // One byte has come, and the pipe is full.
    EXPECT_EQ(sh("{ tool read file first 1000000; echo $? >status; } |\n"
                 "    { dd bs=1 count=1 of=begin 2>/dev/null; : >file; wc -c >rest; }\n"
                 "[ $(cat rest) -lt 300000 ] && cat begin status"),
              "x0\n");
}

TEST_F(Files, Only_a_regular_file_is_read_and_nothing_is_waited_for) {
    ASSERT_EQ(sh("touch there; ln -s there link; ln -s nowhere broken; mkfifo fifo; mkdir d"), "");
    EXPECT_EQ(read("link"), "125: link: a symbolic link");
    EXPECT_EQ(read("broken"), "125: broken: a symbolic link");
    EXPECT_EQ(read("fifo"), "125: fifo: not a regular file");
    EXPECT_EQ(read("d"), "125: d: not a regular file");
    EXPECT_EQ(read("/dev/null"), "125: /dev/null: not a regular file");
    EXPECT_EQ(read("missing"), "125: missing: No such file or directory");
    EXPECT_EQ(read("there/x"), "125: there/x: Not a directory");
    EXPECT_EQ(read(""), "125: : No such file or directory");
}

TEST_F(Files, An_output_that_fails_is_reported) {
    put("file", "text");
    EXPECT_EQ(sh("trap '' PIPE; { until [ -e closed ]; do sleep 0.1; done\n"
                 "    tool read file first 4; echo $? >status; } | { exec <&-; touch closed; }\n"
                 "cat status"),
              "operator-tool: standard output: Broken pipe\n125\n");
    // What is opened gets the number that is free then, and must not be taken for the output.
    EXPECT_EQ(sh("tool read file first 4 >&-; echo $?; tool printable </dev/null >&-; echo $?\n"
                 "tool read file first 4 <&-; tool read missing first 4 2>&-; echo $?; cat file"),
              "operator-tool: standard output: Bad file descriptor\n125\n0\ntext125\ntext");
}

TEST_F(Files, A_signal_cuts_nothing_that_is_printed) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    std::string text;
    for (int number = 0; number < 400'000; ++number) {
        text += std::to_string(number);
    }
    std::string read;
    std::thread reader([&read, &ends] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        std::array<char, 5000> buffer{};
        ssize_t got = 0;
        while ((got = ::read(ends[0], buffer.data(), buffer.size())) > 0) {
            read.append(buffer.data(), static_cast<std::size_t>(got));
        }
    });
    struct sigaction before{};
    struct sigaction action{};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before);
    const itimerval often = {.it_interval = {0, 100}, .it_value = {0, 100}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const int own = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    const std::string result = outcome([&text] { operator_tool::print(text.data(), text.size()); });
    dup2(own, STDOUT_FILENO);
    setitimer(ITIMER_REAL, nullptr, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    close(own);
    close(ends[1]);
    reader.join();
    close(ends[0]);
    EXPECT_EQ(result, "done");
    EXPECT_TRUE(read == text);
}

TEST_F(Files, A_lock_file_is_created_for_its_owner_alone_and_stays_empty) {
    EXPECT_EQ(sh("umask 0; tool lock file 0 echo locked; ls -l file | cut -c 1-10; cat file"),
              "locked\n-rw-------\n");
    EXPECT_EQ(sh("tool lock file 0 sh -c 'echo lost; echo lost >&2' >&- 2>&-; cat file"), "");
}

TEST_F(Files, Only_a_regular_file_of_the_caller_is_locked) {
    ASSERT_EQ(sh("touch there; ln -s there link; ln -s nowhere broken; mkfifo fifo; mkdir d"), "");
    std::string another = "/etc/passwd";
    if (geteuid() == 0) {
        put("another", "");
        another = chown("another", 1, 1) == 0 ? "another" : "";
    }
    EXPECT_EQ(lock("link"), "125: link: a symbolic link");
    EXPECT_EQ(lock("broken"), "125: broken: a symbolic link");
    EXPECT_EQ(lock("fifo"), "125: fifo: not a regular file");
    EXPECT_EQ(lock("d"), "125: d: not a regular file");
    EXPECT_EQ(lock("/dev/null"), "125: /dev/null: not a regular file");
    EXPECT_EQ(lock("missing/file"), "125: missing/file: No such file or directory");
    EXPECT_EQ(lock(another), "125: " + another + ": belongs to another user");
    EXPECT_EQ(inode("nowhere"), 0U);
}

TEST_F(Files, A_lock_file_that_is_removed_or_replaced_before_it_is_locked_is_opened_again) {
    for (const std::string change : {"rm file", "mv file old; touch file"}) {
        beforeLock = [&change] {
            beforeLock = [] {};
            ASSERT_EQ(sh(change), "");
        };
        ASSERT_EQ(lock("file", 1), "done") << change;
        struct stat locked{};
        ASSERT_EQ(fstat(operator_tool::LOCK_DESCRIPTOR, &locked), 0);
        EXPECT_EQ(locked.st_ino, inode("file")) << change;
        close(operator_tool::LOCK_DESCRIPTOR);
    }
    beforeLock = [] { unlink("file"); };
    EXPECT_EQ(lock("file", 1), "124: file: locked by another process");
}

TEST_F(Files, The_lock_is_the_only_descriptor_that_is_left_and_exec_keeps_it) {
    const auto open = [] {
        int count = 0;
        for (int file = 0; file < 256; ++file) {
            count += fcntl(file, F_GETFD) >= 0 ? 1 : 0;
        }
        return count;
    };
    const int before = open();
    ASSERT_EQ(lock("file"), "done");
    EXPECT_EQ(open(), before + 1);
    EXPECT_EQ(fcntl(operator_tool::LOCK_DESCRIPTOR, F_GETFD), 0);
}

// The end of a command, or of the holder itself, is not the end of the lock.
TEST_F(Files, A_lock_is_held_by_whatever_the_command_has_started) {
    const auto busy = [](const std::string& file) {
        return "operator-tool: " + file + ": locked by another process\n124\n";
    };
    // Whoever holds the lock says so with a file, and ends when there is another.
    const auto holder = [](const std::string& file) {
        return "touch " + file + ".held; until [ -e " + file + ".end ]; do sleep 0.1; done";
    };
    const auto isHeld = [](const std::string& file) {
        return "\nuntil [ -e " + file + ".held ]; do sleep 0.1; done\n";
    };
    const auto look = [](const std::string& file) {
        return "tool lock " + file + " 0 echo free; echo $?\n";
    };
    const auto end = [](const std::string& file) {
        return "touch " + file + ".end; tool lock " + file + " 60 echo free; wait\n";
    };
    expectAll({
        {"the command",
         "tool lock a 0 sh -c '" + holder("a") + "; echo ends' &" + isHeld("a") + look("a") +
             end("a"),
         busy("a") + "ends\nfree\n"},
        {"a command of the command",
         R"(tool lock b 0 sh -c 'ls >/dev/null; "$tool" lock b 0 echo free; echo $?
             "$tool" limit 5 "$tool" lock b 0 echo free; echo $?')",
         busy("b") + busy("b")},
        {"an orphan of a command that was killed",
         "\"$tool\" lock c 0 sh -c '{ " + holder("c") + "; } >/dev/null 2>&1 & exec sleep 100' &" +
             isHeld("c") + "kill -KILL $!; { wait $!; } 2>/dev/null\n" + look("c") + end("c"),
         busy("c") + "free\n"},
        {"not by what has closed it",
         "tool lock d 0 sh -c '{ " + holder("d") + "; } 9>&- >/dev/null 2>&1 &'" + isHeld("d") +
             look("d") + end("d"),
         "free\n0\nfree\n"},
    });
}

TEST(Printable, What_a_terminal_or_a_parser_could_stumble_over_is_shown_by_number) {
    using operator_tool::printable;
    EXPECT_EQ(printable(""), "");
    EXPECT_EQ(printable("a b\\\"'~\x7f"), "a b\\\"'~\\x{7f}");
    EXPECT_EQ(printable(std::string("\0\t\n\r\x1b[2J", 8)), "\\x{0}\\x{9}\\x{a}\\x{d}\\x{1b}[2J");
    EXPECT_EQ(printable("\u00e9 \u6771 \U0001f600 \ufffd"), "\u00e9 \u6771 \U0001f600 \ufffd");
    EXPECT_EQ(printable("\u0085\u00ad\u200b\u202e\u2028\u2066\ufeff\U000e0041"),
              "\\x{85}\\x{ad}\\x{200b}\\x{202e}\\x{2028}\\x{2066}\\x{feff}\\x{e0041}");
}

TEST(Printable, What_is_not_UTF_8_is_shown_byte_by_byte) {
    using operator_tool::printable;
    EXPECT_EQ(printable("a\x80z\xff"), "a\\x{80}z\\x{ff}");
    EXPECT_EQ(printable("\xc3"), "\\x{c3}");                                   // cut short
    EXPECT_EQ(printable("\xe2\x82"), "\\x{e2}\\x{82}");                        // likewise
    EXPECT_EQ(printable("\xc3z"), "\\x{c3}z");                                 // another begins
    EXPECT_EQ(printable("\xc1\x9b"), "\\x{c1}\\x{9b}");                        // longer than needed
    EXPECT_EQ(printable("\xe0\x80\x9b"), "\\x{e0}\\x{80}\\x{9b}");             // likewise
    EXPECT_EQ(printable("\xed\xa0\x80"), "\\x{ed}\\x{a0}\\x{80}");             // a surrogate
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\x{f4}\\x{90}\\x{80}\\x{80}");  // beyond Unicode
}

TEST_F(Files, Texts_are_printed_one_per_line) {
    EXPECT_EQ(sh("printf 'one\\0\\0two\\nlines\\0\\033[2J' | tool printable; tool printable"),
              "one\n\ntwo\\x{a}lines\n\\x{1b}[2J\n");
}

}  // namespace
