// Black-box tests of `quillon store`: the built binary run against packages in a temporary folder.
#include "foundation/testing/NBCommandRun.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QThread>
#include <gtest/gtest.h>

#include <csignal>

namespace {

using CommandRun = NBCommandRun;

CommandRun quillon(const QStringList& arguments) {
    return nbRunCommand(QStringLiteral(QUILLON_BINARY), arguments);
}

QMap<QString, QByteArray> treeSnapshot(const QString& root) {
    return nbTreeSnapshot(root);
}

bool writeFile(const QString& path, const QByteArray& data) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(data) == data.size();
}

CommandRun set(const QString& package, const QString& key, const QString& json, const QString& device) {
    return quillon({QStringLiteral("store"), QStringLiteral("set"), package, key, json,
                    QStringLiteral("--device"), device});
}

TEST(StoreCommand, ValuesRoundTripThroughTheirJSONForm) {
    NBTemporaryDirectory directory;
    const QString package = directory.filePath(QStringLiteral("p.nbexperiment"));
    // Input, then the form `get` prints.
    const std::vector<std::pair<QString, QString>> cases = {
        {QStringLiteral("\"text\""), QStringLiteral("\"text\"")},
        {QStringLiteral(" \"α \\\"quoted\\\"\\n\\u00e9\" "), QStringLiteral("\"α \\\"quoted\\\"\\né\"")},
        {QStringLiteral("42"), QStringLiteral("42")},
        {QStringLiteral("-9223372036854775808"), QStringLiteral("-9223372036854775808")},
        {QStringLiteral("1.0"), QStringLiteral("1.0")},
        {QStringLiteral("2.5e3"), QStringLiteral("2500.0")},
        {QStringLiteral("0.1"), QStringLiteral("0.1")},
        {QStringLiteral("1e300"), QStringLiteral("1e+300")},
        {QStringLiteral("false"), QStringLiteral("false")},
        {QStringLiteral("[1, \"a\", [], {}]"), QStringLiteral("[1,\"a\",[],{}]")},
        {QStringLiteral("{\"b\": 1, \"a\": {\"$data\": \"AAH/\"}}"),
         QStringLiteral("{\"a\":{\"$data\":\"AAH/\"},\"b\":1}")},
        {QStringLiteral("{\"$data\": \"\"}"), QStringLiteral("{\"$data\":\"\"}")},
        {QStringLiteral("{\"$date\": \"2024-01-02T03:04:05.123456Z\"}"),
         QStringLiteral("{\"$date\":\"2024-01-02T03:04:05.123000Z\"}")},
        {QStringLiteral("{\"$date\": \"2024-01-02T05:04:05+02:00\"}"),
         QStringLiteral("{\"$date\":\"2024-01-02T03:04:05.000000Z\"}")},
        {QStringLiteral("{\"$date\": 5}"), QStringLiteral("{\"$date\":5}")},
    };
    int index = 0;
    for (const auto& [input, expected] : cases) {
        const QString key = QStringLiteral("key%1").arg(index++);
        const CommandRun written = set(package, key, input, QStringLiteral("device"));
        ASSERT_EQ(written.exitCode, 0) << input.toStdString() << "\n" << written.describe();
        const CommandRun read = quillon({QStringLiteral("store"), QStringLiteral("get"), package, key});
        EXPECT_EQ(read.exitCode, 0) << read.describe();
        EXPECT_EQ(read.out, expected) << input.toStdString();
    }
    EXPECT_EQ(
        quillon({QStringLiteral("store"), QStringLiteral("get"), package, QStringLiteral("absent")}).out,
        QStringLiteral("null"));
}

