#include <signal.h>

#include <chrono>

#include "operator/processes.h"
#include "workplace.h"

namespace {

/// Each test ends in a few seconds, although what it starts would last 100.
class Processes : public Workplace {
protected:
    void TearDown() override {
        EXPECT_LT(std::chrono::steady_clock::now() - m_begin, std::chrono::seconds(30));
        Workplace::TearDown();
    }

private:
    std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
};

TEST_F(Processes, The_status_is_that_of_the_command) {
    put("text", "");
    EXPECT_EQ(sh("tool limit 9 sh -c 'cat; echo \"$@\"' - -a 'b  c' ''; echo $?\n"
                 "tool limit 99999999 sh -c 'exit 255'; echo $?\n"
                 "tool limit 9 sh -c 'kill -KILL $$'; echo $?\n"
                 "tool limit 9 sh -c 'kill -TERM $$'; echo $?\n"
                 "tool limit 9 no-such-command; echo $?\n"
                 "tool limit 9 ./text; echo $?\n"
                 "tool lock file 9 no-such-command; echo $?\n"
                 "tool lock file 9 .; echo $?"),
              "-a b  c \n0\n255\n137\n143\n"
              "operator-tool: no-such-command: No such file or directory\n127\n"
              "operator-tool: ./text: Permission denied\n126\n"
              "operator-tool: no-such-command: No such file or directory\n127\n"
              "operator-tool: .: Permission denied\n126\n");
}

// Whoever survives keeps the output open, and the test waiting.
TEST_F(Processes, The_limit_holds_whatever_the_command_does) {
    const auto end = [](const std::string& name) {
        return "operator-tool: " + name + ": no end within 1 s; it was killed\n124\n";
    };
    expectAll({
        {"it can tidy up", R"(tool limit 1 sh -c 'trap "echo tidies; exit 3" TERM; sleep 100 & wait'
            echo $?)",
         "tidies\n" + end("sh")},
        {"it ignores SIGTERM, as do those that it has started",
         R"(tool limit 1 sh -c 'trap "" TERM; sleep 100 & sleep 100 & wait; wait'; echo $?)",
         end("sh")},
        {"it ends at SIGTERM, but not what it has started",
         R"(tool limit 1 sh -c '(trap "" TERM; sleep 100) & exec sleep 100'; echo $?)", end("sh")},
        {"it is stopped", "tool limit 1 sh -c 'kill -STOP $$'; echo $?", end("sh")},
        {"the caller ignores SIGTERM", "trap '' TERM; tool limit 1 sleep 100; echo $?",
         end("sleep")},
        {"it has gone to another group", R"(tool limit 1 python3 -c 'import os, signal, time
for number in signal.SIGTERM, signal.SIGALRM: signal.signal(number, signal.SIG_IGN)
os.setpgid(0, os.getpgid(os.getppid()))
print(os.getpid(), file=open("gone", "w"))
time.sleep(100)'; echo $?; kill -0 $(cat gone) 2>/dev/null || echo gone)",
         end("python3") + "gone\n"},
        {"it has put another into another group, which is neither reached nor waited for",
         R"(tool limit 1 bash -c 'set -m; sleep 20 >/dev/null 2>&1 & echo $! >pid; wait'
            echo $?; kill $(cat pid) && echo left)",
         end("bash") + "left\n"},
        {"it has a limit of its own",
         R"(tool limit 1 sh -c '"$tool" limit 50 sh -c "trap \"\" TERM; sleep 100 & wait; wait"'; echo $?)",
         end("sh")},
        {"the tool is killed",
         R"("$tool" limit 1 sleep 100 & sleep 0.5; kill -KILL $!; { wait $!; } 2>/dev/null; echo $?)",
         "137\n"},
    });
}

