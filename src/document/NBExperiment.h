// NBExperiment: a document recording what was done, laid out over calendar days.
//
// STORED FORM: the keys of every document (NBDocument.h: "layout", one key per paragraph, "uuid", "title",
// "author") and these metadata keys, each absent until set:
//   "aim"                 string, what the experiment sets out to do
//   "conclusion"          string, what came of it
//   "projectUUID"         string, UUID of the project the experiment belongs to
//   "projectTitle"        string, that project's title (kept here so lists need not open the project)
//   "rating"              integer, the user's rating (0 to 5 in the application)
//   "done"                boolean, the whole experiment is finished
//   "doneParagraphUUIDs"  array of strings, UUIDs of the paragraphs (steps) marked done, in marking order,
//                         never twice
//   "vignetteUUID"        string, UUID of the attachment paragraph whose image stands for the experiment
//   "parents"             array of strings, UUIDs of the experiments this one continues
//   "children"            array of strings, UUIDs of the experiments that continue this one
//   "connections"         array of strings, UUIDs of other related documents
// A package is a folder named "<UUID>.nbexperiment", UUID being the value of "uuid".
//
// Protocols are inserted into experiments by insertProtocol() (NBProtocolInsertion.cpp).
#pragma once

#include "document/NBDocument.h"

class NBProtocol;

inline constexpr const char* kNBExperimentPackageExtension = "nbexperiment";

inline constexpr const char* kNBExperimentAimKey = "aim";
inline constexpr const char* kNBExperimentConclusionKey = "conclusion";
inline constexpr const char* kNBExperimentProjectUUIDKey = "projectUUID";
inline constexpr const char* kNBExperimentProjectTitleKey = "projectTitle";
inline constexpr const char* kNBExperimentRatingKey = "rating";
inline constexpr const char* kNBExperimentDoneKey = "done";
inline constexpr const char* kNBExperimentDoneParagraphUUIDsKey = "doneParagraphUUIDs";
inline constexpr const char* kNBExperimentVignetteUUIDKey = "vignetteUUID";
inline constexpr const char* kNBExperimentParentsKey = "parents";
inline constexpr const char* kNBExperimentChildrenKey = "children";
inline constexpr const char* kNBExperimentConnectionsKey = "connections";

class NBExperiment : public NBDocument {
public:
    using NBDocument::NBDocument;

    // A new experiment package "<UUID>.nbexperiment" in `folderPath` (created when missing), loaded, with a
    // fresh "uuid" and the given title, written as `deviceIdentifier`.
    static std::shared_ptr<NBExperiment> newExperimentInFolder(const QString& folderPath,
                                                               const QString& deviceIdentifier,
                                                               const QString& title,
                                                               NBError* outError = nullptr);
    // An in-memory experiment with a fresh "uuid".
    static std::shared_ptr<NBExperiment> inMemoryExperiment();

    QString className() const override { return QStringLiteral("NBExperiment"); }
    bool isExperiment() const override { return true; }
    static QStringList validMetadataKeysForSubclass();

    QString aim() const { return stringMetadata(kNBExperimentAimKey); }
    void setAim(const QString& aim) { setMetadataValue(aim, QString::fromUtf8(kNBExperimentAimKey)); }
    QString conclusion() const { return stringMetadata(kNBExperimentConclusionKey); }
    void setConclusion(const QString& text) {
        setMetadataValue(text, QString::fromUtf8(kNBExperimentConclusionKey));
    }
    QString projectUUID() const { return stringMetadata(kNBExperimentProjectUUIDKey); }
    void setProjectUUID(const QString& uuid) {
        setMetadataValue(uuid, QString::fromUtf8(kNBExperimentProjectUUIDKey));
    }
    QString projectTitle() const { return stringMetadata(kNBExperimentProjectTitleKey); }
    void setProjectTitle(const QString& title) {
        setMetadataValue(title, QString::fromUtf8(kNBExperimentProjectTitleKey));
    }
    // Nothing when absent or not an integer.
    std::optional<qint64> rating() const;
    void setRating(qint64 rating) { setMetadataValue(rating, QString::fromUtf8(kNBExperimentRatingKey)); }
    bool done() const;
    void setDone(bool done) { setMetadataValue(done, QString::fromUtf8(kNBExperimentDoneKey)); }
    QString vignetteUUID() const { return stringMetadata(kNBExperimentVignetteUUIDKey); }
    void setVignetteUUID(const QString& uuid) {
        setMetadataValue(uuid, QString::fromUtf8(kNBExperimentVignetteUUIDKey));
    }
    QStringList parents() const { return stringListMetadata(kNBExperimentParentsKey); }
    void setParents(const QStringList& uuids) { setStringList(kNBExperimentParentsKey, uuids); }
    QStringList children() const { return stringListMetadata(kNBExperimentChildrenKey); }
    void setChildren(const QStringList& uuids) { setStringList(kNBExperimentChildrenKey, uuids); }
    QStringList connections() const { return stringListMetadata(kNBExperimentConnectionsKey); }
    void setConnections(const QStringList& uuids) { setStringList(kNBExperimentConnectionsKey, uuids); }

    // Steps marked done.
    QStringList doneParagraphUUIDs() const { return stringListMetadata(kNBExperimentDoneParagraphUUIDsKey); }
    void setDoneParagraphUUIDs(const QStringList& uuids) {
        setStringList(kNBExperimentDoneParagraphUUIDsKey, uuids);
    }
    bool isParagraphDone(const QString& paragraphUUID) const;
    // Adds the UUID to "doneParagraphUUIDs" (once) or takes it out; writes only when that changes it.
    void setParagraphDone(const QString& paragraphUUID, bool done);

    // Inserts the protocol (all of it, or the paragraphs whose UUIDs are in `paragraphUUIDs`, in the
    // protocol's order) from `startDay` on: each paragraph becomes a derived copy; a step keeps the
    // protocol step's UUID in "stepUUID" and the protocol's UUID in "protocolUUID"; the protocol's relative
    // day n becomes the calendar day `startDay` + n (paragraphs before the protocol's first day go to
    // `startDay`; a protocol day that is a calendar day stays that day), merged into this experiment's days
    // by appendParagraph(paragraph, day). The protocol's day paragraphs themselves are not copied: the days
    // are made as the paragraphs need them. Attachments are copied blob to blob. Returns the inserted
    // copies; fails (after inserting everything it could) when an attachment could not be copied.
    QList<NBParagraph> insertProtocol(NBProtocol& protocol, const NBDay& startDay,
                                      const QStringList& paragraphUUIDs = {}, NBError* outError = nullptr);

protected:
    QList<QStringList> validMetadataKeyChain() const override {
        return NBDocument::validMetadataKeyChain() << validMetadataKeysForSubclass();
    }

private:
    void setStringList(const char* key, const QStringList& list) {
        setMetadataValue(variantListFromStringList(list), QString::fromUtf8(key));
    }
};
