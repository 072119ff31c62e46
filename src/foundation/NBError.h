// NBError: what went wrong, for users and logs.
//
// An error carries a domain (the class name of the object that reports it), a code (each class numbers its
// codes in small steps, mostly multiples of ten), a localized description, an optional failure reason and
// recovery suggestion, an optional underlying error, and optional user information (for instance the
// "ErrorArray" of an error that stands for several). Errors are values; they are built by one factory,
// errorWithObject(), and its longer forms. Operations that can fail return a flag or a value and fill an
// optional NBError* out-parameter.
#pragma once

#include <QString>
#include <QVariantMap>

#include <memory>
#include <string_view>
#include <vector>

class NBError {
public:
    NBError() = default;

    // The factory. `object` is the reporting class's name (its domain).
    static NBError errorWithObject(std::string_view object, qint64 code, const QString& localizedDescription);
    static NBError errorWithObject(std::string_view object, qint64 code, const QString& localizedDescription,
                                   const QString& localizedFailureReason);
    static NBError errorWithObject(std::string_view object, qint64 code, const QString& localizedDescription,
                                   const QString& localizedFailureReason,
                                   const QString& localizedRecoverySuggestion,
                                   const NBError* underlyingError);

    bool isNull() const { return domain_.isEmpty() && code_ == 0 && description_.isEmpty(); }
    const QString& domain() const { return domain_; }
    qint64 code() const { return code_; }
    const QString& localizedDescription() const { return description_; }
    const QString& localizedFailureReason() const { return failureReason_; }
    const QString& localizedRecoverySuggestion() const { return recoverySuggestion_; }
    const NBError* underlyingError() const { return underlying_.get(); }
    const QVariantMap& userInfo() const { return userInfo_; }
    // Errors gathered under this one (an operation that failed in several places).
    const std::vector<NBError>& errors() const { return errors_; }

    NBError& setUserInfoValue(const QString& key, const QVariant& value);
    NBError& setErrors(std::vector<NBError> errors);

    // "Domain (code): description. reason. suggestion", then each underlying error on its own line,
    // introduced by "caused by: ", then the gathered errors.
    QString description() const;

    bool operator==(const NBError& other) const;

private:
    QString domain_;
    qint64 code_ = 0;
    QString description_;
    QString failureReason_;
    QString recoverySuggestion_;
    std::shared_ptr<const NBError> underlying_;
    QVariantMap userInfo_;
    std::vector<NBError> errors_;
};

// Fills *outError when the caller asked for it; returns false so a failing operation can
// `return nbFail(outError, error);`.
inline bool nbFail(NBError* outError, const NBError& error) {
    if (outError)
        *outError = error;
    return false;
}
