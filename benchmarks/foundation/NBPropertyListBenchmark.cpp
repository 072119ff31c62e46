// Speed of the property-list codecs on the values a store writes into its logs: one paragraph (a small
// dictionary with styled-text markup, a few numbers and a date) and a 1 MB data blob. Each figure is printed
// beside floors measured in the same run: copying the encoded bytes (memcpy into a new QByteArray), and for
// decoding the paragraph, building the same QVariantMap by hand. "ratio" is the codec's time over the copy.
// All figures are CPU time of the benchmark thread (codec_ns, *_floor_ns).
#include "foundation/NBPropertyList.h"

#include <QDateTime>

#include <benchmark/benchmark.h>

#include <cstring>
#include <ctime>

namespace {

// CPU time of this thread, in nanoseconds: the figures and their floors are measured in CPU time so that
// their ratio holds on a machine shared with other work.
double threadNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e9 + double(now.tv_nsec);
}

// Average CPU nanoseconds per call of `work`, run for at least 100 ms of CPU time.
template <typename Work> double nanosecondsPerCall(Work&& work) {
    qint64 calls = 0;
    const double start = threadNanoseconds();
    double elapsed = 0;
    do {
        for (int index = 0; index < 16; ++index)
            work();
        calls += 16;
        elapsed = threadNanoseconds() - start;
    } while (elapsed < 1e8);
    return elapsed / double(calls);
}

QVariantMap paragraph() {
    const QString content = QStringLiteral(
        "Incubate the <b>lysate</b> at <i>37 °C</i> for 1 h 30 min, then spin at 13 000 g for 10 min. Keep "
        "the supernatant on ice; <u>discard</u> the pellet. See <a href=\"protocol:42\">wash buffer</a>. ");
    return QVariantMap{
        {QStringLiteral("type"), QStringLiteral("step")},
        {QStringLiteral("content"), content},
        {QStringLiteral("indentationLevel"), qint64(1)},
        {QStringLiteral("headerLevel"), qint64(0)},
        {QStringLiteral("number"), qint64(7)},
        {QStringLiteral("timerDuration"), 5400.0},
        {QStringLiteral("done"), false},
        {QStringLiteral("modified"), QDateTime(QDate(2026, 11, 21), QTime(14, 3, 27, 512), Qt::UTC)},
    };
}

QByteArray blob() {
    QByteArray data(1 << 20, Qt::Uninitialized);
    for (qsizetype index = 0; index < data.size(); ++index)
        data[index] = char((index * 131) ^ (index >> 8));
    return data;
}

// The floor of every figure: copying the encoded bytes into a new QByteArray.
double copyFloor(const QByteArray& encoded) {
    return nanosecondsPerCall([&] {
        QByteArray copy(encoded.size(), Qt::Uninitialized);
        std::memcpy(copy.data(), encoded.constData(), std::size_t(encoded.size()));
        benchmark::DoNotOptimize(copy.data());
    });
}

template <typename Work> void measure(benchmark::State& state, const QByteArray& encoded, Work&& work) {
    const double floor = copyFloor(encoded);
    const double start = threadNanoseconds();
    for (auto _ : state)
        work();
    const double perCall = (threadNanoseconds() - start) / double(state.iterations());
    state.counters["codec_ns"] = perCall;
    state.counters["copy_floor_ns"] = floor;
    state.counters["ratio"] = perCall / floor;
    state.counters["encoded_bytes"] = double(encoded.size());
    state.SetBytesProcessed(qint64(state.iterations()) * encoded.size());
}

void encode(benchmark::State& state, const QVariant& value, NBPropertyListFormat format) {
    const QByteArray encoded = *dataWithPropertyList(value, format);
    measure(state, encoded, [&] {
        std::optional<QByteArray> data = dataWithPropertyList(value, format);
        benchmark::DoNotOptimize(data);
    });
}

void decode(benchmark::State& state, const QVariant& value, NBPropertyListFormat format) {
    const QByteArray encoded = *dataWithPropertyList(value, format);
    measure(state, encoded, [&] {
        std::optional<QVariant> back = propertyListWithData(encoded);
        benchmark::DoNotOptimize(back);
    });
}

void BM_ParagraphEncodeBinary(benchmark::State& state) {
    encode(state, paragraph(), NBPropertyListFormat::Binary);
}
void BM_ParagraphDecodeBinary(benchmark::State& state) {
    decode(state, paragraph(), NBPropertyListFormat::Binary);
    // A second floor for decoding: making the same QVariantMap from values already in memory.
    const QVariantMap original = paragraph();
    state.counters["build_floor_ns"] = nanosecondsPerCall([&] {
        QVariantMap map;
        for (auto entry = original.begin(); entry != original.end(); ++entry) {
            QVariant value = entry.value();
            if (value.typeId() == QMetaType::QString)
                value = QVariant(QString(value.toString().constData(), value.toString().size()));
            map.insert(QString(entry.key().constData(), entry.key().size()), value);
        }
        benchmark::DoNotOptimize(map);
    });
}
void BM_ParagraphEncodeXML(benchmark::State& state) {
    encode(state, paragraph(), NBPropertyListFormat::XML);
}
void BM_ParagraphDecodeXML(benchmark::State& state) {
    decode(state, paragraph(), NBPropertyListFormat::XML);
}
void BM_BlobEncodeBinary(benchmark::State& state) {
    encode(state, blob(), NBPropertyListFormat::Binary);
}
void BM_BlobDecodeBinary(benchmark::State& state) {
    decode(state, blob(), NBPropertyListFormat::Binary);
}

} // namespace

BENCHMARK(BM_ParagraphEncodeBinary);
BENCHMARK(BM_ParagraphDecodeBinary);
BENCHMARK(BM_ParagraphEncodeXML);
BENCHMARK(BM_ParagraphDecodeXML);
BENCHMARK(BM_BlobEncodeBinary);
BENCHMARK(BM_BlobDecodeBinary);

BENCHMARK_MAIN();
