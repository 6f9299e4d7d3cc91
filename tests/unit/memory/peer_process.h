#pragma once

#include <csignal>
#include <cstdio>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kvo::test {

/// A running peer.cpp. Waits for its line, kills it at the latest in the destructor.
class PeerProcess {
public:
    explicit PeerProcess(const std::string& arguments)
        : output_(::popen(("exec " KVO_MEMORY_TEST_PEER " " + arguments).c_str(), "re")) {
        if (output_ == nullptr || std::fscanf(output_, "%d%*c", &child_) != 1) {
            return;
        }
        for (int byte = std::getc(output_); byte != EOF && byte != '\n';
             byte = std::getc(output_)) {
            line_ += static_cast<char>(byte);
        }
    }
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;
    ~PeerProcess() { Kill(); }
    const std::string& line() const { return line_; }
    void Kill() {
        if (child_ > 0) {
            ::kill(child_, SIGKILL);
            ::pclose(output_);
            child_ = -1;
        }
    }

private:
    std::FILE* output_;
    pid_t child_ = -1;
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
