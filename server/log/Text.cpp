#include "server/log/Text.h"

#include "runtime/qel_utf8.h"
#include "runtime/qel_visible.h"

namespace dsessd {

std::string harmless(std::string_view text, std::size_t maxBytes) {
    std::string out;
    while (!text.empty() && out.size() < maxBytes) {
        const QelCharacter character = qel_utf8_decode(text);
        const std::string_view bytes = text.substr(0, character.length == 0 ? 1 : character.length);
        if (character.length == 0) {
            out += qel_escape_byte(text.front()).data();
        } else if (qel_drives_terminal(character.codePoint)) {
            out += qel_escape(character.codePoint).data();
        } else {
            out += bytes;
        }
        text.remove_prefix(bytes.size());
    }
    if (!text.empty()) {
        out += "...";
    }
    return out;
}

}  // namespace dsessd
