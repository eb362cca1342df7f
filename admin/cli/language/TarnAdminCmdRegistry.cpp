#include "admin/cli/language/TarnAdminCmdRegistry.h"

#include <cstdio>
#include <new>

#include "catalogue/QelString.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

TarnAdminCmdRegistry::~TarnAdminCmdRegistry() {
    shutdown();
}

std::uint32_t TarnAdminCmdRegistry::registerCmd(TarnAdminCmd* command) {
    if (!command->hasPattern()) {
        return kStatusNoMemory;  // no line would ever fit it
    }
    auto* node = new (std::nothrow) CmdNode{command, m_head};
    if (node == nullptr) {
        qel_fprintf(stderr, kStatusNoMemory);
        return kStatusNoMemory;
    }
    m_head = node;
    return 0;
}

TarnAdminCmd* TarnAdminCmdRegistry::locateCmd(TarnAdminCmdTokens const& words) const {
    MatchResult best = MatchNone;
    TarnAdminCmd* candidate = nullptr;
    int abbreviated = 0;
    for (const CmdNode* node = m_head; node != nullptr; node = node->next) {
        switch (node->command->matchCmd(words)) {
            case MatchExact:
                return node->command;
            case MatchAbbreviated:
                best = MatchAbbreviated;
                candidate = node->command;
                ++abbreviated;
                break;
            case MatchIncomplete:
                best = best == MatchAbbreviated ? best : MatchIncomplete;
                break;
            case MatchNone:
                break;
        }
    }
    if (abbreviated == 1) {
        return candidate;
    }
    list(words, best);
    return nullptr;
}

void TarnAdminCmdRegistry::list(TarnAdminCmdTokens const& words, MatchResult best) const {
    qel_fprintf(stdout, kMsgListingHeading);
    std::fputs(" ", stdout);
    for (std::int32_t i = 0; i < words.tokens(); ++i) {
        std::printf("%s ", QelString(words[i], QelString::kForDisplay).data());
    }
    std::fputs("\n", stdout);
    qel_fprintf(stdout, best == MatchAbbreviated ? kMsgListingAmbiguous : kMsgListingIncomplete);
    std::fputs("\n", stdout);
    forEach([&](const TarnAdminCmd& command) {
        if (best == MatchNone || command.matchCmd(words) == best) {
            std::printf("    %s\n", command.format());
        }
    });
}

std::uint32_t TarnAdminCmdRegistry::shutdown() {
    while (m_head != nullptr) {
        CmdNode* node = m_head;
        m_head = node->next;
        delete node->command;
        delete node;
    }
    return 0;
}
