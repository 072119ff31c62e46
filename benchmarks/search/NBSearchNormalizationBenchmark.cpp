// Speed of search text normalisation: the search form and the tokens with their ranges, over about 10 MB
// (counted as UTF-8 bytes) of generated laboratory text in paragraphs, as an index rebuild sees it. Each
// figure is printed beside two floors measured in the same run over the same paragraphs: QString::toLower
// (Qt's own per-character case mapping, which allocates a result per paragraph as we do) and a memcpy of
// the paragraphs' UTF-16 units. "ratio" is our speed divided by the toLower floor.
// Highlighting is measured on one long DNA sequence against one normalisation of it.
#include "search/NBSearchNormalization.h"

#include <benchmark/benchmark.h>

#include <QStringList>

#include <cstring>
#include <ctime>
#include <random>
#include <vector>

namespace {

// Paragraphs of mixed text: English lab prose, accented names, Greek letters, units, numbers and chemical
// formulas, with the punctuation that such notes carry. Fixed seed, so every run sees the same text. The
// second corpus turns one word in ten into one with characters beyond the Basic Multilingual Plane (emoji,
// mathematical letters, rarer ideographs), as notes pasted from chat or typeset papers carry.
struct Corpus {
    QStringList paragraphs;
    qint64 utf8Bytes = 0;
};

Corpus generateCorpus(bool beyondBasicPlane) {
    const QStringList english = QString("the cells were incubated for overnight at with buffer washed "
                                        "twice in PBS and centrifuged pellet "
                                        "resuspended protein expression was induced by IPTG samples "
                                        "analysed on SDS-PAGE gel Western blot "
                                        "antibody dilution primary secondary plasmid transformed into E. "
                                        "coli competent colonies picked "
                                        "from plate ampicillin culture OD600 measured supernatant "
                                        "discarded lysis sonicated ice minutes "
                                        "hours Note: (see protocol) results showed significant increase "
                                        "compared to the control group "
                                        "then added mixed gently stored aliquots sequencing primers PCR "
                                        "reaction template elution column")
                                    .split(' ');
    const QStringList names = QString("Müller Søren Dvořák Łukasiewicz Ødegaard François José Gödel Ångström "
                                      "naïve café résumé Straße Zürich Kraków señal Æsop Œuvre")
                                  .split(' ');
    const QStringList greek =
        QString("α-helix β-sheet TNF-α IFN-γ Δ5 NF-κB σ-factor λ-phage ΔCt Ω π-stacking ε µ-opioid")
            .split(' ');
    const QStringList units = QString("µL μL mL °C mM nM µg/mL ng/µL ×g rpm kDa bp % ± h min s").split(' ');
    const QStringList chemistry = QString("NaCl MgCl₂ H₂O CO2 Tris-HCl pH=7.4 [Ca2+] C6H12O6 H2SO4 NH4+ EDTA "
                                          "DMSO ﬁnal ﬂow １２３ ＲＮＡ 5′-UTR “quoted” 1:1000")
                                      .split(' ');
    // Words with characters beyond the Basic Multilingual Plane. They are separate literals because the
    // formatter measures such characters differently on each pass and would keep re-wrapping one long one.
    const QStringList supplementary = {
        QStringLiteral("🧪"),  QStringLiteral("😀"),    QStringLiteral("👍"),       QStringLiteral("𝛼-helix"),
        QStringLiteral("𝑥²"),    QStringLiteral("𝐍𝐚𝐂𝐥"), QStringLiteral("𝔼[X]"),    QStringLiteral("𠀀𠀁"),
        QStringLiteral("𩸽"),    QStringLiteral("𐐀𐐨"),   QStringLiteral("🔬sample"), QStringLiteral("✅done"),
        QStringLiteral("📌note"),
    };
    const QStringList punctuation = {" ", " ", " ", " ", " ", ", ", ". ", "; ", " – ", " (", ") "};
    std::mt19937 random(20261121);
    const auto pick = [&random](const QStringList& list) {
        return list[std::uniform_int_distribution<qsizetype>(0, list.size() - 1)(random)];
    };
    Corpus built;
    while (built.utf8Bytes < 10'000'000) {
        QString paragraph;
        const int wordCount = std::uniform_int_distribution<int>(40, 120)(random);
        for (int word = 0; word < wordCount; ++word) {
            const int kind = std::uniform_int_distribution<int>(0, 99)(random);
            if (kind < 60)
                paragraph += pick(english);
            else if (kind < 70)
                paragraph += QString::number(std::uniform_int_distribution<int>(0, 5000)(random) / 10.0);
            else if (kind < 80)
                paragraph += pick(units);
            else if (kind < 87)
                paragraph += pick(names);
            else if (kind < 94)
                paragraph += pick(greek);
            else if (beyondBasicPlane && kind >= 90)
                paragraph += pick(supplementary);
            else
                paragraph += pick(chemistry);
            paragraph += pick(punctuation);
        }
        built.utf8Bytes += paragraph.toUtf8().size();
        built.paragraphs.append(paragraph);
    }
    return built;
}

const Corpus& corpus(bool beyondBasicPlane = false) {
    if (beyondBasicPlane) {
        static const Corpus beyond = generateCorpus(true);
        return beyond;
    }
    static const Corpus basic = generateCorpus(false);
    return basic;
}

// Timing uses the CPU time of the benchmark's own thread: the figure is the speed on one core, and stays
// meaningful on a machine shared with other work (a wall clock would count the time the thread waited).
double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// Runs `pass` (one pass over all paragraphs) and returns its speed in MB (10^6 UTF-8 bytes) per second,
// taking the best of three passes.
template <typename Pass> double megabytesPerSecond(const Corpus& text, Pass&& pass) {
    double best = 0;
    for (int round = 0; round < 3; ++round) {
        const double start = threadSeconds();
        pass();
        const double seconds = threadSeconds() - start;
        best = std::max(best, double(text.utf8Bytes) / 1e6 / seconds);
    }
    return best;
}

void reportAgainstFloors(benchmark::State& state, const Corpus& text, double ourSpeed) {
    const double toLowerSpeed = megabytesPerSecond(text, [&] {
        for (const QString& paragraph : text.paragraphs)
            benchmark::DoNotOptimize(paragraph.toLower());
    });
    std::vector<char16_t> buffer(4096);
    const double memcpySpeed = megabytesPerSecond(text, [&] {
        for (const QString& paragraph : text.paragraphs) {
            buffer.resize(std::max<std::size_t>(buffer.size(), std::size_t(paragraph.size())));
            std::memcpy(buffer.data(), paragraph.utf16(), std::size_t(paragraph.size()) * sizeof(char16_t));
            benchmark::DoNotOptimize(buffer.data());
            benchmark::ClobberMemory();
        }
    });
    state.counters["MB/s"] = ourSpeed;
    state.counters["toLower_MB/s"] = toLowerSpeed;
    state.counters["memcpy_MB/s"] = memcpySpeed;
    state.counters["ratio"] = ourSpeed / toLowerSpeed;
    state.SetBytesProcessed(state.iterations() * text.utf8Bytes);
}

void BM_NormalizedStringForSearch(benchmark::State& state) {
    const Corpus& text = corpus(state.range(0) != 0);
    const auto pass = [&] {
        for (const QString& paragraph : text.paragraphs)
            benchmark::DoNotOptimize(normalizedStringForSearch(paragraph));
    };
    pass(); // Builds the fixed data and the folding tables of the scripts in the text.
    double best = 0;
    for (auto _ : state) {
        const double start = threadSeconds();
        pass();
        best = std::max(best, double(text.utf8Bytes) / 1e6 / (threadSeconds() - start));
    }
    reportAgainstFloors(state, text, best);
}

void BM_AddNormalizedSearchTokens(benchmark::State& state) {
    const Corpus& text = corpus();
    QStringList tokens;
    QList<NBTextRange> ranges;
    const auto pass = [&] {
        for (const QString& paragraph : text.paragraphs) {
            tokens.clear();
            ranges.clear();
            addNormalizedSearchTokens(paragraph, tokens, ranges);
            benchmark::DoNotOptimize(tokens.data());
        }
    };
    pass();
    double best = 0;
    for (auto _ : state) {
        const double start = threadSeconds();
        pass();
        best = std::max(best, double(text.utf8Bytes) / 1e6 / (threadSeconds() - start));
    }
    reportAgainstFloors(state, text, best);
}

// Highlighting a hit in a 100,000-letter DNA sequence (one "word" of a notebook's sequence paragraph), with a
// 20-letter query token from its start. The floor is one normalisation of the same paragraph, the least that
// finding the hit's word costs.
void BM_HighlightInLongSequence(benchmark::State& state) {
    std::mt19937 random(20261122);
    QString sequence;
    for (qint64 index = 0; index < state.range(0); ++index)
        sequence += QChar("ACGT"[std::uniform_int_distribution<int>(0, 3)(random)]);
    const QString paragraph = "Insert: " + sequence + " (forward strand)";
    const QStringList query = {sequence.left(20).toLower()};
    double seconds = 0;
    for (auto _ : state) {
        const double start = threadSeconds();
        const QList<NBTextRange> ranges = rangesForSearchTokens(paragraph, query);
        seconds += threadSeconds() - start;
        if (ranges != QList<NBTextRange>{NBTextRange{8, 20}})
            state.SkipWithError("the hit was not narrowed to the query's 20 letters");
    }
    double floorSeconds = 0;
    for (int round = 0; round < int(state.iterations()); ++round) {
        const double start = threadSeconds();
        benchmark::DoNotOptimize(normalizedStringForSearch(paragraph));
        floorSeconds += threadSeconds() - start;
    }
    state.counters["ms"] = seconds * 1e3 / double(state.iterations());
    state.counters["normalize_ms"] = floorSeconds * 1e3 / double(state.iterations());
    state.counters["ratio"] = seconds / floorSeconds;
}

} // namespace

BENCHMARK(BM_HighlightInLongSequence)->Arg(100'000)->Unit(benchmark::kMillisecond)->Iterations(20);
// Argument 1: the corpus with characters beyond the Basic Multilingual Plane.
BENCHMARK(BM_NormalizedStringForSearch)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_AddNormalizedSearchTokens)->Unit(benchmark::kMillisecond)->Iterations(5);

BENCHMARK_MAIN();
