#include "local/local_endpoint.h"

#include "gorm/cor/errors.h"
#include "kvo/os/crash_point.h"
#include "kvo/os/lock_file.h"
#include "kvo/os/trust.h"
#include "transport/log.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace gorm::cor {
namespace {

namespace fs = std::filesystem;

constexpr int kClaimAttempts = 10;
constexpr mode_t kLockMode = 0644;  // clients check whether it is held
constexpr mode_t kSocketMode = 0666;

// @return why the directory cannot be used; empty: it exists, clients can trust it and this process
// can write it.
std::string CheckDirectory(const RuntimeDirectory& directory) {
    const mode_t mode = directory.own ? 0700 : 0755;
    if (::mkdir(directory.path.c_str(), mode) != 0 && errno != EEXIST) {
        return directory.path + ": " + std::strerror(errno);
    }
    if (std::string fault = kvo::os::CheckTrust(directory.path); !fault.empty()) {
        return fault;
    }
    if (::access(directory.path.c_str(), W_OK | X_OK) != 0) {
        return directory.path + ": " + std::strerror(errno);
    }
    return {};
}

RuntimeDirectory Choose(const std::string& wanted) {
    std::string faults;
    for (const RuntimeDirectory& directory :
         wanted.empty() ? RuntimeDirectories() : std::vector<RuntimeDirectory>{{wanted, false}}) {
        // The service's directory is made by the service manager alone.
        const bool missing = wanted.empty() && !directory.own && !fs::exists(directory.path);
        const std::string fault =
            missing ? directory.path + " is not there" : CheckDirectory(directory);
        if (fault.empty()) {
            return directory;
        }
        faults += (faults.empty() ? "" : "; ") + fault;
    }
    throw std::runtime_error(faults);
}

// What killed servers have left. A lock that can be taken has no holder.
void RemoveLeftovers(const std::string& directory) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(directory, ignored)) {
        const std::string stem = entry.path().stem().string();
        if (entry.path().extension() != ".lock" ||
            !std::all_of(stem.begin(), stem.end(),
                         [](unsigned char letter) { return std::isdigit(letter) != 0; })) {
            continue;
        }
        try {
            const kvo::os::LockFile lock(entry.path().string(), "", kLockMode);
            ::unlink((directory + "/" + stem + ".sock").c_str());
            ::unlink((directory + "/" + stem + ".topics").c_str());
        } catch (const std::exception&) {  // in use, or not ours
        }
    }
}

}  // namespace

LocalEndpoint::LocalEndpoint(const std::string& directory, std::uint16_t port,
                             const std::string& note)
    : port_(port) {
    for (int attempt = 0; !lock_; ++attempt) {
        directory_ = Choose(directory);
        path_ = SocketPath(directory_.path, port);
        if (path_.size() >= sizeof sockaddr_un{}.sun_path) {
            throw std::runtime_error(path_ + " is too long for a socket");
        }
        RemoveLeftovers(directory_.path);
        try {
            lock_.emplace(LockPath(directory_.path, port), note, kLockMode);
        } catch (const kvo::os::LockHeld& held) {
            // Without a note it is held by a process that removes leftovers.
            if (!held.note().empty() || attempt == kClaimAttempts) {
                throw;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } catch (const std::system_error& error) {
            // The last server to end may have removed the directory just now.
            if (error.code() != std::errc::no_such_file_or_directory || attempt == kClaimAttempts) {
                throw;
            }
        }
    }
}

LocalEndpoint::~LocalEndpoint() {
    ::unlink(path_.c_str());
    if (!topics_path_.empty()) {
        ::unlink(topics_path_.c_str());
        KVO_CRASH_POINT("link to topics withdrawn");
    }
    lock_.reset();
    if (directory_.own) {
        ::rmdir(directory_.path.c_str());  // refused while others use it
    }
}

void LocalEndpoint::SetPermissions() const {
    thread_.here();
    if (::chmod(path_.c_str(), kSocketMode) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot open " + path_);
    }
}

void LocalEndpoint::LinkTopics(const std::string& topic_directory) {
    thread_.here();
    const std::string path = TopicsPath(directory_.path, port_);
    ::unlink(path.c_str());  // of a killed holder of the port
    KVO_CRASH_POINT("link to topics removed");
    if (::symlink(topic_directory.c_str(), path.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make " + path);
    }
    topics_path_ = path;
    KVO_CRASH_POINT("link to topics made");
}

std::unique_ptr<LocalEndpoint> ServeLocal(const Serving& serving, const Address& address,
                                          std::uint16_t port,
                                          const std::function<void(const std::string&)>& bind) {
    if (!serving.runtime_directory || !address.ServesLocal()) {
        return nullptr;
    }
    try {
        auto local =
            std::make_unique<LocalEndpoint>(*serving.runtime_directory, port, serving.note);
        bind(local->endpoint());
        local->SetPermissions();
        return local;
    } catch (const kvo::os::LockHeld& held) {
        throw BindError("cannot serve \"" + address.text + "\": port " + std::to_string(port) +
                        " is in use by process " + held.process() + ", " + held.note());
    } catch (const std::exception& error) {
        LogWarning("no Unix socket for port " + std::to_string(port) +
                   ", TCP only: " + error.what());
        return nullptr;
    }
}

}  // namespace gorm::cor
