// The process-wide registration of the Markdown importer used for built-in protocols.
#include "library/NBMarkdownImporter.h"

#include <mutex>

namespace {

std::mutex& factoryMutex() {
    static std::mutex mutex;
    return mutex;
}

NBMarkdownImporter::Factory& factory() {
    static NBMarkdownImporter::Factory instance;
    return instance;
}

} // namespace

std::unique_ptr<NBMarkdownImporter>
NBMarkdownImporter::importerWithDocument(const std::shared_ptr<NBDocument>& document,
                                         const QUrl& markdownURL) {
    Factory make;
    {
        std::lock_guard lock(factoryMutex());
        make = factory();
    }
    return make ? make(document, markdownURL) : nullptr;
}

void NBMarkdownImporter::setImporterFactory(Factory newFactory) {
    std::lock_guard lock(factoryMutex());
    factory() = std::move(newFactory);
}

bool NBMarkdownImporter::hasImporterFactory() {
    std::lock_guard lock(factoryMutex());
    return bool(factory());
}
