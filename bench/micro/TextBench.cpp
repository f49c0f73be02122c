// In-process costs of the text rules: script normalisation, placeholder substitution and transcript marking.
#include "ScriptText_p.h"

#include <Telvane/TelvaneTranscript.h>

#include <benchmark/benchmark.h>

#include <string>

namespace {

// A diagnostics script of roughly @p lines lines: commands, comment lines, trailing comments, blank runs
// and placeholders, in the proportions such scripts have.
std::string sampleScript(int lines)
{
    std::string text = "#!/bin/sh\n";
    for (int i = 0; i < lines; ++i) {
        switch (i % 6) {
        case 0:
            text += "# check step " + std::to_string(i) + "\n";
            break;
        case 1:
            text += "echo \"step " + std::to_string(i) + " on __HOST__ as __USER__\"\n";
            break;
        case 2:
            text += "\n\n";
            break;
        case 3:
            text += "uptime; df -h / | tail -n 1  # the root file system\n";
            break;
        case 4:
            text += "echo '__PASSWORD__' | sudo -S -k true 2>/dev/null && echo *sudo ok*\n";
            break;
        default:
            text += "cat /proc/loadavg\n";
            break;
        }
    }
    return text;
}

void BM_NormaliseScript(benchmark::State &state)
{
    const std::string script = sampleScript(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(telvane::normaliseScript(script, "pa#ss word"));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(script.size()));
}
BENCHMARK(BM_NormaliseScript)->Arg(60)->Arg(6000);

void BM_SubstitutePlaceholders(benchmark::State &state)
{
    const std::string script = sampleScript(static_cast<int>(state.range(0)));
    const TelvaneArguments arguments{
        {"HOST", "sensor-07.example"}, {"USER", "operator"}, {"PORT", "22"}, {"UNUSED", "nothing"}};
    for (auto _ : state)
        benchmark::DoNotOptimize(telvane::substitutePlaceholders(script, arguments));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(script.size()));
}
BENCHMARK(BM_SubstitutePlaceholders)->Arg(60)->Arg(6000);

// The transcript arrives in pipe-sized pieces; a 1 MiB piece is the worst case a reader hands over.
void BM_MarkTranscriptPiece(benchmark::State &state)
{
    std::string piece;
    const bool marked = state.range(0) != 0;
    while (piece.size() < (1u << 20))
        piece += marked && piece.size() % 4096 == 0 ? "disk check: *failed* on /dev/sda1\n"
                                                    : "load 0.42 0.40 0.38, 3 users, all services up\n";
    piece.resize(1u << 20);
    for (auto _ : state)
        benchmark::DoNotOptimize(telvaneMarkTranscriptPiece(piece));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(piece.size()));
}
BENCHMARK(BM_MarkTranscriptPiece)->Arg(0)->Arg(1)->ArgName("marked");

} // namespace

BENCHMARK_MAIN();