TEST(StoreCommand, ErrorsChangeNothing) {
    NBTemporaryDirectory directory;
    const QString package = directory.filePath(QStringLiteral("p.nbexperiment"));
    ASSERT_EQ(
        set(package, QStringLiteral("title"), QStringLiteral("\"kept\""), QStringLiteral("device")).exitCode,
        0);
    const QString plainFolder = directory.filePath(QStringLiteral("folder"));
    ASSERT_TRUE(writeFile(plainFolder + QStringLiteral("/notes.txt"), QByteArray("not a package")));
    const QString missing = directory.filePath(QStringLiteral("missing"));
    const auto before = treeSnapshot(directory.path());
    const std::vector<std::pair<QStringList, QString>> cases = {
        {{QStringLiteral("get"), missing, QStringLiteral("k")}, QStringLiteral("no such package")},
        {{QStringLiteral("dump"), plainFolder}, QStringLiteral("not a package")},
        {{QStringLiteral("devices"), plainFolder + QStringLiteral("/notes.txt")},
         QStringLiteral("not a package")},
        {{QStringLiteral("changes"), package, QStringLiteral("--since"), QStringLiteral("soon")},
         QStringLiteral("not a timestamp")},
        {{QStringLiteral("set"), plainFolder, QStringLiteral("k"), QStringLiteral("1"),
          QStringLiteral("--device"), QStringLiteral("d")},
         QStringLiteral("not a package")},
        {{QStringLiteral("set"), package, QStringLiteral("k"), QStringLiteral("1"),
          QStringLiteral("--device"), QStringLiteral("a/b")},
         QStringLiteral("not a valid device identifier")},
    };
    for (const auto& [arguments, message] : cases) {
        const CommandRun run = quillon(QStringList{QStringLiteral("store")} + arguments);
        EXPECT_NE(run.exitCode, 0) << arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_TRUE(run.err.contains(message)) << run.describe();
        EXPECT_TRUE(run.out.isEmpty()) << run.describe();
    }
    for (const QString& json :
         {QStringLiteral("null"), QStringLiteral("[1, null]"), QStringLiteral("{"), QStringLiteral("01"),
          QStringLiteral("'single'"), QStringLiteral("{\"$data\": \"*\"}"),
          QStringLiteral("{\"$date\": \"yesterday\"}"), QStringLiteral("1 2"), QString()}) {
        for (const QString& target : {package, missing}) {
            const CommandRun run = set(target, QStringLiteral("title"), json, QStringLiteral("device"));
            EXPECT_NE(run.exitCode, 0) << json.toStdString();
            EXPECT_TRUE(run.err.contains(QStringLiteral("bad JSON value"))) << run.describe();
        }
    }
    EXPECT_EQ(treeSnapshot(directory.path()), before);
}

TEST(StoreCommand, ReadingCommandsLeaveThePackageByteIdentical) {
    NBTemporaryDirectory directory;
    const QString package = directory.filePath(QStringLiteral("p.nbexperiment"));
    ASSERT_EQ(
        set(package, QStringLiteral("title"), QStringLiteral("\"first\""), QStringLiteral("laptop")).exitCode,
        0);
    ASSERT_EQ(set(package, QStringLiteral("count"), QStringLiteral("1"), QStringLiteral("laptop")).exitCode,
              0);
    ASSERT_EQ(set(package, QStringLiteral("title"), QStringLiteral("\"second\""), QStringLiteral("desktop"))
                  .exitCode,
              0);
    // A device folder without a log yet (a sync service still copying) must not be touched either.
    ASSERT_TRUE(QDir().mkpath(package + QStringLiteral("/devices/arriving")));
    const auto before = treeSnapshot(directory.path());

    const CommandRun get =
        quillon({QStringLiteral("store"), QStringLiteral("get"), package, QStringLiteral("title")});
    EXPECT_EQ(get.out, QStringLiteral("\"second\""));

    const CommandRun dump = quillon({QStringLiteral("store"), QStringLiteral("dump"), package});
    const QJsonObject dumped = QJsonDocument::fromJson(dump.out.toUtf8()).object();
    EXPECT_EQ(dumped.value(QStringLiteral("title")).toObject().value(QStringLiteral("device")).toString(),
              QStringLiteral("desktop"));
    EXPECT_EQ(dumped.value(QStringLiteral("count")).toObject().value(QStringLiteral("device")).toString(),
              QStringLiteral("laptop"));
    EXPECT_EQ(dumped.value(QStringLiteral("count")).toObject().value(QStringLiteral("value")).toInt(), 1);

    const CommandRun changes = quillon({QStringLiteral("store"), QStringLiteral("changes"), package});
    const QJsonArray rows = QJsonDocument::fromJson(changes.out.toUtf8()).array();
    ASSERT_EQ(rows.size(), 3);
    EXPECT_EQ(rows[2].toObject().value(QStringLiteral("value")).toString(), QStringLiteral("second"));
    const qint64 since = rows[0].toObject().value(QStringLiteral("timestamp")).toInteger();
    const CommandRun later = quillon({QStringLiteral("store"), QStringLiteral("changes"), package,
                                      QStringLiteral("--since"), QString::number(since)});
    EXPECT_EQ(QJsonDocument::fromJson(later.out.toUtf8()).array().size(), 2);

    const CommandRun devices = quillon({QStringLiteral("store"), QStringLiteral("devices"), package});
    const QJsonObject timestamps = QJsonDocument::fromJson(devices.out.toUtf8()).object();
    EXPECT_EQ(timestamps.value(QStringLiteral("desktop")).toInteger(),
              rows[2].toObject().value(QStringLiteral("timestamp")).toInteger());
    EXPECT_EQ(timestamps.value(QStringLiteral("laptop")).toInteger(),
              rows[1].toObject().value(QStringLiteral("timestamp")).toInteger());

    for (const CommandRun& run : {get, dump, changes, later, devices})
        EXPECT_EQ(run.exitCode, 0) << run.describe();
    EXPECT_EQ(treeSnapshot(directory.path()), before) << directory.listing().toStdString();
}

} // namespace

