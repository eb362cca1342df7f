#include "admin/cli/config/qel_stanza.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "catalogue/qel_messages.h"
#include "catalogue/qel_svc.h"
#include "runtime/QelFileDescriptor.h"

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

constexpr const char* kBlanks = " \t\r";

std::string_view withoutBlanks(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

/// A text without its first and its last byte.
std::string_view withoutEnds(std::string_view text) {
    text.remove_prefix(1);
    text.remove_suffix(1);
    return text;
}

/// Takes the first line off a text, without its line feed.
std::string_view takeLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

}  // namespace

StanzaParser::StanzaParser(std::string_view text) noexcept : m_rest(text) {
    if (m_rest.starts_with(kByteOrderMark)) {
        m_rest.remove_prefix(kByteOrderMark.size());
    }
}

StanzaParser::Item StanzaParser::next() noexcept {
    while (m_error == nullptr && !m_rest.empty()) {
        ++m_line;
        const std::string_view whole = takeLine(m_rest);
        if (whole.find('\0') != std::string_view::npos) {
            return fail("it contains a NUL byte");
        }
        const std::string_view line = withoutBlanks(whole);
        if (line.empty() || line.front() == '#' || line.front() == ';') {
            continue;
        }
        const bool isStanza = line.front() == '[';
        if (isStanza && line.back() != ']') {
            return fail("a stanza name ends in ]");
        }
        if (!isStanza && !m_inStanza) {
            return fail("an entry stands before the first stanza");
        }
        const std::size_t equals = isStanza ? std::string_view::npos : line.find('=');
        m_name = withoutBlanks(isStanza ? withoutEnds(line) : line.substr(0, equals));
        m_value = equals == std::string_view::npos ? std::string_view() : withoutBlanks(line.substr(equals + 1));
        if (m_name.empty()) {
            return fail("the name is missing");
        }
        m_inStanza = true;
        return isStanza ? Item::kStanza : Item::kEntry;
    }
    return m_error == nullptr ? Item::kEnd : Item::kError;
}

StanzaParser::Item StanzaParser::fail(const char* error) noexcept {
    m_error = error;
    return Item::kError;
}

struct qelStanzaFile {
    struct Entry {
        std::string_view stanza;
        const char* name;
        const char* value;
    };

    const Entry* current() const { return position < entries.size() ? &entries[position] : nullptr; }

    /// Moves from `from` on to the first entry of the stanza `wanted`.
    void seek(std::size_t from) {
        position = from;
        while (position < entries.size() && entries[position].stanza != wanted) {
            ++position;
        }
    }

    std::string path;
    std::string text;
    std::vector<std::string_view> stanzas;
    std::vector<Entry> entries;
    std::string_view wanted;
    std::size_t position = std::string::npos;
};

namespace {

template <class... Inserts>
std::uint32_t failure(std::uint32_t status, int line, const char* insertFormat, std::uint32_t message,
                      Inserts... inserts) {
    qel_svc_printf_withfile(QelSvcHandle::kDeployment, __FILE__, line, insertFormat, kSvcConfiguration, kSvcErrorExit,
                            message, inserts...);
    return status;
}

std::uint32_t readAll(const char* path, std::string& text) {
    // Without O_NONBLOCK the opening of a FIFO would wait for a writer that may never come.
    const QelFileDescriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!file.isOpen() || fcntl(file.get(), F_SETFL, 0) != 0) {
        return failure(kStatusFileOpen, __LINE__, "%s%d", kMsgFileOpen, path, errno);
    }
    std::array<char, 8192> block;
    for (;;) {
        const ssize_t length = read(file.get(), block.data(), block.size());
        if (length > 0) {
            text.append(block.data(), static_cast<std::size_t>(length));
        } else if (length == 0) {
            return 0;
        } else if (errno != EINTR) {
            return failure(kStatusFileRead, __LINE__, "%s%d", kMsgFileRead, path, errno);
        }
    }
}

/// Ends a piece of the file's text with a NUL, in place. The byte behind the piece is a blank, `=`, `]`, a line end or
/// the text's own NUL, and the parser does not look at it again.
const char* terminated(std::string& text, std::string_view piece) {
    if (piece.empty()) {
        return "";
    }
    char* begin = text.data() + (piece.data() - text.data());
    begin[piece.size()] = '\0';
    return begin;
}

std::uint32_t parse(qelStanzaFile& file) {
    StanzaParser parser(file.text);
    for (;;) {
        switch (parser.next()) {
            case StanzaParser::Item::kStanza:
                file.stanzas.push_back(parser.name());
                break;
            case StanzaParser::Item::kEntry: {
                const char* name = terminated(file.text, parser.name());
                const char* value = terminated(file.text, parser.value());
                file.entries.push_back({file.stanzas.back(), name, value});
                break;
            }
            case StanzaParser::Item::kEnd:
                return 0;
            case StanzaParser::Item::kError:
                return failure(kStatusFileSyntax, __LINE__, "%s%d%s", kMsgFileSyntax, file.path.c_str(),
                               static_cast<int>(parser.line()), parser.error());
        }
    }
}

}  // namespace

qelStanzaFile* qelStzFileOpen(const char* path, std::uint32_t* status) noexcept {
    try {
        auto file = std::make_unique<qelStanzaFile>();
        file->path = path;
        *status = readAll(path, file->text);
        if (*status == 0) {
            *status = parse(*file);
        }
        return *status == 0 ? file.release() : nullptr;
    } catch (const std::bad_alloc&) {
        *status = kStatusNoMemory;
        return nullptr;
    }
}

std::uint32_t qelStzMoveStanza(qelStanzaFile* file, const char* stanza) noexcept {
    const auto found = std::find(file->stanzas.begin(), file->stanzas.end(), stanza);
    if (found == file->stanzas.end()) {
        file->position = std::string::npos;
        return kStatusEntryMissing;
    }
    file->wanted = *found;
    file->seek(0);
    return 0;
}

std::uint32_t qelStzMoveNextEntry(qelStanzaFile* file) noexcept {
    if (file->current() != nullptr) {
        file->seek(file->position + 1);
    }
    return file->current() == nullptr ? kStatusEntryMissing : 0;
}

const char* qelStzEntryName(const qelStanzaFile* file) noexcept {
    const qelStanzaFile::Entry* entry = file->current();
    return entry == nullptr ? nullptr : entry->name;
}

const char* qelStzEntryValue(const qelStanzaFile* file) noexcept {
    const qelStanzaFile::Entry* entry = file->current();
    return entry == nullptr ? nullptr : entry->value;
}

const char* qelStzFileName(const qelStanzaFile* file) noexcept {
    return file->path.c_str();
}

void qelStzFileClose(qelStanzaFile* file) noexcept {
    delete file;
}
