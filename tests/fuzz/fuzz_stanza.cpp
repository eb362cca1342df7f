/// Whatever the text, the stanza parser ends, gives pieces that lie in the text on the line it says, and reads the same
/// from what it gave, written out plainly.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "Require.h"
#include "runtime/qel_stanza.h"

namespace {

void requirePiece(std::string_view text, std::string_view piece) {
    if (!piece.empty()) {
        REQUIRE(piece.data() >= text.data() && piece.data() + piece.size() <= text.data() + text.size());
        REQUIRE(piece.find_first_of(std::string_view("\0\n", 2)) == std::string_view::npos);
        REQUIRE(piece.find_first_not_of(" \t\r") == 0 && piece.find_last_not_of(" \t\r") == piece.size() - 1);
    }
}

/// The parser's items, each as a plain line. Returns what ended them.
StanzaParser::Item parse(std::string_view text, std::string& plain) {
    StanzaParser parser(text);
    std::size_t line = 0;
    for (;;) {
        const StanzaParser::Item item = parser.next();
        if (item == StanzaParser::Item::kEnd || item == StanzaParser::Item::kError) {
            REQUIRE(parser.next() == item);
            REQUIRE((parser.error() != nullptr) == (item == StanzaParser::Item::kError));
            return item;
        }
        REQUIRE(parser.line() > line);
        line = parser.line();
        const std::string_view name = parser.name();
        REQUIRE(!name.empty());
        requirePiece(text, name);
        REQUIRE(line - 1 == static_cast<std::size_t>(std::count(text.data(), name.data(), '\n')));
        if (item == StanzaParser::Item::kStanza) {
            plain.append("[").append(name).append("]\n");
        } else {
            REQUIRE(!plain.empty());
            requirePiece(text, parser.value());
            plain.append(name).append("=").append(parser.value()).append("\n");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<char> text(data, data + size);  // an allocation that ends where the text does
    std::string plain;
    parse({text.data(), text.size()}, plain);
    std::string again;
    REQUIRE(parse(plain, again) == StanzaParser::Item::kEnd);
    REQUIRE(again == plain);
    return 0;
}
