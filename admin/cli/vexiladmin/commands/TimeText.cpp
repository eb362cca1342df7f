#include "admin/cli/vexiladmin/commands/TimeText.h"

#include <ctime>

TimeText::TimeText(std::int32_t seconds) {
    const std::time_t time = seconds;
    std::strftime(m_text, sizeof(m_text), "%Y-%m-%d-%H:%M:%S UTC", std::gmtime(&time));
}
