// Black-box tests of `quillon doc`: the built binary run against packages in a temporary folder.
#include "foundation/testing/NBCommandRun.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <gtest/gtest.h>

namespace {

using CommandRun = NBCommandRun;

// Runs `quillon <arguments>`; a crash gives exit code -1.
CommandRun quillonCommand(const QStringList& arguments) {
    return nbRunCommand(QStringLiteral(QUILLON_BINARY), arguments);
}

CommandRun quillon(const QStringList& arguments) {
    return quillonCommand(QStringList{"doc"} + arguments);
}

QMap<QString, QByteArray> snapshot(const QString& root) {
    return nbTreeSnapshot(root);
}

TEST(DocCommand, NewAppendShowAndJSON) {
    NBTemporaryDirectory directory;
    const CommandRun created = quillon({"new", "experiment", directory.filePath("Experiments"), "--title",
                                        "CommandRun 1", "--device", "bench"});
    ASSERT_EQ(created.exitCode, 0) << created.describe() << directory.listing().toStdString();
    const QString package = created.out;
    EXPECT_TRUE(QFileInfo(package).isDir());
    EXPECT_TRUE(package.endsWith(".nbexperiment"));

    const std::vector<QStringList> appends = {
        {"--type", "step", "--content", "Day two step", "--day", "2024-03-08"},
        {"--type", "normal", "--content", "<b>bold</b> start", "--day", "2024-03-07"},
        {"--type", "note", "--content", "closing note"},
    };
    for (const QStringList& arguments : appends) {
        const CommandRun appended =
            quillon(QStringList{"append", package} + arguments + QStringList{"--device", "bench"});
        ASSERT_EQ(appended.exitCode, 0) << appended.describe();
        EXPECT_EQ(appended.out.size(), 36);
    }

    const CommandRun shown = quillon({"show", package});
    ASSERT_EQ(shown.exitCode, 0) << shown.describe();
    EXPECT_TRUE(
        shown.out.startsWith("uuid: " + QFileInfo(package).completeBaseName() + "\ntitle: CommandRun 1\n"))
        << shown.describe();
    EXPECT_TRUE(shown.out.contains("Paragraph 1 - normal\nbold start")) << shown.describe();

    const CommandRun json = quillon({"json", package});
    ASSERT_EQ(json.exitCode, 0) << json.describe();
    const QJsonObject object = QJsonDocument::fromJson(json.out.toUtf8()).object();
    EXPECT_EQ(object["kind"].toString(), "experiment");
    EXPECT_EQ(object["metadata"].toObject()["title"].toString(), "CommandRun 1");
    QStringList types;
    for (const QJsonValue paragraph : object["paragraphs"].toArray())
        types.append(paragraph.toObject()["info"].toObject()["type"].toString());
    EXPECT_EQ(types, QStringList({"day", "normal", "day", "step", "note"}));

    const CommandRun protocol =
        quillon({"new", "protocol", directory.path(), "--title", "P", "--device", "bench"});
    ASSERT_EQ(protocol.exitCode, 0) << protocol.describe();
    ASSERT_EQ(
        quillon({"append", protocol.out, "--type", "step", "--content", "s", "--day", "3", "--device", "b"})
            .exitCode,
        0);
    EXPECT_TRUE(quillon({"show", protocol.out}).out.contains("{day:3}"));
}

TEST(DocCommand, ErrorsAndReadingChangeNothing) {
    NBTemporaryDirectory directory;
    const CommandRun created =
        quillon({"new", "protocol", directory.path(), "--title", "P", "--device", "bench"});
    ASSERT_EQ(created.exitCode, 0) << created.describe();
    const QString package = created.out;
    const QMap<QString, QByteArray> before = snapshot(directory.path());

    const std::vector<QStringList> failing = {
        {"append", package, "--type", "hologram", "--content", "x", "--device", "bench"},
        {"append", package, "--type", "day", "--content", "x", "--device", "bench"},
        {"append", package, "--type", "step", "--content", "x", "--day", "2024-02-30", "--device", "bench"},
        {"append", package, "--type", "step", "--content", "x", "--day", "soon", "--device", "bench"},
        {"append", package, "--type", "step", "--content", "x", "--device", "../escape"},
        {"append", directory.filePath("missing.nbprotocol"), "--type", "step", "--content", "x", "--device",
         "b"},
        {"append", directory.path(), "--type", "step", "--content", "x", "--device", "bench"},
        {"new", "notebook", directory.path(), "--title", "x", "--device", "bench"},
        {"show", directory.filePath("missing.nbexperiment")},
        {"json", directory.path()},
    };
    for (const QStringList& arguments : failing) {
        const CommandRun run = quillon(arguments);
        EXPECT_NE(run.exitCode, 0) << arguments.join(' ').toStdString() << "\n" << run.describe();
        EXPECT_TRUE(run.err.startsWith("quillon doc: ") || run.err.contains("Error")) << run.describe();
    }
    // Reading as an unknown device creates nothing either.
    EXPECT_EQ(quillon({"show", package}).exitCode, 0);
    EXPECT_EQ(quillon({"json", package}).exitCode, 0);
    EXPECT_EQ(snapshot(directory.path()), before) << directory.listing().toStdString();
}

TEST(DocCommand, DamagedPackagesAreReadWithoutCrashingOrChangingThem) {
    NBTemporaryDirectory directory;
    const CommandRun created =
        quillon({"new", "experiment", directory.path(), "--title", "E", "--device", "bench"});
    ASSERT_EQ(created.exitCode, 0) << created.describe();
    const QString package = created.out;
    ASSERT_EQ(quillon({"append", package, "--type", "number", "--content", "n", "--day", "2024-03-07",
                       "--device", "bench"})
                  .exitCode,
              0);
    // Values of the wrong shape under every kind of key, as another tool or a damaged log could leave them.
    const std::vector<std::pair<QString, QString>> values = {
        {"title", "42"},
        {"author", R"({"a": [1, 2.5]})"},
        {"X1", R"({"type": "number", "content": {"x": 1}, "indentationLevel": -7})"},
        {"X2", R"({"type": 5})"},
        {"X3", R"("not a dictionary")"},
        {"X4", R"({"type": "table", "content": "a\tb\n\n&#9;", "tableColumnWidths": ["x", true]})"},
        {"X5", R"({"type": "day", "dayRep": "garbage"})"},
        {"X6", R"({"type": "bullet", "indentationLevel": 1e300, "timerStart": "later"})"},
        {"X7", R"({"type": "number", "indentationLevel": 9223372036854775807})"},
        {"X8", R"({"type": "section", "content": "<b>unclosed <i>&bogus;"})"},
        {"X9", R"({"type": "text", "content": "a fragment"})"},
        {"layout", R"(["X1", "X2", "X3", 7, "X4", "X5", "X6", "X7", "X8", "X9", "missing", "X1"])"},
        {"layout", R"("not an array")"},
    };
    for (qsizetype index = 0; index < qsizetype(values.size()); ++index) {
        const auto& [key, json] = values[std::size_t(index)];
        const CommandRun set = quillonCommand({"store", "set", package, key, json, "--device", "other"});
        ASSERT_EQ(set.exitCode, 0) << key.toStdString() << " " << set.describe();
        if (key != "layout")
            continue;
        const QMap<QString, QByteArray> before = snapshot(directory.path());
        // The first layout lists readable paragraphs among the damaged ones: they are shown.
        if (json.startsWith('[')) {
            EXPECT_TRUE(quillon({"show", package}).out.contains("Paragraph 0 - number\n"));
        }
        for (const char* command : {"show", "json"}) {
            const CommandRun run = quillon({command, package});
            EXPECT_EQ(run.exitCode, 0) << command << " after " << json.toStdString() << "\n"
                                       << run.describe();
        }
        EXPECT_EQ(snapshot(directory.path()), before);
    }

    // Damaged log files: reading either fails cleanly or shows what it could, and changes nothing.
    QDirIterator logs(package + "/devices", QDir::Files, QDirIterator::Subdirectories);
    QStringList logFiles;
    while (logs.hasNext())
        logFiles.append(logs.next());
    ASSERT_FALSE(logFiles.isEmpty());
    for (const QString& path : logFiles) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        const QByteArray contents = file.readAll();
        file.resize(contents.size() / 2);
        file.seek(file.size() / 2);
        file.write(QByteArray(64, '\xA5'));
    }
    const QMap<QString, QByteArray> before = snapshot(directory.path());
    for (const char* command : {"show", "json"}) {
        const CommandRun run = quillon({command, package});
        EXPECT_TRUE(run.exitCode == 0 || run.exitCode == 1) << command << "\n" << run.describe();
    }
    EXPECT_EQ(snapshot(directory.path()), before) << directory.listing().toStdString();
}

} // namespace
