// NBProtocol: a reusable recipe, inserted into experiments (NBExperiment::insertProtocol).
//
// STORED FORM: the keys of every document (NBDocument.h: "layout", one key per paragraph, "uuid", "title",
// "author") and these metadata keys, each absent until set:
//   "summary"     string, what the protocol is for, shown in lists and searched
//   "categories"  array of strings, the user's categories for the protocol, in the user's order
// A protocol lays its steps out over relative days (day paragraphs holding "{day:0}", "{day:3}", ...), which
// become calendar days when it is inserted into an experiment. A package is a folder named
// "<UUID>.nbprotocol", UUID being the value of "uuid".
#pragma once

#include "document/NBDocument.h"

inline constexpr const char* kNBProtocolPackageExtension = "nbprotocol";

inline constexpr const char* kNBProtocolSummaryKey = "summary";
inline constexpr const char* kNBProtocolCategoriesKey = "categories";

class NBProtocol : public NBDocument {
public:
    using NBDocument::NBDocument;

    // A new protocol package "<UUID>.nbprotocol" in `folderPath` (created when missing), loaded, with a
    // fresh "uuid" and the given title, written as `deviceIdentifier`.
    static std::shared_ptr<NBProtocol> newProtocolInFolder(const QString& folderPath,
                                                           const QString& deviceIdentifier,
                                                           const QString& title, NBError* outError = nullptr);
    // An in-memory protocol with a fresh "uuid".
    static std::shared_ptr<NBProtocol> inMemoryProtocol();

    QString className() const override { return QStringLiteral("NBProtocol"); }
    bool isProtocol() const override { return true; }
    static QStringList validMetadataKeysForSubclass();

    QString summary() const { return stringMetadata(kNBProtocolSummaryKey); }
    void setSummary(const QString& summary) {
        setMetadataValue(summary, QString::fromUtf8(kNBProtocolSummaryKey));
    }
    QStringList categories() const { return stringListMetadata(kNBProtocolCategoriesKey); }
    void setCategories(const QStringList& categories) {
        setMetadataValue(variantListFromStringList(categories), QString::fromUtf8(kNBProtocolCategoriesKey));
    }

protected:
    QList<QStringList> validMetadataKeyChain() const override {
        return NBDocument::validMetadataKeyChain() << validMetadataKeysForSubclass();
    }
};
