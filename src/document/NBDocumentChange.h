// NBDocumentChange: what changed in a document over a span of time, as derived services (the library
// database, search) and a document's own sync hook receive it.
//
// A change carries the newest timestamp it covers, the new "layout" when the layout changed, the metadata
// keys that changed with their new values, and the paragraphs whose info changed, by UUID. A paragraph
// listed here may have left the layout since; readers check the layout before treating it as present.
#pragma once

#include "document/NBParagraph.h"
#include "foundation/NBTimestamp.h"

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

#include <optional>

class NBDocumentChange {
public:
    // Builds the paragraphs from their info dictionaries; infos that do not rebuild (unknown type) are left
    // out and their UUIDs returned in *outUnreadable when asked for.
    static NBDocumentChange changeWithTimestamp(NBTimestamp timestamp,
                                                const std::optional<QStringList>& layout,
                                                const QVariantMap& metadata,
                                                const QMap<QString, QVariantMap>& paragraphInfoDictionaries,
                                                QStringList* outUnreadable = nullptr);

    NBTimestamp timestamp = 0;
    std::optional<QStringList> layout;
    QVariantMap metadata;
    QMap<QString, NBParagraph> paragraphsByUUID;

    bool isEmpty() const { return !layout && metadata.isEmpty() && paragraphsByUUID.isEmpty(); }
    // "<NBDocumentChange:0x...> = timestamp: %@, layout: %@, metadata: %@, paragraphsByUUID: %@"
    QString description() const;
};
