// A stretch of text given as a location and a length in UTF-16 code units, QString's own unit, so a range
// can be applied to the text it came from with QString::mid or QStringView::sliced. Styled text, search
// tokens and highlights, and document selections all use it.
#pragma once

#include <QDebug>
#include <QtGlobal>

struct NBTextRange {
    qsizetype location = 0;
    qsizetype length = 0;

    // One past the last unit of the range.
    qsizetype end() const { return location + length; }
    bool operator==(const NBTextRange& other) const = default;
};

inline QDebug operator<<(QDebug debug, const NBTextRange& range) {
    QDebugStateSaver saver(debug);
    debug.nospace() << '(' << range.location << ',' << range.length << ')';
    return debug;
}