namespace {

TEST(StoreCommand, MergeAndWatch) {
    NBTemporaryDirectory directory;
    const QString first = directory.filePath(QStringLiteral("A.nbexperiment"));
    const QString second = directory.filePath(QStringLiteral("B.nbexperiment"));
    ASSERT_EQ(
        set(first, QStringLiteral("title"), QStringLiteral("\"from A\""), QStringLiteral("one")).exitCode, 0);
    ASSERT_EQ(
        set(second, QStringLiteral("title"), QStringLiteral("\"from B\""), QStringLiteral("two")).exitCode,
        0);
    const auto sourceBefore = treeSnapshot(second);
    const CommandRun merged = quillon({QStringLiteral("store"), QStringLiteral("merge"), first, second,
                                       QStringLiteral("--device"), QStringLiteral("one")});
    EXPECT_EQ(merged.exitCode, 0) << merged.describe();
    EXPECT_EQ(quillon({QStringLiteral("store"), QStringLiteral("get"), first, QStringLiteral("title")}).out,
              QStringLiteral("\"from B\""));
    EXPECT_EQ(treeSnapshot(second), sourceBefore);
    const CommandRun unsafeLocal =
        quillon({QStringLiteral("store"), QStringLiteral("merge"), first, second, QStringLiteral("--device"),
                 QStringLiteral("one"), QStringLiteral("--unsafe"), QStringLiteral("one")});
    EXPECT_NE(unsafeLocal.exitCode, 0);
    EXPECT_TRUE(unsafeLocal.err.contains(QStringLiteral("(1508)"))) << unsafeLocal.describe();

    QProcess watcher;
    watcher.start(QStringLiteral(QUILLON_BINARY), {QStringLiteral("store"), QStringLiteral("watch"), first,
                                                   QStringLiteral("--device"), QStringLiteral("one")});
    ASSERT_TRUE(watcher.waitForStarted(10000));
    QThread::msleep(1000);
    ASSERT_EQ(set(first, QStringLiteral("title"), QStringLiteral("\"from three\""), QStringLiteral("three"))
                  .exitCode,
              0);
    // The first line the watcher prints is the change, however long the machine takes to deliver it.
    for (int attempt = 0; attempt < 100 && !watcher.canReadLine(); ++attempt)
        watcher.waitForReadyRead(100);
    ASSERT_TRUE(watcher.canReadLine());
    const QJsonObject line = QJsonDocument::fromJson(watcher.readLine()).object();
    EXPECT_EQ(line.value(QStringLiteral("notification")).toString(),
              QStringLiteral("OAKStoreDidChangeNotification"));
    EXPECT_EQ(line.value(QStringLiteral("values")).toObject().value(QStringLiteral("title")).toString(),
              QStringLiteral("from three"));
    ::kill(pid_t(watcher.processId()), SIGINT);
    ASSERT_TRUE(watcher.waitForFinished(10000));
    EXPECT_EQ(watcher.exitCode(), 0);
}

} // namespace
