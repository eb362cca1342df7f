#include "server/Log.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

namespace dsessd {

namespace {

struct TopicTraits {
    const char* name;
    int level;
};

TopicTraits traitsOf(Topic topic) {
    switch (topic) {
        case Topic::kFailure:
            return {"failure", 0};
        case Topic::kNotice:
            return {"notice", 0};
        case Topic::kAudit:
            return {"audit", 1};
        case Topic::kRequest:
            return {"request", 2};
        case Topic::kDetail:
            return {"detail", 3};
    }
    return {"", 0};
}

std::string timestamp() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto milliseconds = duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::array<char, 40> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text.data() + length, text.size() - length, ".%03dZ", static_cast<int>(milliseconds));
    return text.data();
}

}  // namespace

bool Log::wants(Topic topic) const {
    return m_level >= traitsOf(topic).level;
}

void Log::write(Topic topic, std::string_view text) {
    if (!wants(topic)) {
        return;
    }
    std::string line = timestamp();
    line.append(" ").append(traitsOf(topic).name).append(" ").append(text).append("\n");
    const std::lock_guard lock(m_mutex);
    // One call a line; a log that cannot be written must not stop the server.
    [[maybe_unused]] const ssize_t written = ::write(m_fd, line.data(), line.size());
}

}  // namespace dsessd
