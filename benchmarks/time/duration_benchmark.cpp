// Speed of duration detection over 100,000 typical step texts (centrifugation, incubation, PCR, gels,
// washes; about a third without any duration), as the editor's timer control and a scan of a whole library
// would see them. The target is 200,000 texts a second on one core. The figure is printed beside two floors
// measured in the same run over the same texts: QString::toLower (one allocating pass per text, the least
// any text preparation costs) and one ICU regular-expression search per text (a single pattern of the
// detector's table, "(\d+)\s*mins?", with a reused matcher). "ratio" is our rate divided by the floor's.
// Rates count the benchmark thread's processor time, so that the other programs of a busy machine do not
// lower them.
#include "time/NBTimeDetector.h"

#include <benchmark/benchmark.h>

#include <QStringList>

#include <unicode/regex.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <random>

namespace {

// Time this thread has run, so that other programs busy on the machine do not count against a figure.
double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

const QStringList& stepTexts() {
    static const QStringList texts = [] {
        const QStringList actions = {
            QStringLiteral("Centrifuge the samples at 13,000 x g"),
            QStringLiteral("Spin down at 4 °C"),
            QStringLiteral("Incubate at 37 °C with gentle shaking"),
            QStringLiteral("Denature at 95 °C"),
            QStringLiteral("Run the gel at 120 V"),
            QStringLiteral("Wash the membrane in TBST"),
            QStringLiteral("Block in 5% milk"),
            QStringLiteral("Anneal primers at 58 °C"),
            QStringLiteral("Digest with EcoRI"),
            QStringLiteral("Überstand verwerfen und zentrifugieren"),
            QStringLiteral("Lyse cells on ice (vortex every 5 min)"),
            QStringLiteral("Elute in 50 µl water"),
        };
        const QStringList durations = {
            QStringLiteral("for 10 min"),  QStringLiteral("1 h 30 min"), QStringLiteral("5:30"),
            QStringLiteral("30 s"),        QStringLiteral("2 x 5 min"),  QStringLiteral("for two hours"),
            QStringLiteral("o/n"),         QStringLiteral("3 hrs"),      QStringLiteral("45 sec"),
            QStringLiteral("00:15:00"),    QStringLiteral("overnight"),  QStringLiteral("90 seconds"),
            QStringLiteral("5'"),          QStringLiteral("1 hour"),     QStringLiteral(""),
            QStringLiteral("until clear"), QStringLiteral("20 minutes"), QStringLiteral(""),
        };
        const QStringList endings = {QString(), QStringLiteral("."),
                                     QStringLiteral(", then discard the supernatant."),
                                     QStringLiteral(" and keep on ice."), QStringLiteral(" (see notes)")};
        std::mt19937 random(20261121);
        const auto pick = [&random](const QStringList& list) {
            return list[std::uniform_int_distribution<qsizetype>(0, list.size() - 1)(random)];
        };
        QStringList built;
        built.reserve(100'000);
        for (int index = 0; index < 100'000; ++index)
            built.append(pick(actions) + QLatin1Char(' ') + pick(durations) + pick(endings));
        return built;
    }();
    return texts;
}

void BM_FirstMatchForDurationInString(benchmark::State& state) {
    const QStringList& texts = stepTexts();
    // One detection outside the timing builds the pattern table and this thread's matchers.
    benchmark::DoNotOptimize(NBTimeDetector::firstMatchForDurationInString(texts.front()));

    // The floors, measured in this same run over the same texts.
    const auto measure = [&texts](auto&& perText) {
        const double started = threadCpuSeconds();
        for (const QString& text : texts)
            perText(text);
        return static_cast<double>(texts.size()) / (threadCpuSeconds() - started);
    };
    double toLowerRate = 0;
    for (int round = 0; round < 3; ++round)
        toLowerRate = std::max(
            toLowerRate, measure([](const QString& text) { benchmark::DoNotOptimize(text.toLower()); }));
    UErrorCode status = U_ZERO_ERROR;
    UParseError parseError{};
    std::unique_ptr<icu::RegexPattern> pattern(icu::RegexPattern::compile(
        icu::UnicodeString(u"(\\d+)\\s*mins?"), UREGEX_CASE_INSENSITIVE, parseError, status));
    std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(status));
    double regexRate = 0;
    for (int round = 0; round < 3; ++round) {
        regexRate = std::max(regexRate, measure([&matcher, &status](const QString& text) {
                                 const icu::UnicodeString input(
                                     false, reinterpret_cast<const char16_t*>(text.constData()),
                                     static_cast<int32_t>(text.size()));
                                 matcher->reset(input);
                                 benchmark::DoNotOptimize(matcher->find(status));
                             }));
    }

    qint64 found = 0;
    const double started = threadCpuSeconds();
    for (auto _ : state) {
        for (const QString& text : texts)
            found += NBTimeDetector::firstMatchForDurationInString(text).has_value() ? 1 : 0;
    }
    const double rate =
        static_cast<double>(state.iterations()) * texts.size() / (threadCpuSeconds() - started);
    state.counters["texts/s"] = rate;
    state.counters["floor_toLower_texts/s"] = toLowerRate;
    state.counters["ratio_toLower"] = rate / toLowerRate;
    state.counters["floor_1regex_texts/s"] = regexRate;
    state.counters["ratio_1regex"] = rate / regexRate;
    state.counters["target_texts/s"] = 200'000;
    state.counters["with_duration_%"] =
        100.0 * static_cast<double>(found) / (static_cast<double>(state.iterations()) * texts.size());
}

} // namespace

BENCHMARK(BM_FirstMatchForDurationInString)->Unit(benchmark::kMillisecond)->Iterations(3);

BENCHMARK_MAIN();