TEST_F(Processes, A_signal_that_ends_the_tool_ends_the_command_first) {
    // Ends the tool with a signal as soon as its command runs, and prints what has ended it.
    const auto endBy = [](const std::string& signal, const std::string& begun) {
        return " & until [ -e " + begun + " ]; do sleep 0.1; done; kill -" + signal +
               " $!; { wait $!; } 2>/dev/null; kill -l $?";
    };
    // A shell has INT and QUIT ignored in what it starts in the background, nohup HUP.
    const std::string reset =
        "python3 -c 'import os, signal, sys\n"
        "for number in signal.SIGHUP, signal.SIGINT, signal.SIGQUIT:\n"
        "    signal.signal(number, signal.SIG_DFL)\n"
        "os.execv(sys.argv[1], sys.argv[1:])' ";
    std::vector<Script> scripts;
    for (const std::string signal : {"HUP", "INT", "QUIT", "TERM"}) {
        scripts.push_back({signal,
                           reset + "\"$tool\" limit 50 sh -c 'touch " + signal +
                               "; exec sleep 100'" + endBy(signal, signal),
                           signal + "\n"});
    }
    scripts.push_back({"the command ignores it",
                       R"("$tool" limit 50 sh -c 'trap "" TERM; touch a; sleep 100 & wait; wait')" +
                           endBy("TERM", "a"),
                       "TERM\n"});
    scripts.push_back({"there is a limit inside",
                       R"("$tool" limit 50 sh -c '"$tool" limit 50 sh -c "touch b; sleep 100"
                           echo survives')" +
                           endBy("TERM", "b"),
                       "TERM\n"});
    expectAll(scripts);
}

TEST_F(Processes, What_the_caller_ignores_can_still_end_the_command_and_not_the_tool) {
    EXPECT_EQ(sh("trap '' HUP INT QUIT TERM PIPE CHLD TSTP\n"
                 "for signal in HUP INT TERM PIPE; do\n"
                 "    tool limit 9 sh -c \"kill -$signal \\$\\$; echo survives\"; echo $?\n"
                 "done\n"
                 "tool limit 9 sh -c 'kill -HUP $PPID; kill -INT $PPID; kill -TERM $PPID\n"
                 "    sleep 0.5; exit 7'; echo $?"),
              "129\n130\n143\n141\n7\n");
}

TEST_F(Processes, Signals_that_the_caller_blocks_still_end_the_waiting) {
    const auto blocked = [] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        std::string sleep = "sleep";
        std::string seconds = "100";
        char* command[] = {sleep.data(), seconds.data(), nullptr};
        _exit(outcome([&command] { operator_tool::runWithLimit(1, command); }) ==
              "124: sleep: no end within 1 s; it was killed");
    };
    EXPECT_EXIT(blocked(), ::testing::ExitedWithCode(1), "");
}

TEST_F(Processes, A_child_of_the_caller_that_ends_is_not_taken_for_the_command) {
    EXPECT_EQ(sh("sh -c 'sleep 0.2 & exec \"$tool\" limit 9 sh -c \"sleep 0.6; exit 7\"'; echo $?"),
              "7\n");
}

TEST_F(Processes, A_wrong_call_is_rejected_before_anything_is_done) {
    const std::string usage = sh("tool");
    EXPECT_EQ(usage.substr(0, 27), "usage: operator-tool lock F");
    for (const std::string call :
         {"nothing", "--help", "lock", "lock file 0", "limit", "limit 1", "as-user", "as-user root",
          "rename a", "rename a b c", "exchange a", "read file first", "read file first 1 2",
          "printable x"}) {
        EXPECT_EQ(sh("tool " + call + "; echo $?"), usage + "2\n") << call;
    }
    for (const std::string wrong : {"", "-1", "+1", " 1", "1 ", "1.5", "0x1", "1s", "100000000",
                                    "4294967297", "18446744073709551617"}) {
        EXPECT_EQ(sh("tool limit '" + wrong + "' touch created; echo $?"),
                  "operator-tool: '" + wrong + "' is not a number from 1 to 99999999\n2\n");
        EXPECT_EQ(sh("tool lock file '" + wrong + "' touch created; echo $?"),
                  "operator-tool: '" + wrong + "' is not a number from 0 to 99999999\n2\n");
    }
    EXPECT_EQ(sh("tool limit 0 touch created; tool read file middle 1"),
              "operator-tool: '0' is not a number from 1 to 99999999\n"
              "operator-tool: 'middle' is neither first nor last\n");
    EXPECT_EQ(sh("ls"), "");
}

}  // namespace
