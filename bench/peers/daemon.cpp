#include "daemon.h"

#include "processes.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace kvo::bench {

using std::chrono::milliseconds;

ScratchDirectory::ScratchDirectory() : path_("/dev/shm/kvo-peers-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "making a directory " + path_);
    }
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Daemon::Daemon(const std::vector<std::string>& command, const std::string& ready)
    : output_(directory_.path() + "/output"), process_(Fork(command.front(), [&] {
          // A file, not a pipe: nobody reads what the daemon says later.
          const int file = ::open(output_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
          ::dup2(file, STDOUT_FILENO);
          ::dup2(file, STDERR_FILENO);
          std::vector<char*> arguments;
          for (const std::string& argument : command) {
              arguments.push_back(const_cast<char*>(argument.c_str()));
          }
          arguments.push_back(nullptr);
          ::execvp(arguments.front(), arguments.data());
          throw std::system_error(errno, std::generic_category(), "starting it");
      })) {
    for (int tries = 0; !FindAnswer(ready); ++tries) {
        if (tries == 1000 || HasEnded(process_)) {
            End();
            std::ifstream file(output_);
            std::ostringstream output;
            output << file.rdbuf();
            throw std::runtime_error(command.front() + " is not ready: " + output.str());
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
}

Daemon::~Daemon() {
    End();
}

bool Daemon::FindAnswer(const std::string& ready) {
    std::ifstream file(output_);
    for (std::string line; std::getline(file, line);) {
        const auto begin = line.find(ready);
        if (begin != std::string::npos && !file.eof()) {  // the line is complete
            answer_ = line.substr(begin + ready.size());
            return true;
        }
    }
    return false;
}

void Daemon::End() {
    ::kill(process_, SIGTERM);
    AwaitExit(process_, milliseconds(5000));
}

}  // namespace kvo::bench
