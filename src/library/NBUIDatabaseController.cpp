// The library database service: its name, owner and the all-changes entry point (see the header).
#include "library/NBUIDatabaseController.h"

void NBUIDatabaseController::processAndSaveAllChangesForDocument(const std::shared_ptr<NBDocument>& document,
                                                                 NBErrorHandler completionHandler) {
    processChangeSinceTimestamp(timestampForDistantPast(), document, std::move(completionHandler));
}

QString NBUIDatabaseController::libraryOwnerName() const {
    std::lock_guard lock(mutex_);
    return libraryOwnerName_;
}

void NBUIDatabaseController::setLibraryOwnerName(const QString& name) {
    std::lock_guard lock(mutex_);
    libraryOwnerName_ = name;
}
