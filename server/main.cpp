/// The entry point of dsessd.

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <string_view>

#include "runtime/qel_io.h"
#include "server/Commands.h"
#include "server/Options.h"

namespace {

/// What a command says is its result: lost, it must not look like success.
int told(int status) {
    if (status == 0 && !std::cout.flush()) {
        std::cerr << "dsessd: it was done, but the output could not be written in full" << std::endl;
        return 1;
    }
    return status;
}

struct Run {
    int operator()(const dsessd::EndWith& end) const { return told(end.status); }
    int operator()(const dsessd::ServeOptions& options) const { return dsessd::serve(options); }
    int operator()(const dsessd::DataOptions& options) const { return told(dsessd::moveData(options)); }
    int operator()(const dsessd::AdminOptions& options) const { return told(dsessd::administrate(options)); }
};

/// Ends the program for an exception that nobody can catch. Without memory that happens before main begins; if there
/// was none for exceptions from the start, every throw ends here.
[[noreturn]] void endWithALine() {
    constexpr std::string_view kLine = "dsessd: ended, most likely for want of memory\n";
    static_cast<void>(qel_write(STDERR_FILENO, kLine));
    ::_exit(1);
}

/// Before all other code of the program.
[[gnu::constructor(101)]] void beforeAll() {
    std::set_terminate(endWithALine);
}

}  // namespace

int main(int argc, char** argv) {
    // No core dump: it would hold passwords. A limit on its size does not stop one that is piped to a program.
    prctl(PR_SET_DUMPABLE, 0);
    std::signal(SIGXFSZ, SIG_IGN);  // the write fails, which is told
    if (!qel_open_standard_descriptors()) {
        std::cerr << "dsessd: a closed standard input, output or error cannot be replaced" << std::endl;
        return 1;
    }
    try {
        return std::visit(Run{}, dsessd::parseOptions(argc, argv));
    } catch (const std::exception& error) {
        std::cerr << "dsessd: " << error.what() << std::endl;
        return 1;
    }
}
