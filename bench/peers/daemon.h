#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace kvo::bench {

/// A directory of its own in shared memory, gone with the object.
class ScratchDirectory {
public:
    ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory();
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

/// A system's own process: started and ready with the constructor, ended with the destructor.
class Daemon {
public:
    /// @param ready what the daemon prints when it is ready.
    /// Throws std::runtime_error when that does not come, with what came.
    Daemon(const std::vector<std::string>& command, const std::string& ready);
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon();

    pid_t process() const { return process_; }
    /// The rest of the line after `ready`.
    const std::string& answer() const { return answer_; }

private:
    bool FindAnswer(const std::string& ready);
    void End();

    const ScratchDirectory directory_;
    const std::string output_;
    pid_t process_;
    std::string answer_;
};

}  // namespace kvo::bench
