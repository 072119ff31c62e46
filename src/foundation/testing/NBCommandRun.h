// Test helpers for black-box tests of programs: run a command and collect what it printed, and take a
// snapshot of a folder tree so a test can show that a command changed nothing on disk.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <string>

struct NBCommandRun {
    int exitCode = -1; // -1 when the program crashed or did not finish
    QString out;
    QString err;
    std::string describe() const;
};

// Runs `program arguments...` with no standard input and waits up to a minute for it.
NBCommandRun nbRunCommand(const QString& program, const QStringList& arguments);

// Every file and folder below `root` (relative path) with a hash of its contents: two snapshots are equal
// when nothing was created, removed or changed.
QMap<QString, QByteArray> nbTreeSnapshot(const QString& root);
