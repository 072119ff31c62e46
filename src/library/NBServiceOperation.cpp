// The revision controller's unit of work for a service.
#include "library/NBServiceOperation.h"

#include "foundation/NBLogging.h"
#include "library/NBAbstractController.h"

namespace {

QString pointerText(const void* pointer) {
    return QString::asprintf("%p", pointer);
}

} // namespace

std::shared_ptr<NBServiceOperation> NBServiceOperation::operationWithService(
    const std::shared_ptr<NBAbstractController>& service, const QString& documentUUID,
    const QList<NBRevisionRecord>& relevantRevisions, const QString& deviceIdentifier,
    NBTimestamp initialTimestamp, NBTimestamp targetTimestamp) {
    auto operation = std::make_shared<NBServiceOperation>();
    operation->service = service;
    operation->documentUUID = documentUUID;
    operation->relevantRevisions = relevantRevisions;
    operation->deviceIdentifier = deviceIdentifier;
    operation->initialTimestamp = initialTimestamp;
    operation->targetTimestamp = targetTimestamp;
    return operation;
}

std::shared_ptr<NBServiceOperation>
NBServiceOperation::deletionOperationWithService(const std::shared_ptr<NBAbstractController>& service,
                                                 const QString& documentUUID) {
    auto operation = std::make_shared<NBServiceOperation>();
    operation->service = service;
    operation->documentUUID = documentUUID;
    operation->deletedDocumentUUID = documentUUID;
    return operation;
}

QString NBServiceOperation::serviceName() const {
    return service ? service->serviceName() : QString();
}

QString NBServiceOperation::uniquingKey() const {
    if (isDeletion())
        return QString();
    return nbFormat("%@-%@-%@", serviceName(), documentUUID, deviceIdentifier);
}

QString NBServiceOperation::description() const {
    const QString serviceClass = service ? service->className() : QStringLiteral("(null)");
    if (isDeletion())
        return nbFormat("<%@:%@> { service = <%@:%@> '%@', deleted document = %@ }", "NBServiceOperation",
                        pointerText(this), serviceClass, pointerText(service.get()), serviceName(),
                        deletedDocumentUUID);
    return nbFormat(
        "<%@:%@> { service = <%@:%@> '%@', document = %@, device identifier = %@, initial timestamp: "
        "%@, target timestamp = %@ }",
        "NBServiceOperation", pointerText(this), serviceClass, pointerText(service.get()), serviceName(),
        documentUUID, deviceIdentifier, QString::number(initialTimestamp), QString::number(targetTimestamp));
}
