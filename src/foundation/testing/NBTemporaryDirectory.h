// Test helper: a unique temporary folder removed at the end of the test unless the test failed, in which
// case its path and a listing of its tree are printed so the failure can be examined.
#pragma once

#include <QString>
#include <QTemporaryDir>

class NBTemporaryDirectory {
public:
    NBTemporaryDirectory();
    ~NBTemporaryDirectory();
    QString path() const { return directory_.path(); }
    QString filePath(const QString& name) const { return directory_.filePath(name); }
    // Every file below the folder with its size, one per line, sorted: for failure messages.
    QString listing() const;

private:
    QTemporaryDir directory_;
};
