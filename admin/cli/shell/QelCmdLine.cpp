#include "admin/cli/shell/QelCmdLine.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "catalogue/qel_messages.h"

namespace {

constexpr std::uint32_t kInvalidBuckets = 29;

}  // namespace

std::uint32_t QelCmdLine::initialize(int argc, char** argv) {
    m_options.clear();
    if (argc < 1 || argv == nullptr || argv[0] == nullptr) {
        m_cmdName = {};
        return kStatusCommandLine;
    }
    const std::string_view path(argv[0]);
    m_cmdName = path.substr(path.rfind('/') + 1);
    for (int index = 1; index < argc; ++index) {
        const std::string_view argument(argv[index]);
        if (argument.starts_with('-') && argument != "-") {
            const bool hasValue = index + 1 < argc && *argv[index + 1] != '-';
            m_options.push_back({argument.substr(1), hasValue ? argv[++index] : nullptr});
        }
    }
    return 0;
}

void QelCmdLine::getCmdName(QelStringRef* name) const {
    *name = m_cmdName;
}

std::uint32_t QelCmdLine::findOption(const QelString& name, QelStringRef* value) const {
    const auto found = std::find_if(m_options.begin(), m_options.end(),
                                    [&](const Option& option) { return option.name == name.view(); });
    if (found == m_options.end()) {
        return kStatusUnknownName;
    }
    if (value != nullptr) {
        *value = found->value != nullptr ? std::string_view(found->value) : std::string_view();
    }
    return 0;
}

void QelCmdLine::validated(const QelStringRef& name) {
    m_validated.push_back(name.view());
}

const QelHashTable<QelString, QelString>& QelCmdLine::invalidOptions() {
    m_invalid.setUp(kInvalidBuckets);
    for (const Option& option : m_options) {
        QelString name(option.name);
        if (std::find(m_validated.begin(), m_validated.end(), option.name) == m_validated.end() &&
            m_invalid.find(name) == nullptr) {
            m_invalid.insert(std::move(name), std::make_unique<QelString>(static_cast<const char*>(option.value)));
        }
    }
    return m_invalid;
}
