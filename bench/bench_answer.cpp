/// What reading an answer costs, by the number of sessions in it.

#include <benchmark/benchmark.h>

#include <string>

#include "admin/client/answer/AnswerReader.h"

namespace {

/// As the bytes of a long listing come from a connection.
constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;

std::string listing(std::int64_t sessions) {
    const std::string count = std::to_string(sessions);
    std::string text =
        R"({"jsonrpc":"2.0","id":1,"result":{"total":)" + count + R"(,"count":)" + count + R"(,"sessions":[)";
    for (std::int64_t i = 0; i < sessions; ++i) {
        text += i == 0 ? "" : ",";
        text +=
            R"({"id":"0123456789abcdef0123456789abcdef","user":"user)" + std::to_string(i) + R"(","time":1790000000})";
    }
    return text += "]}}";
}

void parseListing(benchmark::State& state) {
    const std::string text = listing(state.range(0));
    for (auto _ : state) {
        olmdsess::AnswerReader reader(olmdsess::AnswerShape::kSessions, 1);
        for (std::size_t at = 0; at < text.size(); at += kPieceBytes) {
            reader.read(std::string_view(text).substr(at, kPieceBytes));
        }
        reader.finish();  // what it refuses is an exception
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * state.iterations());
}
BENCHMARK(parseListing)->RangeMultiplier(100)->Range(1, 1'000'000)->Unit(benchmark::kMicrosecond);

}  // namespace
