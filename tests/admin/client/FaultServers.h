/// The fault server (tests/support/fault_server.py) in a process of its own.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

class FaultServers {
  public:
    struct Counts {
        long connections;
        long requests;
        long bytes;
    };

    /// Waits until every mode has its port.
    explicit FaultServers(const std::vector<std::string>& modes, const std::vector<std::string>& options = {});
    ~FaultServers();
    FaultServers(const FaultServers&) = delete;
    FaultServers& operator=(const FaultServers&) = delete;

    /// A location for each mode, in order.
    std::vector<std::string> urls(const std::string& host = "127.0.0.1") const;
    std::vector<Counts> counts();

  private:
    pid_t m_process = -1;
    std::FILE* m_input = nullptr;
    std::FILE* m_output = nullptr;
    std::vector<std::string> m_modes;
    std::vector<int> m_ports;
};
