#include "simulated_client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <poll.h>
#include <random>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kvo::bench {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int MillisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(0, left.count()));
}

// What comes up to the first line break.
std::string ReadLine(int file) {
    const auto deadline = Clock::now() + kPatience;
    std::string line;
    for (;;) {
        pollfd readable{file, POLLIN, 0};
        char next = 0;
        if (::poll(&readable, 1, MillisecondsUntil(deadline)) <= 0 || ::read(file, &next, 1) != 1 ||
            next == '\n') {
            return line;
        }
        line += next;
    }
}

std::size_t EntriesOf(const fs::path& directory) {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(directory), {}));
}

std::uint64_t StatusBytes(const std::string& status, const std::string& field) {
    const auto found = status.find("\n" + field + ":");
    if (found == std::string::npos) {
        throw std::runtime_error("the broker has ended");
    }
    return 1024 * std::strtoull(status.c_str() + found + field.size() + 2, nullptr, 10);
}

std::string FateOf(int status) {
    return "the broker has ended with " +
           (WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                : "exit code " + std::to_string(WEXITSTATUS(status)));
}

std::string ContentOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

BrokerProcess::BrokerProcess() : directory_("/dev/shm/kvo-broker-XXXXXX") {
    if (::mkdtemp(directory_.data()) == nullptr) {
        Fail("making a directory in /dev/shm");
    }
}

// What the first constructor has made is given back by the destructor, should the start fail.
BrokerProcess::BrokerProcess(const std::string& program, const std::vector<std::string>& options)
    : BrokerProcess() {
    Start(program.empty()
              ? fs::read_symlink("/proc/self/exe").replace_filename("kvo-broker").native()
              : program,
          options);
}

void BrokerProcess::Start(const std::string& program, const std::vector<std::string>& options) {
    std::vector<std::string> words{program,
                                   "--port",
                                   "0",
                                   "--directory",
                                   streams(),
                                   "--runtime-directory",
                                   directory_ + "/run"};
    words.insert(words.end(), options.begin(), options.end());
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        Fail("making a pipe");
    }
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        ::dup2(ends[1], STDOUT_FILENO);
        ::execv(arguments[0], arguments.data());
        std::_Exit(127);
    }
    ::close(ends[1]);
    const std::string line = pid_ < 0 ? "" : ReadLine(ends[0]);
    ::close(ends[0]);
    const std::string scheme = "wkp.rr:";
    const auto uri = line.find(scheme);
    if (uri == std::string::npos) {
        throw std::runtime_error(program + " did not start to listen");
    }
    endpoint_ = "tcp:" + line.substr(uri + scheme.size());
    const std::string port = endpoint_.substr(endpoint_.rfind(':') + 1);
    local_endpoint_ = "ipc://" + directory_ + "/run/" + port.substr(0, port.find('/')) + ".sock";
}

BrokerProcess::~BrokerProcess() {
    int status = 0;
    if (pid_ > 0 && ::waitpid(pid_, &status, WNOHANG) == pid_) {
        std::cerr << FateOf(status) << std::endl;  // what somebody has just failed of
    } else if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
}

Footprint BrokerProcess::Look() const {
    const std::string process = "/proc/" + std::to_string(pid_);
    const std::string status = ContentOf(process + "/status");
    // Behind the name, which may contain anything: state, ten others, user and system ticks.
    const std::string stat = ContentOf(process + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    const std::vector<std::string> values(std::istream_iterator<std::string>(fields), {});
    Footprint footprint;
    footprint.rss_bytes = StatusBytes(status, "VmRSS");
    footprint.shared_bytes = StatusBytes(status, "RssShmem");
    footprint.cpu_seconds =
        static_cast<double>(std::stoull(values.at(11)) + std::stoull(values.at(12))) /
        static_cast<double>(::sysconf(_SC_CLK_TCK));
    return footprint;
}

void BrokerProcess::Stop() {
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    if (status != 0) {
        throw std::runtime_error(FateOf(status));
    }
    if (fs::exists(streams())) {
        throw std::runtime_error("the broker has left " + std::to_string(EntriesOf(streams())) +
                                 " files in its directory");
    }
}

std::string SimulatedClient::NewRoutingId() {
    static std::random_device device;
    static std::uint32_t count = 0;
    std::string id(16 + sizeof count, '\0');
    for (std::size_t i = 0; i < 16; ++i) {
        id[i] = static_cast<char>(device());
    }
    id[0] = static_cast<char>(id[0] | 1);  // zero would be no identity
    ++count;
    std::memcpy(&id[16], &count, sizeof count);
    return id;
}

SimulatedClient::SimulatedClient(zmq::context_t& context, const std::string& endpoint,
                                 const std::string& routing_id)
    : socket_(context, zmq::socket_type::dealer) {
    socket_.set(zmq::sockopt::linger, 0);
    socket_.set(zmq::sockopt::sndtimeo, MillisecondsUntil(Clock::now() + kPatience));
    if (!routing_id.empty()) {
        socket_.set(zmq::sockopt::routing_id, routing_id);
        // As the library's connections do.
        socket_.set(zmq::sockopt::heartbeat_ivl, 1000);
        socket_.set(zmq::sockopt::heartbeat_timeout, 3000);
        socket_.set(zmq::sockopt::heartbeat_ttl, 5000);
    }
    socket_.connect(endpoint);
}

std::uint32_t SimulatedClient::AskPacked(std::string_view method, const std::string& params) {
    msgpack::sbuffer buffer;
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    packer.pack_array(4).pack(0).pack(++last_id_).pack(method);
    const std::array<std::string, 2> frames{
        std::string(kBrokerPath), std::string(buffer.data(), buffer.size()).append(params)};
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const auto more = i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none;
        if (!socket_.send(zmq::buffer(frames[i]), more)) {
            throw std::runtime_error("the broker takes no requests");
        }
    }
    return last_id_;
}

std::optional<Answer> SimulatedClient::Take() {
    zmq::message_t path;
    zmq::message_t body;
    if (!socket_.recv(path, zmq::recv_flags::dontwait)) {
        return std::nullopt;
    }
    // The frames of a message arrive together.
    if (!path.more() || !socket_.recv(body, zmq::recv_flags::dontwait) || body.more()) {
        throw std::runtime_error("an answer has not two frames");
    }
    try {
        Answer answer;
        answer.message = msgpack::unpack(body.data<char>(), body.size());
        const auto& parts = answer.message.get().via.array;
        if (answer.message.get().type == msgpack::type::ARRAY && parts.size == 4 &&
            parts.ptr[0].as<int>() == 1) {
            answer.id = parts.ptr[1].as<std::uint32_t>();
            if (!parts.ptr[2].is_nil()) {
                answer.error = "error: " + parts.ptr[2].as<std::string>();
            }
            return answer;
        }
    } catch (const msgpack::unpack_error&) {
    } catch (const msgpack::type_error&) {
    }
    throw std::runtime_error("an answer is no response");
}

void AllowDescriptors(std::size_t count) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, count);
    limit.rlim_max = std::max(limit.rlim_max, limit.rlim_cur);  // above its own root alone gets
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        Fail("allowing " + std::to_string(count) + " open files");
    }
}

double Percentile(std::vector<double>& values, double part) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(static_cast<double>(values.size() - 1) * part)];
}

}  // namespace kvo::bench
