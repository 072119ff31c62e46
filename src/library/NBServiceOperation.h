// NBServiceOperation: one unit of work that the revision controller hands to a service, and NBRevisionRecord,
// one row of the revision controller's records.
//
// A change operation asks `service` to process the changes that `deviceIdentifier` made in `documentUUID`
// from `initialTimestamp` up to `targetTimestamp`; its uniquingKey ("<service>-<document>-<device>") makes
// two pending operations on the same service, document and device one. A deletion operation asks the
// service to drop everything derived from `deletedDocumentUUID`; it has no uniquing key, device or
// timestamps. Operations are values once made, except that the revision controller widens the range of a
// pending one (initialTimestamp, targetTimestamp) when another with the same key joins it.
#pragma once

#include "foundation/NBTimestamp.h"

#include <QList>
#include <QString>

#include <memory>

class NBAbstractController;

// What a service has processed of one document: the changes of `deviceIdentifier` up to `timestamp`, or,
// with the device "deletion_marker" and the distant-future timestamp, the document's deletion.
struct NBRevisionRecord {
    QString documentUUID;
    QString deviceIdentifier;
    NBTimestamp timestamp = 0;
    QString serviceName;
    bool operator==(const NBRevisionRecord& other) const = default;
};

inline constexpr const char* kNBRevisionDeletionMarker = "deletion_marker";

class NBServiceOperation {
public:
    static std::shared_ptr<NBServiceOperation>
    operationWithService(const std::shared_ptr<NBAbstractController>& service, const QString& documentUUID,
                         const QList<NBRevisionRecord>& relevantRevisions, const QString& deviceIdentifier,
                         NBTimestamp initialTimestamp, NBTimestamp targetTimestamp);
    static std::shared_ptr<NBServiceOperation>
    deletionOperationWithService(const std::shared_ptr<NBAbstractController>& service,
                                 const QString& documentUUID);

    std::shared_ptr<NBAbstractController> service;
    QString documentUUID;
    QList<NBRevisionRecord> relevantRevisions;
    QString deviceIdentifier;
    NBTimestamp initialTimestamp = 0;
    NBTimestamp targetTimestamp = 0;
    // Set for deletion operations only.
    QString deletedDocumentUUID;

    bool isDeletion() const { return !deletedDocumentUUID.isEmpty(); }
    // The service's name; empty for a service without one.
    QString serviceName() const;
    // "<service>-<document>-<device>"; empty for a deletion.
    QString uniquingKey() const;
    // "<NBServiceOperation:0x...> { service = <Class:0x...> 'name', document = ..., device identifier = ...,
    // initial timestamp: ..., target timestamp = ... }", or the deletion form with "deleted document = ...".
    QString description() const;
};
