#include "processes.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <spawn.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace kvo::stress {

void Demand(bool holds, const std::string& otherwise) {
    if (!holds) {
        throw std::runtime_error(otherwise);
    }
}

void* MapShared(const std::string& path, std::size_t bytes) {
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    Demand(file >= 0 && ::ftruncate(file, static_cast<off_t>(bytes)) == 0, "cannot make " + path);
    void* const begin = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    Demand(begin != MAP_FAILED, "cannot map " + path);
    return begin;
}

Process::Process(const Arguments& arguments) {
    Arguments texts{"/proc/self/exe"};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> values;
    for (std::string& text : texts) {
        values.push_back(text.data());
    }
    values.push_back(nullptr);
    const int error = ::posix_spawn(&id_, values[0], nullptr, nullptr, values.data(), environ);
    Demand(error == 0, std::string("cannot start a process: ") + std::strerror(error));
}

Process::~Process() {
    Signal(SIGKILL);
    Await();
}

void Process::Signal(int number) const {
    if (!ended_) {
        ::kill(id_, number);
    }
}

int Process::Await() {
    while (!ended_) {
        ended_ = ::waitpid(id_, &status_, 0) == id_ || errno != EINTR;
    }
    return status_;
}

bool Process::HasEnded() {
    ended_ = ended_ || ::waitpid(id_, &status_, WNOHANG) == id_;
    return ended_;
}

bool Process::Look(int& status) {
    const bool stopped = !ended_ && ::waitpid(id_, &status_, WNOHANG | WUNTRACED) == id_;
    ended_ = ended_ || (stopped && !WIFSTOPPED(status_));
    status = status_;
    return stopped || ended_;
}

void Process::Kill() {
    Signal(SIGKILL);
    Await();
    Demand(WIFSIGNALED(status_) && WTERMSIG(status_) == SIGKILL,
           "a process ended by itself, with status " + std::to_string(status_));
}

bool KillOptions::Over(std::uint64_t killed, Clock::time_point begin) const {
    return killed >= kills ||
           (seconds != 0 && Clock::now() - begin > std::chrono::duration<double>(seconds));
}

void EndWithParent() {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
}

int Run(int argc, char** argv, CLI::App& app, KillOptions& options, const Roles& roles,
        const std::function<void()>& drive) {
    const auto role = argc > 1 ? roles.find(argv[1]) : roles.end();
    std::string who = app.get_name();
    try {
        if (role != roles.end()) {
            who += ", " + role->first;
            EndWithParent();
            role->second(Arguments(argv + 2, argv + argc));
            return 0;
        }
        app.add_option("--kills", options.kills, "End after so many")->capture_default_str();
        app.add_option("--seconds", options.seconds, "End after so much time; 0: no limit")
            ->capture_default_str();
        app.add_option("--seed", options.seed, "Of the random choices; default: a new one");
        CLI11_PARSE(app, argc, argv);
        who += " (seed " + std::to_string(options.seed) + ")";
        drive();
        return 0;
    } catch (const std::exception& error) {
        std::cerr << who << ": " << error.what() << std::endl;
        return 1;
    }
}

}  // namespace kvo::stress
