// Tests of the built-in protocols: each imports as a protocol named by its file, with days, steps and
// warnings, and its timed paragraphs promise exactly the durations listed here, in order.
#include "NBInterchangeTestSupport.h"
#include "document/NBProtocol.h"
#include "foundation/testing/NBMessageCapture.h"
#include "interchange/NBBuiltInProtocols.h"
#include "interchange/NBMarkdownDocumentImporter.h"
#include "interchange/NBMarkdownReader.h"
#include "time/NBTimeDetector.h"

#include <QFileInfo>
#include <QMap>

#include <gtest/gtest.h>

namespace {

// The durations that the paragraphs able to carry a timer (normal text, bullets, numbered items, code)
// promise, in document order, as the timers show them.
const QMap<QString, QStringList>& promisedDurations() {
    static const QMap<QString, QStringList> table = {
        {"Agarose gel electrophoresis", {"5:00", "30:00", "45:00"}},
        {"PCR with Taq polymerase", {"2:00", "0:30", "0:30", "1:00", "5:00"}},
        {"Transformation of chemically competent E. coli",
         {"10:00", "30:00", "0:45", "2:00", "1:00:00", "16:00:00"}},
        {"Plasmid miniprep with a silica spin column",
         {"16:00:00", "3:00", "10:00", "1:00", "1:00", "1:00", "1:00", "1:00"}},
        {"SDS-PAGE", {"5:00", "20:00", "1:00:00", "1:00:00"}},
        {"Western blot", {"0:30", "1:00:00", "5:00", "1:00:00", "5:00", "1:00:00", "5:00", "1:00"}},
        {"BCA protein assay (microplate)", {"0:30", "30:00"}},
        {"Passaging adherent mammalian cells", {"5:00", "5:00"}},
        {"Total RNA extraction with TRIzol",
         {"5:00", "0:15", "3:00", "15:00", "10:00", "10:00", "5:00", "10:00", "10:00"}},
        {"Immunofluorescence staining of cultured cells",
         {"15:00", "5:00", "10:00", "30:00", "1:00:00", "5:00", "1:00:00", "5:00", "5:00", "24:00:00"}},
        {"Sandwich ELISA", {"1:00:00", "2:00:00", "1:00:00", "20:00", "15:00"}},
        {"Bacterial glycerol stocks", {"16:00:00", "16:00:00"}},
    };
    return table;
}

TEST(NBBuiltInProtocols, EachImportsAsItsProtocolWithTheDurationsItsStepsPromise) {
    const QStringList paths = NBBuiltInProtocols::protocolFilePaths();
    ASSERT_GE(paths.size(), 12);
    QStringList titles;
    for (const QString& path : paths) {
        NBError error;
        const std::optional<NBDocumentContent> content =
            NBMarkdownReader::contentFromMarkdownFile(path, &error);
        ASSERT_TRUE(content) << error.description().toStdString();
        const QString title = content->title();
        titles.append(title);
        EXPECT_EQ(content->uuid(), QFileInfo(path).completeBaseName()) << title.toStdString();
        EXPECT_TRUE(content->kindIsKnown && content->kind == NBDocumentKind::Protocol) << title.toStdString();
        EXPECT_FALSE(content->author().isEmpty());
        EXPECT_FALSE(content->metadata.value("summary").toString().isEmpty());
        EXPECT_FALSE(content->metadata.value("categories").toList().isEmpty());
        int days = 0, steps = 0, warnings = 0;
        QStringList durations;
        for (const NBParagraph& paragraph : content->paragraphs) {
            days += paragraph.isDayType() && paragraph.day().isRelativeDay();
            steps += paragraph.isStepType();
            warnings += paragraph.isWarningType();
            const bool canCarryTimer = paragraph.isNormalType() || paragraph.isBulletType() ||
                                       paragraph.isNumberType() || paragraph.isCodeType();
            if (!canCarryTimer)
                continue;
            if (const auto duration =
                    NBTimeDetector::firstMatchForDurationInString(paragraph.plainTextContent()))
                durations.append(duration->displayString());
        }
        EXPECT_GE(days, 1) << title.toStdString();
        EXPECT_GE(steps, 2) << title.toStdString();
        EXPECT_GE(warnings, 1) << title.toStdString();
        EXPECT_EQ(durations, promisedDurations().value(title)) << title.toStdString();
    }
    titles.sort();
    EXPECT_EQ(titles, promisedDurations().keys());
}

TEST(NBBuiltInProtocols, ImporterFillsTheGivenProtocolOrLeavesItAlone) {
    const QString path = NBBuiltInProtocols::protocolFilePaths().value(0);
    for (const QUrl& url : {QUrl::fromLocalFile(path), QUrl(QStringLiteral("qrc") + path)}) {
        const auto protocol = std::make_shared<NBProtocol>();
        const std::shared_ptr<NBDocument> imported =
            NBMarkdownDocumentImporter::importerWithDocument(protocol, url)->runNow();
        ASSERT_EQ(imported, protocol) << url.toString().toStdString();
        EXPECT_EQ(protocol->uuid(), QFileInfo(path).completeBaseName());
        EXPECT_EQ(protocol->paragraphs().size(),
                  NBMarkdownReader::contentFromMarkdownFile(path)->paragraphs.size());
        protocol->tearDownNow();
    }
    const auto protocol = std::make_shared<NBProtocol>();
    NBMessageCapture capture;
    NBError error;
    EXPECT_FALSE(
        NBMarkdownDocumentImporter::importerWithDocument(protocol, QUrl::fromLocalFile("/nonexistent.mdown"))
            ->runNow(&error));
    EXPECT_TRUE(error.localizedDescription().contains("/nonexistent.mdown"));
    EXPECT_TRUE(protocol->paragraphs().isEmpty());
    protocol->tearDownNow();
}

} // namespace
