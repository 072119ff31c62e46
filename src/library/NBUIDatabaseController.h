// NBUIDatabaseController: the library database service "ui", from which lists and calendars are answered.
//
// What this class holds now is what the rest of the library needs from it: its service name "ui" (under
// which the revision controller keeps its records), the owner's name that the library manager hands it when
// "LibraryOwner" changes, and processAndSaveAllChangesForDocument(), through which the built-in protocols
// enter the database at once. The database itself (its file under "DerivedInfo", schema, incremental
// processing of changes and deletions, rebuilding) is not built yet: until it is, the service contract's
// default applies (every change and deletion is accepted and nothing is derived). The database, when it
// comes, starts from an empty file, so it calls the revision controller's
// forgetRecordsOfServiceWithName("ui") when it creates its file: every document is then processed again from
// the beginning.
#pragma once

#include "library/NBAbstractController.h"

#include <QString>

#include <mutex>

inline constexpr const char* kNBUIDatabaseServiceName = "ui";

class NBUIDatabaseController : public NBAbstractController {
public:
    using NBAbstractController::NBAbstractController;
    QString className() const override { return QStringLiteral("NBUIDatabaseController"); }
    QString serviceName() const override { return QString::fromUtf8(kNBUIDatabaseServiceName); }

    // Processes every change the document holds (from the distant past) and saves the database before the
    // handler is called.
    void processAndSaveAllChangesForDocument(const std::shared_ptr<NBDocument>& document,
                                             NBErrorHandler completionHandler);
    QString libraryOwnerName() const;
    void setLibraryOwnerName(const QString& name);

private:
    mutable std::mutex mutex_;
    QString libraryOwnerName_;
};
