// NBDocumentChange: a document's changes over a span of time (see NBDocumentChange.h).
#include "document/NBDocumentChange.h"

#include "foundation/NBLogging.h"
#include "foundation/NBPropertyList.h"

NBDocumentChange NBDocumentChange::changeWithTimestamp(
    NBTimestamp timestamp, const std::optional<QStringList>& layout, const QVariantMap& metadata,
    const QMap<QString, QVariantMap>& paragraphInfoDictionaries, QStringList* outUnreadable) {
    NBDocumentChange change;
    change.timestamp = timestamp;
    change.layout = layout;
    change.metadata = metadata;
    for (auto entry = paragraphInfoDictionaries.begin(); entry != paragraphInfoDictionaries.end(); ++entry) {
        if (std::optional<NBParagraph> paragraph = NBParagraph::paragraphWithUUID(entry.key(), entry.value()))
            change.paragraphsByUUID.insert(entry.key(), std::move(*paragraph));
        else if (outUnreadable)
            outUnreadable->append(entry.key());
    }
    return change;
}

QString NBDocumentChange::description() const {
    QStringList paragraphs;
    for (auto entry = paragraphsByUUID.begin(); entry != paragraphsByUUID.end(); ++entry)
        paragraphs.append(entry.key() + QLatin1String(" = ") + entry.value().description());
    return nbFormat("<%@:%@> = timestamp: %@, layout: %@, metadata: %@, paragraphsByUUID: %@",
                    QStringLiteral("NBDocumentChange"), QStringLiteral("0x%1").arg(quintptr(this), 0, 16),
                    QString::number(timestamp),
                    layout ? QLatin1Char('(') + layout->join(QLatin1String(", ")) + QLatin1Char(')')
                           : QStringLiteral("(null)"),
                    propertyListDescription(metadata),
                    QLatin1Char('{') + paragraphs.join(QLatin1String(", ")) + QLatin1Char('}'));
}
