// A second device for the library's tests: runs its own library in its own process on a synchronised
// folder that the test shares, does one thing, and exits.
//
//   quillon_library_test_device <library root> <synchronised folder> create <title>   prints the new UUID
//   quillon_library_test_device <library root> <synchronised folder> edit <uuid> <title>
//   quillon_library_test_device <library root> <synchronised folder> delete <uuid>
//   quillon_library_test_device <library root> <synchronised folder> restore <uuid>
#include "document/NBDocument.h"
#include "library/NBBucket.h"
#include "library/NBDocumentsController.h"
#include "library/NBLibraryManager.h"

#include <QCoreApplication>

#include <iostream>

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 5) {
        std::cerr << "usage: quillon_library_test_device <root> <folder> <command> [arguments]" << std::endl;
        return 2;
    }
    const auto manager = NBLibraryManager::sharedManagerWithRootPath(arguments[1]);
    NBError error;
    if (!manager->setUpWithError(&error)) {
        std::cerr << error.localizedDescription().toStdString() << std::endl;
        return 1;
    }
    const auto documents = manager->documentsController();
    if (!documents->addSynchronisedFolder(arguments[2], &error)) {
        std::cerr << error.localizedDescription().toStdString() << std::endl;
        return 1;
    }
    const QString command = arguments[3];
    bool succeeded = true;
    if (command == QLatin1String("create")) {
        const auto document = documents->newExperimentWithTitle(
            arguments[4], QString(), documents->bucketWithAbsolutePath(arguments[2]), &error);
        succeeded = document != nullptr;
        if (document) {
            std::cout << document->uuid().toStdString() << std::endl;
            documents->releasedDocumentWithUUID(document->uuid());
        }
    } else if (command == QLatin1String("edit") && arguments.size() > 5) {
        const auto document = documents->retainedDocumentWithUUID(arguments[4]);
        succeeded = document != nullptr;
        if (document) {
            document->setTitle(arguments[5]);
            documents->releasedDocumentWithUUID(arguments[4]);
        }
    } else if (command == QLatin1String("delete")) {
        succeeded = documents->deleteDocumentWithUUID(arguments[4], &error);
    } else if (command == QLatin1String("restore")) {
        succeeded = documents->restoreDocumentWithUUID(arguments[4], &error);
    } else {
        std::cerr << "unknown command" << std::endl;
        succeeded = false;
    }
    if (!succeeded)
        std::cerr << error.localizedDescription().toStdString() << std::endl;
    manager->waitUntilFinished();
    manager->tearDownWithError();
    return succeeded ? 0 : 1;
}
