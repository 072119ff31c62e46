// NBLibraryLock: one process at a time runs a library's controllers.
//
// The lock is the file "PersistentInfo/Library.lock" under the library root, held with an exclusive
// flock() for as long as the library is set up. The kernel releases it when the process ends in any way,
// a crash included, so a lock is never left behind. While it holds the lock, the process keeps a short
// description of itself in the file, one "key: value" line each for "program", "process", "host" and
// "since"; another process that finds the library locked reads it to name the holder in its refusal. The
// file is never removed (removing it would let a third process lock a new file while the holder still holds
// the old one); an empty or unreadable description is shown as "another program".
#pragma once

#include "foundation/NBError.h"

#include <QString>

#include <memory>

inline constexpr const char* kNBLibraryLockFileName = "Library.lock";

class NBLibraryLock {
public:
    // Takes the lock in `persistentInfoDirectory`, or fails with code 90 naming the holder, or with the file
    // system's error.
    static std::unique_ptr<NBLibraryLock> lockDirectory(const QString& persistentInfoDirectory,
                                                        const QString& libraryRootPath, NBError* outError);
    // The description written by the process that holds the lock now, or empty when no process holds it.
    static QString holderOfDirectory(const QString& persistentInfoDirectory);
    ~NBLibraryLock();
    NBLibraryLock(const NBLibraryLock&) = delete;
    NBLibraryLock& operator=(const NBLibraryLock&) = delete;

private:
    explicit NBLibraryLock(int fileDescriptor) : fileDescriptor_(fileDescriptor) {}
    int fileDescriptor_ = -1;
};
