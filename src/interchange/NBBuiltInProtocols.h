// NBBuiltInProtocols: the protocols every new library starts with, shipped inside the program.
//
// Each is a file "<protocol UUID>.mdown" in the Quillon Markdown form (NBMarkdownWriter.h), kept in the
// source tree in src/interchange/BuiltInProtocols and compiled into this library as Qt resources under
// ":/quillon/BuiltInProtocols". The library manager imports every file of that folder once into a library
// (resourcesDirectory() is the folder to give it); the UUID in a file's front matter must equal its name.
// Their steps write durations so that timers start from them: one duration in each timed paragraph, in a
// form the duration detector reads ("5 min", "30 seconds", "1 h"), and no other number followed by a unit
// of time.
#pragma once

#include <QString>
#include <QStringList>

class NBBuiltInProtocols {
public:
    // The resources folder that holds "BuiltInProtocols".
    static QString resourcesDirectory();
    // The protocol files, sorted by name.
    static QStringList protocolFilePaths();
};
