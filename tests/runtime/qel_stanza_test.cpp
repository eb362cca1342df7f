#include "runtime/qel_stanza.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>

#include "Support.h"
#include "runtime/qel_messages.h"

using namespace std::string_view_literals;

namespace {

/// What a text parses to, each item with its line: "1[stanza] 2(name=value) " and, for a malformed one, "3!error".
std::string parse(std::string_view text) {
    StanzaParser parser(text);
    std::string seen;
    for (;;) {
        const StanzaParser::Item item = parser.next();
        const std::string name(parser.name());
        const std::string line = std::to_string(parser.line());
        if (item == StanzaParser::Item::kStanza) {
            seen.append(line).append("[").append(name).append("] ");
        } else if (item == StanzaParser::Item::kEntry) {
            seen.append(line).append("(").append(name).append("=").append(parser.value()).append(") ");
        } else {
            EXPECT_EQ(parser.next(), item);
            return item == StanzaParser::Item::kEnd ? seen : seen + line + "!" + parser.error();
        }
    }
}

TEST(StanzaParser, GivesStanzasAndEntriesWithTheirLines) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"", ""},
        {"\n \t\n# a\n  ; b = c", ""},
        {"[a]", "1[a] "},
        {"\xEF\xBB\xBF[a]\r\nk=v\r\n", "1[a] 2(k=v) "},
        {" [ a b ]\t\n\n\tk \t=  v w \t\n", "1[a b] 3(k=v w) "},
        {"[a]\nk\nk=\nk = a = b # ; c\n", "1[a] 2(k=) 3(k=) 4(k=a = b # ; c) "},
        {"[a]\n]=[\n[[b]]\n[#]\n", "1[a] 2(]=[) 3[[b]] 4[#] "},
        {"[a]\nk=\xEF\xBB\xBF\x1B\xFF\r\r\n[a]", "1[a] 2(k=\xEF\xBB\xBF\x1B\xFF) 3[a] "},
        // Malformed
        {"# a\r\nk=v", "2!an entry stands before the first stanza"},
        {"[a]\n[", "1[a] 2!a stanza name ends in ]"},
        {"[a] # b\nk=v", "1!a stanza name ends in ]"},
        {"[a]\n\n[ \t]", "1[a] 3!the name is missing"},
        {"[a]\nk=1\n = v\nk=2", "1[a] 2(k=1) 3!the name is missing"},
        {"[a]\nk=v\0\n"sv, "1[a] 2!it contains a NUL byte"},
        {"[a]\n\n#\0"sv, "1[a] 3!it contains a NUL byte"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(parse(text), expected) << text;
    }
    const std::string longText(1 << 20, 'x');
    EXPECT_EQ(parse("[a]\n" + longText + "=" + longText), "1[a] 2(" + longText + "=" + longText + ") ");
}

using FileOwner = std::unique_ptr<qelStanzaFile, decltype(&qelStzFileClose)>;

struct StanzaFile : testing::Test {
    StanzaFile() { setenv("QEL_SVC_LOG", log.c_str(), 1); }

    static FileOwner open(const std::string& name, std::uint32_t expected) {
        std::uint32_t status = 1;
        FileOwner file(qelStzFileOpen(name.c_str(), &status), qelStzFileClose);
        EXPECT_EQ(status, expected);
        EXPECT_EQ(file == nullptr, expected != 0);
        return file;
    }

    TempFolder folder;
    std::string path = folder / "file";
    std::string log = folder / "log";
};

std::string walk(qelStanzaFile* file, const char* stanza) {
    std::string seen;
    for (std::uint32_t status = qelStzMoveStanza(file, stanza); status == 0 && qelStzEntryName(file) != nullptr;
         status = qelStzMoveNextEntry(file)) {
        seen += std::string(qelStzEntryName(file)) + "=" + qelStzEntryValue(file) + " ";
    }
    EXPECT_EQ(qelStzEntryName(file), nullptr);
    EXPECT_EQ(qelStzEntryValue(file), nullptr);
    EXPECT_NE(qelStzMoveNextEntry(file), 0U);
    return seen;
}

TEST_F(StanzaFile, WalksAStanzaAndItsContinuationsInFileOrder) {
    writeFile(path, "[a]\nk= 1 \nk\n[b]\n[c]\nx=9\n[a]\n[c]\ny=8\n[a]\nj=2\nk=3");
    const auto file = open(path, 0);
    EXPECT_EQ(qelStzEntryName(file.get()), nullptr);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(walk(file.get(), "a"), "k=1 k= j=2 k=3 ");
        EXPECT_EQ(walk(file.get(), "c"), "x=9 y=8 ");
        EXPECT_EQ(walk(file.get(), "b"), "");
        EXPECT_EQ(qelStzMoveStanza(file.get(), "b"), 0U);
        for (const char* absent : {"A", "", "ab"}) {
            EXPECT_EQ(qelStzMoveStanza(file.get(), "a"), 0U);
            EXPECT_NE(qelStzMoveStanza(file.get(), absent), 0U);
            EXPECT_EQ(walk(file.get(), absent), "");
        }
    }
    EXPECT_EQ(qelStzFileName(file.get()), path);
    EXPECT_EQ(readFile(log), "");
}

TEST_F(StanzaFile, SaysWhyAFileIsRefused) {
    open(path, kStatusFileOpen);
    EXPECT_TRUE(readFile(log).ends_with(" The file " + path + " cannot be opened: No such file or directory (2).\n"));
    open(folder / "", kStatusFileRead);
    EXPECT_TRUE(readFile(log).ends_with(" cannot be read: Is a directory (21).\n"));
    writeFile(path, "[a]\n\nk=v\n[b\n");
    open(path, kStatusFileSyntax);
    EXPECT_TRUE(readFile(log).ends_with(" is malformed at line 4: a stanza name ends in ].\n"));
}

TEST_F(StanzaFile, DoesNotWaitForTheWriterOfAFifo) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(walk(open(path, 0).get(), "a"), "");
}

TEST_F(StanzaFile, IsRefusedWhenMemoryIsExhausted) {
    writeFile(path, "[a]\nk=v\n[b]\nk=v\n");
    int granted = 0;
    for (std::uint32_t status = kStatusNoMemory; status != 0; ++granted) {
        const FailingNew noMemory(granted);
        qelStanzaFile* file = qelStzFileOpen(path.c_str(), &status);
        qelStzFileClose(file);
        ASSERT_EQ(file == nullptr, status != 0);
        ASSERT_TRUE(status == 0 || status == kStatusNoMemory) << granted;
    }
    EXPECT_GT(granted, 4);
}

}  // namespace
