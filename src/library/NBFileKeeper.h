// NBFileKeeper: how a bucket asks for access to a folder outside the library before it uses it.
//
// On this platform no grant is needed from the system, so the keeper the library uses (NBLocalFileKeeper)
// checks what a grant stands for: the folder exists, is a folder, and this user can list, read and write
// it. A synchronised folder that fails the check is refused, and the bucket logs "Could not access bucket
// at path %@"; the documents controller looks for it again later (NBDocumentsController.h).
#pragma once

#include <QString>

class NBFileKeeper {
public:
    virtual ~NBFileKeeper() = default;
    // True when the folder may be used. `userPrompt` and `userMessage` are what a keeper that asks the
    // user shows ("Access Documents", "Quillon needs access to ...").
    virtual bool startAccessingDirectoryAtPath(const QString& path, const QString& userPrompt,
                                               const QString& userMessage) = 0;
    virtual void stopAccessingDirectoryAtPath(const QString& path) { (void)path; }
};

class NBLocalFileKeeper : public NBFileKeeper {
public:
    bool startAccessingDirectoryAtPath(const QString& path, const QString& userPrompt,
                                       const QString& userMessage) override;
    // The check itself, for callers that only want to know.
    static bool directoryIsUsable(const QString& path);
};
