/// The options of a command line: `-name`, and as its value the argument after it unless that begins with `-`. A lone
/// `-` is no option; names are never abbreviated.
#pragma once

#include <cstdint>
#include <vector>

#include "catalogue/QelHashTable.h"
#include "catalogue/QelString.h"
#include "catalogue/QelStringRef.h"

class QelCmdLine {
  public:
    /// Takes main's arguments, which must outlive the object. Returns 0, or kStatusCommandLine when there is not even a
    /// program name.
    [[nodiscard]] std::uint32_t initialize(int argc, const char* const* argv);
    /// The last component of the path under which the program was started.
    void getCmdName(QelStringRef* name) const;
    /// Returns 0 and the value of the option's first occurrence (empty when it has none), or non-zero when it is
    /// absent. `value` may be null.
    [[nodiscard]] std::uint32_t findOption(const QelString& name, QelStringRef* value) const;
    /// Declares an option that the program accepts.
    void validated(const QelStringRef& name);
    /// The options present that were not declared, by name with their value; each name once.
    const QelHashTable<QelString, QelString>& invalidOptions();

  private:
    struct Option {
        std::string_view name;
        std::string_view value;
    };
    QelStringRef m_cmdName;
    std::vector<Option> m_options;
    std::vector<std::string_view> m_validated;
    QelHashTable<QelString, QelString> m_invalid;
};
