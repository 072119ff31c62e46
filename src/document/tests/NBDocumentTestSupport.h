// Helpers shared by the document tests: paragraphs written compactly, a document's layout as short labels,
// days by date, and waiting for the document store's queues.
#pragma once

#include "document/NBDocument.h"
#include "document/NBExperiment.h"

#include <QDate>
#include <QDateTime>
#include <QTimeZone>

#include <mutex>
#include <vector>

inline NBDay calendarDay(int year, int month, int day) {
    return NBDay::calendarDayWithDateInGMTTimeZone(QDateTime(QDate(year, month, day), QTime(12, 0), Qt::UTC));
}

// A paragraph as a short label: days as their ISO form prefixed with "day ", others as their content.
inline QString label(const NBParagraph& paragraph) {
    if (paragraph.isDayType())
        return QStringLiteral("day ") + paragraph.day().yearMonthDayISO8601String();
    return paragraph.content();
}

inline QStringList labels(const QList<NBParagraph>& paragraphs) {
    QStringList result;
    for (const NBParagraph& paragraph : paragraphs)
        result.append(label(paragraph));
    return result;
}

// Builds a document's paragraphs from labels: "day yyyy-mm-dd", "day n" (relative), "#text" (a numbered
// item), anything else a normal paragraph.
inline QList<NBParagraph> paragraphsFromLabels(const QStringList& texts) {
    QList<NBParagraph> paragraphs;
    for (const QString& text : texts) {
        if (text.startsWith(QLatin1String("day "))) {
            const QString day = text.mid(4);
            const QDate date = QDate::fromString(day, Qt::ISODate);
            paragraphs.append(NBParagraph::dayParagraphWithDay(
                date.isValid() ? calendarDay(date.year(), date.month(), date.day())
                               : NBDay::relativeDayWithInteger(day.toLongLong())));
        } else if (text.startsWith(QLatin1Char('#'))) {
            paragraphs.append(NBParagraph::numberParagraphWithContent(text, 0));
        } else {
            paragraphs.append(NBParagraph::normalParagraphWithContent(text));
        }
    }
    return paragraphs;
}

// Records what the sync hook receives.
class RecordingExperiment : public NBExperiment {
public:
    using NBExperiment::NBExperiment;
    std::vector<NBDocumentChange> changes() const {
        std::lock_guard lock(mutex_);
        return changes_;
    }
    void clearChanges() {
        std::lock_guard lock(mutex_);
        changes_.clear();
    }

protected:
    void applyDocumentChange(const NBDocumentChange& change) override {
        std::lock_guard lock(mutex_);
        changes_.push_back(change);
    }
    bool implementsApplyDocumentChange() const override { return true; }

private:
    mutable std::mutex mutex_;
    std::vector<NBDocumentChange> changes_;
};
