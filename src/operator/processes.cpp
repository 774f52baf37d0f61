#include "operator/processes.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <optional>
#include <string>

#include "operator/failure.h"

namespace operator_tool {

namespace {

// Seconds between SIGTERM and SIGKILL. A limit inside another is ended by the other's SIGTERM, and
// has to be done with its own group before the other's SIGKILL.
constexpr unsigned GRACE_AT_LIMIT = 2;
constexpr unsigned GRACE_AT_SIGNAL = 1;
constexpr unsigned LOOKS_PER_SECOND = 50;
constexpr unsigned MICROSECONDS = 1'000'000;
constexpr int SIGNALLED = 128;
constexpr std::array<int, 4> ENDING = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

/// The signal that has ended the waiting: SIGALRM, or one of ENDING.
volatile std::sig_atomic_t arrived = 0;

void remember(int signal) {
    if (signal != SIGCHLD) {
        arrived = signal;
    }
}

void handle(int signal) {
    struct sigaction action{};
    action.sa_handler = remember;
    action.sa_flags = SA_NOCLDSTOP;
    sigaction(signal, &action, nullptr);
}

bool isIgnored(int signal) {
    struct sigaction action{};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

/// Handles what ends a waiting, and blocks it so that it arrives in sigsuspend only. Returns the
/// mask for that.
sigset_t prepareSignals() {
    sigset_t handled;
    sigset_t waiting;
    sigemptyset(&handled);
    for (const int signal : ENDING) {
        if (!isIgnored(signal)) {
            handle(signal);
            sigaddset(&handled, signal);
        }
    }
    for (const int signal : {SIGCHLD, SIGALRM}) {  // a SIGCHLD that is ignored leaves no status
        handle(signal);
        sigaddset(&handled, signal);
    }
    sigprocmask(SIG_BLOCK, &handled, &waiting);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGCHLD, SIGALRM}) {
        sigdelset(&waiting, signal);
    }
    return waiting;
}

void setDefaultSignals() {
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action{};
        action.sa_handler = SIG_DFL;
        sigaction(signal, &action, nullptr);  // fails for SIGKILL and SIGSTOP
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Waits for the child's end, for a number of seconds or until one of ENDING arrives. The seconds
/// are an alarm's, which does not count the time that a Mac sleeps.
std::optional<int> wait(pid_t child, unsigned seconds, const sigset_t& waiting) {
    alarm(seconds);
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended < 0) {
            throw systemFailure("waitpid");
        }
        if (ended == child) {
            alarm(0);
            return WIFEXITED(status) ? WEXITSTATUS(status) : SIGNALLED + WTERMSIG(status);
        }
        if (arrived != 0) {
            return std::nullopt;
        }
        sigsuspend(&waiting);
    }
}

/// Waits until the child, if it has not been waited for, and its group have ended. Returns whether
/// they have. The child's number stays the group's until the last of the group has ended.
bool haveEnded(pid_t child, bool& isWaitedFor, unsigned seconds) {
    for (unsigned looks = seconds * LOOKS_PER_SECOND; looks != 0; --looks) {
        isWaitedFor = isWaitedFor || waitpid(child, nullptr, WNOHANG) == child;
        if (isWaitedFor && kill(-child, 0) != 0) {
            return true;
        }
        usleep(MICROSECONDS / LOOKS_PER_SECOND);
    }
    return false;
}

void endGroup(pid_t child, unsigned grace) {
    bool isWaitedFor = false;
    kill(-child, SIGTERM);
    if (haveEnded(child, isWaitedFor, grace)) {
        return;
    }
    kill(-child, SIGKILL);
    if (!isWaitedFor) {
        kill(child, SIGKILL);  // it may have gone to another group
    }
    // What the kernel does not let go is left alone.
    for (unsigned looks = LOOKS_PER_SECOND; looks != 0 && !isWaitedFor; --looks) {
        usleep(MICROSECONDS / LOOKS_PER_SECOND);
        isWaitedFor = waitpid(child, nullptr, WNOHANG) == child;
    }
}

[[noreturn]] void endBy(int signal) {
    setDefaultSignals();
    kill(getpid(), signal);
    _exit(SIGNALLED + signal);
}

}  // namespace

void execute(Command command) {
    execvp(command[0], command);
    const int status = errno == ENOENT ? NOT_FOUND : CANNOT_BE_EXECUTED;
    throw Failure(status, systemFailure(command[0]).what());
}

int runWithLimit(unsigned seconds, Command command) {
    const sigset_t waiting = prepareSignals();
    const pid_t child = fork();
    if (child < 0) {
        throw systemFailure("fork");
    }
    if (child == 0) {
        setpgid(0, 0);
        setDefaultSignals();
        // exec keeps an alarm: the limit holds even if this process is killed.
        alarm(seconds + GRACE_AT_LIMIT + 1);
        execute(command);
    }
    setpgid(child, child);  // whichever of the two is first
    const std::optional<int> status = wait(child, seconds, waiting);
    if (status) {
        return *status;
    }
    if (arrived != SIGALRM) {
        endGroup(child, GRACE_AT_SIGNAL);
        endBy(arrived);
    }
    endGroup(child, GRACE_AT_LIMIT);
    throw Failure(LIMIT_REACHED, std::string(command[0]) + ": no end within " +
                                     std::to_string(seconds) + " s; it was killed");
}

}  // namespace operator_tool
