// kvo shm: what stands in stream files, without a broker and without being noticed.
#include "command.h"
#include "kvo/memory/inspection.h"

#include <algorithm>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace kvo::tools {
namespace {

namespace fs = std::filesystem;

struct ShmOptions {
    std::vector<std::string> directories;
    std::vector<std::string> files;
};

std::vector<fs::path> DefaultDirectories() {
    std::vector<fs::path> directories;
    for (const auto& entry : fs::directory_iterator("/dev/shm")) {
        if (entry.is_directory() && entry.path().filename().string().rfind("kvo-", 0) == 0) {
            directories.push_back(entry.path());
        }
    }
    return directories;
}

std::vector<fs::path> StreamFilesIn(const fs::path& directory) {
    std::vector<fs::path> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory, error)) {
        if (entry.path().extension() == ".stream") {
            files.push_back(entry.path());
        }
    }
    if (error) {
        throw CommandFailure(ExitCode::kFailure,
                             "cannot list " + directory.string() + ": " + error.message());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string ProcessText(const ObservedProcess& process) {
    if (process.tag.number == 0) {
        return "none";
    }
    return (process.process_id == 0 ? "unknown process"
                                    : "process " + std::to_string(process.process_id)) +
           (process.lives ? "" : " (dead)");
}

ExitCode List(const ShmOptions& options) {
    std::vector<fs::path> directories(options.directories.begin(), options.directories.end());
    if (directories.empty()) {
        directories = DefaultDirectories();
    }
    bool damaged = false;
    for (const fs::path& directory : directories) {
        for (const fs::path& file : StreamFilesIn(directory)) {
            try {
                const FileReport report = InspectStreamFile(file.string());
                std::cout << file.string() << "  " << report.stream << "  "
                          << (report.writer.retired ? "retired" : "active") << "  writer "
                          << ProcessText(report.writer_process) << "  " << report.readers.size()
                          << " readers  " << report.geometry.total_bytes() << " bytes\n";
            } catch (const std::runtime_error& error) {
                damaged = true;
                std::cerr << "kvo: " << error.what() << '\n';
            }
        }
    }
    return damaged ? ExitCode::kFailure : ExitCode::kSuccess;
}

void PrintReader(const ObservedReader& reader) {
    const ReaderState& state = reader.state;
    std::cout << "reader entry " << state.entry << ": " << ProcessText(reader.process)
              << "\n  next " << state.next_sequence << ", " << reader.lag << " behind, read "
              << state.read << " (copied " << reader.copied << "), lost " << state.lost
              << ", superseded " << state.superseded << ", expired " << state.expired
              << ", wrong checksum " << state.checksum_failures << "\n  pins:";
    for (const std::uint64_t sequence : reader.pinned) {
        std::cout << ' ' << sequence;
    }
    std::cout << (reader.pinned.empty() ? " none\n" : "\n");
}

void Print(const std::string& file, const FileReport& report) {
    const StreamGeometry& geometry = report.geometry;
    const WriterState& writer = report.writer;
    const auto line = [](const char* name, const auto& value) {
        std::cout << std::left << std::setw(18) << name << value << '\n';
    };
    line("file", file);
    line("stream", report.stream);
    line("uuid", report.uuid);
    line("epoch", report.epoch);
    line("created (ms)", report.created_ms);
    line("state", writer.retired ? "retired" : "active");
    line("checksums", report.checksums ? "asked for" : "not asked for");
    line("largest sample", std::to_string(geometry.max_payload_bytes) + " bytes, metadata " +
                               std::to_string(geometry.max_metadata_bytes));
    line("slots", std::to_string(geometry.slot_count) + " of " +
                      std::to_string(geometry.slot_stride) +
                      " bytes: " + std::to_string(geometry.retained_samples) + " retained + " +
                      std::to_string(geometry.pinning_entries) + " reader entries * " +
                      std::to_string(geometry.pins_per_entry) + " pins + " +
                      std::to_string(geometry.reclaim_batch) + " closed at a time");
    line("bytes", geometry.total_bytes());
    line("writer", ProcessText(report.writer_process));
    line("newest sample", writer.newest_sequence);
    line("payload bytes", writer.payload_bytes);
    line("dropped", writer.dropped);
    line("discarded", writer.discarded);
    line("last write (ms)", writer.last_write_ms);
    for (const ObservedReader& reader : report.readers) {
        PrintReader(reader);
    }
}

ExitCode Show(const ShmOptions& options) {
    for (const std::string& file : options.files) {
        Print(file, InspectStreamFile(file));
    }
    return ExitCode::kSuccess;
}

ExitCode Check(const ShmOptions& options) {
    ExitCode code = ExitCode::kSuccess;
    for (const std::string& file : options.files) {
        std::vector<std::string> broken;
        try {
            broken = CheckStreamFile(file);
        } catch (const std::runtime_error& error) {
            broken = {error.what()};
        }
        std::cout << file << (broken.empty() ? ": sound\n" : ": broken\n");
        for (const std::string& rule : broken) {
            std::cout << "  " << rule << '\n';
            code = ExitCode::kFailure;
        }
    }
    return code;
}

}  // namespace

void AddShm(CLI::App& app, Action& action) {
    const auto options = std::make_shared<ShmOptions>();
    CLI::App* shm = app.add_subcommand("shm", "Look into stream files, without a broker");
    shm->require_subcommand(1);
    const auto add = [&](const char* name, const char* help, ExitCode (*run)(const ShmOptions&)) {
        CLI::App* command = shm->add_subcommand(name, help);
        command->callback([options, &action, run] {
            action = [options, run](const CommonOptions&) { return run(*options); };
        });
        return command;
    };
    add("ls", "List the stream files of directories", &List)
        ->add_option("DIRECTORY", options->directories, "Default: every /dev/shm/kvo-*");
    for (CLI::App* command :
         {add("show", "Show header, writer, readers with pins and lag, and counters", &Show),
          add("check", "Verify the rules of a file, in use or not; exit code 1: broken", &Check)}) {
        command->add_option("FILE", options->files, "Stream file")->required();
    }
}

}  // namespace kvo::tools
