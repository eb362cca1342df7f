/// Whatever the text, the stanza parser ends, gives pieces that lie in the text on the line it says, and reads the same
/// from what it gave, written out plainly.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Require.h"
#include "runtime/qel_stanza.h"

namespace {

using Item = StanzaParser::Item;

void requireBare(std::string_view piece) {
    REQUIRE(piece.find_first_of(std::string_view("\0\n", 2)) == piece.npos);
    REQUIRE(piece.empty() || (piece.find_first_not_of(" \t\r") == 0 && !std::strchr(" \t\r", piece.back())));
}

/// The parser's items, each as a plain line. Returns what ended them.
Item parse(std::string_view text, std::string& plain) {
    StanzaParser parser(text);
    for (;;) {
        const Item item = parser.next();
        if (item == Item::kEnd || item == Item::kError) {
            REQUIRE(parser.next() == item);
            REQUIRE((parser.error() != nullptr) == (item == Item::kError));
            return item;
        }
        const std::string_view name = parser.name(), value = item == Item::kStanza ? "" : parser.value();
        REQUIRE(!name.empty() && name.data() >= text.data() && name.data() < text.data() + text.size());
        REQUIRE(parser.line() == 1U + std::count(text.data(), name.data(), '\n'));
        requireBare(name);
        requireBare(value);
        if (item == Item::kStanza) {
            plain.append("[").append(name).append("]\n");
        } else {
            REQUIRE(!plain.empty());
            plain.append(name).append("=").append(value).append("\n");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<char> text(data, data + size);  // an allocation that ends where the text does
    std::string plain, again;
    parse({text.data(), text.size()}, plain);
    REQUIRE(parse(plain, again) == Item::kEnd);
    REQUIRE(again == plain);
    return 0;
}
