#include "processes.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace kvo::bench {

pid_t Fork(const std::string& name, const std::function<void()>& part) {
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child > 0) {
        return child;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::prctl(PR_SET_TIMERSLACK, 1);         // a sleep between samples ends when it is due
    ::dup2(STDERR_FILENO, STDOUT_FILENO);  // libraries' chatter; the table is the driver's output
    try {
        part();
        // Not std::exit(): libraries have threads from before main() that the child lacks, and
        // would wait for them.
        std::_Exit(0);
    } catch (const std::exception& error) {
        std::cerr << name + ": " + error.what() + '\n';
        std::_Exit(1);
    }
}

bool HasEnded(pid_t process) {
    siginfo_t ended{};
    return ::waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == process;
}

bool AwaitExit(pid_t process, std::chrono::milliseconds longest) {
    constexpr std::chrono::milliseconds kStep{5};
    int status = 0;
    for (; longest.count() > 0; longest -= kStep) {
        if (::waitpid(process, &status, WNOHANG) == process) {
            return status == 0;
        }
        std::this_thread::sleep_for(kStep);
    }
    ::kill(process, SIGKILL);
    ::waitpid(process, &status, 0);
    return false;
}

}  // namespace kvo::bench
