#include "tests/admin/client/FaultServers.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

FaultServers::FaultServers(const std::vector<std::string>& modes, const std::vector<std::string>& options)
    : m_modes(modes) {
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    std::vector<std::string> words{"python3", VEXIL_TESTS_SUPPORT "/fault_server.py"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), modes.begin(), modes.end());
    std::vector<char*> arguments(words.size() + 1, nullptr);
    std::transform(words.begin(), words.end(), arguments.begin(), [](std::string& word) { return word.data(); });
    m_process = fork();
    if (m_process == 0) {
        dup2(input[0], 0);
        dup2(output[1], 1);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    close(input[0]);
    close(output[1]);
    m_input = fdopen(input[1], "w");
    m_output = fdopen(output[0], "r");
    for (std::size_t index = 0; index < modes.size(); ++index) {
        int port = 0;
        if (std::fscanf(m_output, " port %d %*s", &port) != 1) {
            throw std::runtime_error("the fault server did not start");
        }
        m_ports.push_back(port);
    }
    std::fscanf(m_output, " ready");
}

FaultServers::~FaultServers() {
    std::fclose(m_input);
    std::fclose(m_output);
    waitpid(m_process, nullptr, 0);
}

std::vector<std::string> FaultServers::urls(const std::string& host) const {
    std::vector<std::string> urls;
    for (std::size_t index = 0; index < m_ports.size(); ++index) {
        urls.push_back((m_modes[index].rfind("tls", 0) == 0 ? "https://" : "http://") + host + ":" +
                       std::to_string(m_ports[index]) + "/blue/services/DSessAdminProxy");
    }
    return urls;
}

std::vector<FaultServers::Counts> FaultServers::counts() {
    std::fputs("counts\n", m_input);
    std::fflush(m_input);
    std::vector<Counts> all(m_ports.size());
    for (Counts& one : all) {
        if (std::fscanf(m_output, " counts %ld %ld %ld", &one.connections, &one.requests, &one.bytes) != 3) {
            throw std::runtime_error("the fault server stopped");
        }
    }
    return all;
}
