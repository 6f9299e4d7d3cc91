#pragma once

#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace kvo::test {

/// A running peer.cpp. Waits for its line, kills it at the latest in the destructor.
class PeerProcess {
public:
    explicit PeerProcess(std::vector<std::string> arguments) {
        int in[2];
        int out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
            return;
        }
        arguments.insert(arguments.begin(), KVO_MEMORY_TEST_PEER);
        std::vector<char*> values;
        for (std::string& argument : arguments) {
            values.push_back(argument.data());
        }
        values.push_back(nullptr);
        child_ = ::fork();
        if (child_ == 0) {
            ::dup2(in[0], STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            ::execv(values[0], values.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        in_ = in[1];
        char byte = 0;
        while (::read(out[0], &byte, 1) == 1 && byte != '\n') {
            line_ += byte;
        }
        ::close(out[0]);
    }
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;
    ~PeerProcess() {
        Kill();
        ::close(in_);
    }
    const std::string& line() const { return line_; }
    void Kill() {
        if (child_ > 0) {
            ::kill(child_, SIGKILL);
            ::waitpid(child_, nullptr, 0);
            child_ = -1;
        }
    }

private:
    pid_t child_ = -1;
    int in_ = -1;
    std::string line_;
};

/// Runs a function in a forked child; its result.
template <class Function>
int ResultInForkedChild(Function function) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(function());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

}  // namespace kvo::test
