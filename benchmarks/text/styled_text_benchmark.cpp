// Speed of the paragraph content markup: writing and reading a 10,000-character paragraph with 500 style
// runs (bold, italic, colours, superscripts, links, with "&" and "<" in the text), the size of a long
// paragraph of notes. The target is 50 MB/s each way, counted in bytes of markup as QString holds it
// (UTF-16). Each figure is printed beside a floor measured in the same run over the same markup: a deep copy
// of the QString followed by a scan for "<" and "&" (what any reader or writer must at least do), and the
// ratio of our rate to the floor's.
#include "text/NBStyledString.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <random>

namespace {

NBStyledString paragraph() {
    std::mt19937 random(20261121);
    const QString words[] = {"incubate", "the",    "cells",   "at", "37 °C", "for",  "2 h", "&",
                             "<",        "buffer", "α-helix", "µl", "PBS",   "then", "wash"};
    const NBStyleSet styleChoices[] = {
        {},
        {NBStyle::bold()},
        {NBStyle::italic()},
        {NBStyle::bold(), NBStyle::italic()},
        {NBStyle::superscript()},
        {NBStyle::styleForTextColor(NBColor(200, 30, 30))},
        {NBStyle::styleForBackgroundColor(NBColor(255, 255, 0, 128)), NBStyle::underline()},
        {NBStyle::styleForHyperlinkURL("https://example.org/protocols?id=42&v=3")},
    };
    NBMutableStyledString text;
    for (int run = 0; run < 500; ++run) {
        QString piece;
        while (piece.size() < 20)
            piece += words[std::uniform_int_distribution<int>(0, std::size(words) - 1)(random)] + u' ';
        piece.truncate(20);
        // Neighbouring runs differ, so the paragraph keeps 500 runs.
        text.appendString(piece, styleChoices[std::size_t(run % 2 == 0 ? 0 : 1 + run % 7)]);
    }
    return text;
}

// The floor: copy the markup into a new string and find every "<" and "&" in it.
double floorRate(const QString& markup) {
    double best = 0;
    for (int round = 0; round < 5; ++round) {
        const auto started = std::chrono::steady_clock::now();
        for (int repeat = 0; repeat < 200; ++repeat) {
            QString copy(markup.constData(), markup.size());
            qsizetype found = 0;
            for (QChar character : std::as_const(copy))
                found += (character == u'<') | (character == u'&');
            benchmark::DoNotOptimize(found);
            benchmark::DoNotOptimize(copy);
        }
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - started;
        best = std::max(best, 200.0 * double(markup.size()) * 2 / elapsed.count() / 1e6);
    }
    return best;
}

void report(benchmark::State& state, const QString& markup, double seconds) {
    const double rate = double(state.iterations()) * double(markup.size()) * 2 / seconds / 1e6;
    const double floor = floorRate(markup);
    state.counters["MB/s"] = rate;
    state.counters["floor_copy_scan_MB/s"] = floor;
    state.counters["ratio"] = rate / floor;
    state.counters["target_MB/s"] = 50;
    state.counters["markup_bytes"] = double(markup.size()) * 2;
}

void BM_MarkupWrite(benchmark::State& state) {
    const NBStyledString text = paragraph();
    const QString markup = text.markupString();
    const auto started = std::chrono::steady_clock::now();
    for (auto _ : state)
        benchmark::DoNotOptimize(text.markupString());
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - started;
    state.counters["runs"] = double(text.runCount());
    report(state, markup, elapsed.count());
}

void BM_MarkupRead(benchmark::State& state) {
    const QString markup = paragraph().markupString();
    const auto started = std::chrono::steady_clock::now();
    for (auto _ : state)
        benchmark::DoNotOptimize(NBStyledString::styledStringFromMarkupString(markup));
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - started;
    report(state, markup, elapsed.count());
}

} // namespace

BENCHMARK(BM_MarkupWrite)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MarkupRead)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
