#include "crash_points.h"

#include "kvo/os/crash_point.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace kvo::stress {
namespace {

// Of this process: where it is to stop, and how often it came by each point.
std::string wanted_point;
int wanted_hit = 0;
int wanted_signal = 0;
std::mutex hits_mutex;
std::map<std::string, int> hits;  // under the mutex

// Beside the directory of the encounter.
std::string HitsPath(const std::string& directory) {
    return directory + ".hits";
}

// DIRECTORY POINT HIT SIGNAL; no point: goes on to its end and tells where it came by.
void BeRole(void (*be)(const std::string&), const Arguments& arguments) {
    wanted_point = arguments.at(1);
    wanted_hit = std::stoi(arguments.at(2));
    wanted_signal = std::stoi(arguments.at(3));
    be(arguments.at(0));
    if (wanted_point.empty()) {
        const std::lock_guard lock(hits_mutex);
        std::ofstream file(HitsPath(arguments.at(0)));
        for (const auto& [point, count] : hits) {
            file << count << ' ' << point << '\n';
        }
    }
    std::cout.flush();
    ::_exit(0);  // whatever the process keeps to its end may come by points as well
}

class Meeting {
public:
    Meeting(const Play& play, const std::string& role)
        : encounter_(play.encounter(role, scratch_.path())) {}

    /// @return how often the role comes by each point when it is not stopped.
    std::map<std::string, int> Explore(const std::string& role) {
        Start(role, "", 0, 0);
        Demand(WIFEXITED(status_) && WEXITSTATUS(status_) == 0, "it fails by itself");
        std::map<std::string, int> counts;
        std::ifstream file(HitsPath(scratch_.path()));
        std::string point;
        for (int count = 0; file >> count && file.get() == ' ' && std::getline(file, point);) {
            counts[point] = count;
        }
        std::filesystem::remove(HitsPath(scratch_.path()));
        return counts;
    }

    void Check(const std::string& role, const std::string& point, int hit, int signal) {
        Start(role, point, hit, signal);
        Demand(signal == SIGKILL ? WIFSIGNALED(status_) && WTERMSIG(status_) == SIGKILL
                                 : WIFSTOPPED(status_),
               "the process did not come by the point");
        encounter_->CheckOthers(signal);
        if (signal == SIGSTOP) {
            process_->Signal(SIGCONT);
            AwaitProcess();
            Demand(WIFEXITED(status_) && WEXITSTATUS(status_) == 0,
                   "the process that went on ended with status " + std::to_string(status_));
        }
        encounter_->CheckEnd(signal);
    }

private:
    void Start(const std::string& role, const std::string& point, int hit, int signal) {
        process_ = std::make_unique<Process>(
            Arguments{role, scratch_.path(), point, std::to_string(hit), std::to_string(signal)});
        AwaitProcess();
    }
    void AwaitProcess() {
        Await(std::chrono::seconds(30), "the way of the process", [this] {
            encounter_->Feed();
            return process_->Look(status_);
        });
    }

    const kvo::test::TempDirectory scratch_;
    std::unique_ptr<Encounter> encounter_;
    std::unique_ptr<Process> process_;
    int status_ = 0;
};

void Drive(const Play& play) {
    int encounters = 0;
    int failures = 0;
    std::map<std::string, int> all;
    for (const auto& [role, be] : play.roles) {
        for (const auto& [point, count] : Meeting(play, role).Explore(role)) {
            ++all[point];
            for (const int signal : {SIGKILL, SIGSTOP}) {
                ++encounters;
                try {
                    // Within its life, and early enough if another one is shorter.
                    Meeting(play, role).Check(role, point, (count + 2) / 3, signal);
                } catch (const std::exception& error) {
                    ++failures;
                    std::cerr << role << " with signal " << signal << " at \"" << point
                              << "\": " << error.what() << std::endl;
                }
            }
        }
    }
    std::cout << all.size() << " crash points, " << encounters << " encounters, " << failures
              << " failures" << std::endl;
    Demand(failures == 0, "another process was harmed");
    Demand(all.size() >= play.least_points, "some points were not met");
}

}  // namespace

int RunCrashPoints(int argc, char** argv, const Play& play) {
    try {
        if (argc == 6) {
            EndWithParent();
            BeRole(play.roles.at(argv[1]), Arguments(argv + 2, argv + argc));
        }
        Drive(play);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << (argc == 6 ? argv[1] : "crash points") << ": " << error.what() << std::endl;
        return 1;
    }
}

}  // namespace kvo::stress

void kvo::HitCrashPoint(const char* name) {
    using namespace kvo::stress;
    {
        const std::lock_guard lock(hits_mutex);
        if (++hits[name] != wanted_hit || wanted_point != name) {
            return;
        }
    }
    ::raise(wanted_signal);
}
