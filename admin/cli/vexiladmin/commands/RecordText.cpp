#include "admin/cli/vexiladmin/commands/RecordText.h"

QelString recordText(const char* text) {
    QelString shown(text, QelString::kForDisplay);
    if (shown.view().ends_with('\n')) {
        QelString escaped(shown.view().substr(0, shown.length() - 1));
        escaped.append("\\x0A");
        return escaped;
    }
    return shown;
}
