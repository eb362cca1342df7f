/// dsessd load and dsessd dump: a cluster goes from a file to the store, or the other way.

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "runtime/qel_io.h"
#include "server/Commands.h"
#include "server/log/Text.h"
#include "server/scheduling/Spool.h"
#include "server/store/ClusterWriter.h"
#include "server/store/Loader.h"
#include "server/store/NewFile.h"

namespace dsessd {

namespace {

/// Shows on a terminal how far a load is. The line is never longer than the terminal is wide, and is erased at the end:
///
///     loading: 42%, 16 s left, 4200000 sessions, 371000 a second
class ProgressLine {
  public:
    using Clock = std::chrono::steady_clock;

    /// `totalBytes` 0: not known, as of a pipe.
    explicit ProgressLine(std::uint64_t totalBytes) : m_total(totalBytes) {}
    ~ProgressLine() {
        if (m_isShown) {
            std::cerr << kErase << std::flush;
        }
    }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void show(std::uint64_t bytes, const LoadCounts& counts, bool isRead) {
        const auto now = Clock::now();
        if (now < m_next && !(isRead && m_isShown)) {
            return;
        }
        m_next = now + std::chrono::milliseconds(250);
        m_isShown = true;
        const double seconds = std::chrono::duration<double>(now - m_start).count();
        std::vector<std::string> parts;
        if (isRead) {
            parts.emplace_back("to the disk");
        } else if (m_total != 0) {
            const double share = static_cast<double>(bytes) / static_cast<double>(m_total);
            parts.push_back(rounded(100 * share) + "%");
            parts.push_back(rounded(seconds / share - seconds) + " s left");
        }
        parts.push_back(std::to_string(counts.sessions) + " sessions");
        parts.push_back(rounded(static_cast<double>(counts.sessions) / seconds) + " a second");
        std::string line = "loading: ";
        for (const std::string& part : parts) {
            if (line.size() + part.size() + 2 < columns()) {
                line += (&part == parts.data() ? "" : ", ") + part;
            }
        }
        std::cerr << kErase << line << std::flush;
    }

  private:
    static constexpr char kErase[] = "\r\033[K";

    static std::string rounded(double value) { return std::to_string(std::llround(value)); }
    static std::size_t columns() {
        winsize size{};
        return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
    }

    const std::uint64_t m_total;
    const Clock::time_point m_start = Clock::now();
    Clock::time_point m_next = m_start + std::chrono::milliseconds(500);
    bool m_isShown = false;
};

std::uint64_t sizeOf(const std::string& path) {
    struct stat info {};
    return path != "-" && ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)
               ? static_cast<std::uint64_t>(info.st_size)
               : 0;
}

void writeCluster(Store& store, const ClusterWriter::Sink& sink) {
    ClusterWriter writer(sink);
    store.giveTo(writer);
    writer.finish();
}

/// A new file that is not the store itself.
NewFile fileBeside(const DataOptions& options) {
    std::error_code none;
    if (std::filesystem::equivalent(options.data, options.file, none)) {
        throw std::runtime_error(options.file + " is the store itself");
    }
    return NewFile(options.file);
}

int load(const DataOptions& options) {
    std::ifstream file;
    if (options.file != "-") {
        file.open(options.file, std::ios::binary);
        if (!file) {
            throw std::runtime_error(options.file + " cannot be read: " + std::strerror(errno));
        }
    }
    std::istream& input = options.file == "-" ? std::cin : file;
    const auto store = Store::open(options.data, Store::IfMissing::kCreate);
    LoadCounts counts;
    try {
        ProgressLine line(sizeOf(options.file));
        LoadProgress progress;
        if (::isatty(STDERR_FILENO) == 1) {
            progress = [&](std::uint64_t bytes, const LoadCounts& soFar, bool isRead) {
                line.show(bytes, soFar, isRead);
            };
        }
        counts = loadCluster(input, *store, presentTime(), progress);
    } catch (const Failure& error) {
        if (error.reason() == Reason::kUncertain) {
            throw;
        }
        throw Failure(Store::describe(options.data) + " cannot be used: " + error.what() + "; nothing was loaded");
    } catch (const LoadError& error) {
        throw std::runtime_error(options.file + ", line " + std::to_string(error.line()) + ": " + error.what() +
                                 "; nothing was loaded");
    }
    std::cout << "dsessd: loaded realms: " << counts.realms << ", replica sets: " << counts.replicaSets
              << ", members: " << counts.members << ", keys: " << counts.keys << ", sessions: " << counts.sessions;
    if (counts.administrators) {
        std::cout << ", administrators: " << *counts.administrators;
    }
    std::cout << std::endl;
    return 0;
}

int dump(const DataOptions& options) {
    const auto store = Store::open(options.data, Store::IfMissing::kFail);
    if (options.file == "-") {
        // A slow reader of standard output must not keep a transaction open, so the whole dump goes into a spool first.
        Spool spool([] {});
        writeCluster(*store, [&spool](std::string_view text) { spool.append(std::string(text)); });
        spool.end(true);
        for (std::string piece; spool.take(piece) == Spool::Next::kPiece;) {
            if (!qel_write(STDOUT_FILENO, piece)) {
                throw std::runtime_error(std::string("the dump could not be written in full: ") + std::strerror(errno));
            }
        }
        return 0;
    }
    NewFile file = fileBeside(options);
    writeCluster(*store, [&file](std::string_view text) { file.write(text); });
    file.place();
    std::cout << "dsessd: dumped to " << harmless(options.file) << std::endl;
    return 0;
}

int backUp(const DataOptions& options) {
    if (options.file == "-") {
        throw std::runtime_error("a backup needs a file; dump writes to standard output");
    }
    const auto store = Store::open(options.data, Store::IfMissing::kFail);
    NewFile file = fileBeside(options);
    store->backUp(file.temporaryPath());
    file.place();
    std::cout << "dsessd: backed up to " << harmless(options.file) << std::endl;
    return 0;
}

int restore(const DataOptions& options) {
    const bool wasDamaged = Store::restore(options.data, options.file);
    std::cout << "dsessd: restored from " << harmless(options.file);
    if (wasDamaged) {
        std::cout << "; what was there, and cannot be used, is " << harmless(options.data) << ".damaged now";
    }
    std::cout << std::endl;
    return 0;
}

int upgrade(const DataOptions& options) {
    const StoreVersions versions = Store::upgrade(options.data);
    std::cout << "dsessd: " << Store::describe(options.data);
    if (versions.before == versions.now) {
        std::cout << " has schema version " << versions.now << " already" << std::endl;
    } else {
        std::cout << " raised from schema version " << versions.before << " to " << versions.now << std::endl;
    }
    return 0;
}

}  // namespace

int moveData(const DataOptions& options) {
    switch (options.action) {
        case DataOptions::Action::kLoad:
            return load(options);
        case DataOptions::Action::kDump:
            return dump(options);
        case DataOptions::Action::kBackUp:
            return backUp(options);
        case DataOptions::Action::kRestore:
            return restore(options);
        case DataOptions::Action::kUpgrade:
            return upgrade(options);
    }
    return 1;
}

}  // namespace dsessd
