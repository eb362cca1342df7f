#include "admin/cli/language/TarnAdminCompletion.h"

#include <algorithm>
#include <cassert>
#include <cwchar>

#include "catalogue/QelString.h"
#include "runtime/SecretBuffer.h"

namespace {

constexpr char kBlanks[] = " \t";

struct Candidates {
    std::vector<std::string> words;   // can be inserted
    std::vector<std::string> others;  // can only be shown
};

void addOnce(std::vector<std::string>& list, std::string_view text) {
    if (std::find(list.begin(), list.end(), text) == list.end()) {
        list.emplace_back(text);
    }
}

/// Whether a value can be inserted: it is one word, and typed as it is shown it would be read as that value again.
bool canBeTyped(const QelString& shown, std::string_view value) {
    return value.find_first_of(kBlanks) == std::string_view::npos &&
           QelString(shown.view(), QelString::kFromLocale).view() == value;
}

void addValues(const std::vector<std::string>& values, std::string_view word, Candidates& found) {
    for (const std::string& value : values) {
        const QelString shown(value, QelString::kForDisplay);
        if (shown.view().starts_with(word)) {
            addOnce(canBeTyped(shown, value) ? found.words : found.others, shown.view());
        }
    }
}

void addContinuation(const Continuation& next, std::string_view word, Candidates& found) {
    if (next.keyword.empty() || (next.isOptional && word.empty())) {
        addOnce(found.others, next.shown);
    } else if (next.keyword.starts_with(word)) {
        addOnce(found.words, next.keyword);
    }
}

/// What all the words have in common behind their first `length` bytes, in whole characters. There is at least one
/// word.
std::string_view commonRest(const std::vector<std::string>& words, std::size_t length) {
    assert(!words.empty());
    std::string_view common = words.front();
    for (const std::string& word : words) {
        const auto end = std::mismatch(common.begin(), common.end(), word.begin(), word.end()).first;
        common = common.substr(0, static_cast<std::size_t>(end - common.begin()));
    }
    common.remove_prefix(length);
    std::size_t whole = 0;
    std::mbstate_t state{};
    while (whole < common.size()) {
        const std::size_t next = std::mbrlen(common.data() + whole, common.size() - whole, &state);
        if (next > common.size()) {
            break;  // part of a character
        }
        whole += next;
    }
    return common.substr(0, whole);
}

}  // namespace

TarnAdminCompletion completeLine(const TarnAdminCmdRegistry& commands, std::string_view before,
                                 const KnownValues& valuesOf) {
    const std::string_view word = before.substr(before.find_last_of(kBlanks) + 1);
    const SecretText head(before.substr(0, before.size() - word.size()));
    TarnAdminCmdTokens words;
    if (words.set(head.c_str()) != 0) {
        return {};
    }
    Candidates found;
    commands.forEach([&](const TarnAdminCmd& command) {
        if (words.tokens() == 0 && word.empty()) {
            found.others.emplace_back(command.format());
            return;
        }
        const Continuation next = command.continuation(words);
        const std::vector<std::string> values =
            next.shown.empty() || !next.keyword.empty() ? std::vector<std::string>() : valuesOf(next.shown);
        if (!values.empty()) {
            addValues(values, word, found);
        } else if (!next.shown.empty()) {
            addContinuation(next, word, found);
        }
    });
    TarnAdminCompletion completion;
    if (found.others.empty() && !found.words.empty()) {
        completion.insertion = commonRest(found.words, word.size());
        if (found.words.size() == 1) {
            completion.insertion += ' ';
        }
    }
    if (completion.insertion.empty()) {
        completion.choices = std::move(found.words);
        completion.choices.insert(completion.choices.end(), found.others.begin(), found.others.end());
    }
    return completion;
}
