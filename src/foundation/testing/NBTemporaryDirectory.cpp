// Temporary folders for tests, kept and listed when the test fails.
#include "foundation/testing/NBTemporaryDirectory.h"

#include <QDirIterator>
#include <QFileInfo>
#include <gtest/gtest.h>

NBTemporaryDirectory::NBTemporaryDirectory() : directory_(QDir::tempPath() + "/quillon-test-XXXXXX") {}

NBTemporaryDirectory::~NBTemporaryDirectory() {
    if (::testing::Test::HasFailure()) {
        directory_.setAutoRemove(false);
        std::fprintf(stderr, "Kept test folder %s:\n%s\n", qUtf8Printable(path()), qUtf8Printable(listing()));
    }
}

QString NBTemporaryDirectory::listing() const {
    QStringList lines;
    QDirIterator iterator(path(), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                          QDirIterator::Subdirectories);
    while (iterator.hasNext()) {
        QFileInfo info(iterator.next());
        QString relative = info.filePath().mid(path().size() + 1);
        lines << (info.isDir() ? relative + "/" : relative + "  " + QString::number(info.size()));
    }
    lines.sort();
    return lines.join('\n');
}
