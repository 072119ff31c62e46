// Helpers shared by the editor tests: documents as short descriptions, waiting for the event loop, and an
// editor over a real experiment package.
#pragma once

#include "app/NBDocumentEditor.h"
#include "document/NBExperiment.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QSignalSpy>
#include <QTest>
#include <QTextEdit>

#include <functional>
#include <ostream>

// Prints Qt strings readably in failure messages.
inline void PrintTo(const QString& string, std::ostream* stream) {
    *stream << '"' << string.toStdString() << '"';
}
inline void PrintTo(const QStringList& list, std::ostream* stream) {
    *stream << '[' << list.join(QLatin1String(" | ")).toStdString() << ']';
}

// A paragraph as "kind:content" ("normal:text", "bullet1:item" for a level, "day:2024-03-07").
inline QString describeParagraph(const NBParagraph& paragraph) {
    if (paragraph.isDayType())
        return QStringLiteral("day:") + paragraph.day().yearMonthDayISO8601String();
    QString kind = paragraph.type();
    if (paragraph.isBulletType() || paragraph.isNumberType())
        kind += QString::number(paragraph.indentationLevel().value_or(0));
    return kind + QLatin1Char(':') + paragraph.content();
}

inline QStringList describeParagraphs(const QList<NBParagraph>& paragraphs) {
    QStringList result;
    for (const NBParagraph& paragraph : paragraphs)
        result << describeParagraph(paragraph);
    return result;
}

// Builds paragraphs from descriptions in the form describeParagraph writes (tables as "table:" + grid).
inline QList<NBParagraph> paragraphsFromDescriptions(const QStringList& descriptions) {
    QList<NBParagraph> paragraphs;
    for (const QString& description : descriptions) {
        const qsizetype colon = description.indexOf(QLatin1Char(':'));
        QString kind = description.left(colon);
        const QString content = description.mid(colon + 1);
        qint64 level = 0;
        if (kind.startsWith(QLatin1String("bullet")) || kind.startsWith(QLatin1String("number"))) {
            level = kind.mid(6).toLongLong();
            kind = kind.left(6);
        }
        if (kind == QLatin1String("day")) {
            const QDate date = QDate::fromString(content, Qt::ISODate);
            paragraphs << NBParagraph::dayParagraphWithDay(
                date.isValid()
                    ? NBDay::dayWithDateComponents({date.year(), date.month(), std::nullopt, date.day()})
                    : NBDay::relativeDayWithInteger(content.toLongLong()));
            continue;
        }
        QVariantMap info{{QStringLiteral("type"), kind}, {QStringLiteral("content"), content}};
        if (kind == QLatin1String("bullet") || kind == QLatin1String("number"))
            info.insert(QStringLiteral("indentationLevel"), level);
        paragraphs << *NBParagraph::paragraphWithUUID(NBParagraph::newUUIDString(), info);
    }
    return paragraphs;
}

// Runs the event loop until `condition` holds or `seconds` pass; returns whether it held.
inline bool waitUntil(const std::function<bool()>& condition, int seconds = 20) {
    QDeadlineTimer deadline(seconds * 1000);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QTest::qWait(5);
    }
    return true;
}

// An experiment package in a temporary folder, written as device "bench", shown in an editor.
struct EditorFixture {
    explicit EditorFixture(const QStringList& descriptions = {}) {
        document = NBExperiment::newExperimentInFolder(directory.path(), QStringLiteral("bench"),
                                                       QStringLiteral("Experiment"));
        if (!descriptions.isEmpty())
            document->insertParagraphs(paragraphsFromDescriptions(descriptions), QString());
        editor = std::make_unique<NBDocumentEditor>();
        editor->resize(800, 600);
        editor->setDocument(document);
    }
    ~EditorFixture() {
        editor.reset();
        if (document)
            document->tearDownNow();
    }
    QTextEdit* view() const { return editor->textView(); }
    QStringList stored() const { return describeParagraphs(document->paragraphs()); }
    QStringList shown() const {
        QStringList result;
        for (const QString& uuid : editor->mapping().layout())
            result << describeParagraph(editor->mapping().shownParagraph(uuid));
        return result;
    }
    QString uuidAt(int index) const { return document->layout().value(index); }

    NBTemporaryDirectory directory;
    std::shared_ptr<NBExperiment> document;
    std::unique_ptr<NBDocumentEditor> editor;
};
