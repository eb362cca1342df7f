/// What every line of a command file costs before a server is asked, and what every line of a listing costs after.

#include <benchmark/benchmark.h>

#include "admin/cli/commands/StatelessCommands.h"
#include "admin/cli/language/TarnAdminCmdRegistry.h"
#include "admin/cli/show/RecordText.h"
#include "catalogue/QelFailure.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

namespace {

void findCommand(benchmark::State& state) {
    TarnAdminCmdRegistry registry;
    qel_require(registry.registerCmd(createCommand<TarnAdminReplicaSetList>().release()));
    qel_require(registry.registerCmd(createCommand<TarnAdminRealmList>().release()));
    qel_require(registry.registerCmd(createCommand<TarnAdminRealmShow>().release()));
    qel_require(registry.registerCmd(createCommand<TarnAdminSessList>().release()));
    qel_require(registry.registerCmd(createCommand<TarnAdminSessTerminate>().release()));
    TarnAdminCmdTokens words;
    for (auto _ : state) {
        qel_require(words.set("session terminate session 0123456789abcdef -realm east"));
        benchmark::DoNotOptimize(registry.locateCmd(words));
    }
}
BENCHMARK(findCommand);

void showText(benchmark::State& state, const char* text) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(RecordText(text).data());
    }
}
BENCHMARK_CAPTURE(showText, ascii, "0123456789abcdef0123456789abcdef");
BENCHMARK_CAPTURE(showText, accents, "Jos\u00e9 Mart\u00ednez \u674e\u4f1f");
BENCHMARK_CAPTURE(showText, hostile, "\x1b[31mred\x1b[0m\u202e");

void showTime(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(TimeText(1'790'000'000).data());
    }
}
BENCHMARK(showTime);

void showLine(benchmark::State& state) {
    std::FILE* nowhere = std::fopen("/dev/null", "w");
    {
        QelMessageLines lines(nowhere, kMsgSession);
        for (auto _ : state) {
            lines.write({"0123456789abcdef0123456789abcdef", "2026-11-24-09:30:00 UTC", "mallory"});
        }
    }
    std::fclose(nowhere);
}
BENCHMARK(showLine);

}  // namespace
