// The error value and its factory.
#include "foundation/NBError.h"

NBError NBError::errorWithObject(std::string_view object, qint64 code, const QString& localizedDescription) {
    return errorWithObject(object, code, localizedDescription, QString(), QString(), nullptr);
}

NBError NBError::errorWithObject(std::string_view object, qint64 code, const QString& localizedDescription,
                                 const QString& localizedFailureReason) {
    return errorWithObject(object, code, localizedDescription, localizedFailureReason, QString(), nullptr);
}

NBError NBError::errorWithObject(std::string_view object, qint64 code, const QString& localizedDescription,
                                 const QString& localizedFailureReason,
                                 const QString& localizedRecoverySuggestion, const NBError* underlyingError) {
    NBError error;
    error.domain_ = QString::fromUtf8(object.data(), qsizetype(object.size()));
    error.code_ = code;
    error.description_ = localizedDescription;
    error.failureReason_ = localizedFailureReason;
    error.recoverySuggestion_ = localizedRecoverySuggestion;
    if (underlyingError)
        error.underlying_ = std::make_shared<const NBError>(*underlyingError);
    return error;
}

NBError& NBError::setUserInfoValue(const QString& key, const QVariant& value) {
    userInfo_.insert(key, value);
    return *this;
}

NBError& NBError::setErrors(std::vector<NBError> errors) {
    errors_ = std::move(errors);
    return *this;
}

QString NBError::description() const {
    QString text = QStringLiteral("%1 (%2): %3").arg(domain_).arg(code_).arg(description_);
    if (!failureReason_.isEmpty())
        text += QStringLiteral(" ") + failureReason_;
    if (!recoverySuggestion_.isEmpty())
        text += QStringLiteral(" ") + recoverySuggestion_;
    for (const NBError* cause = underlying_.get(); cause; cause = cause->underlying_.get())
        text += QStringLiteral("\ncaused by: %1 (%2): %3")
                    .arg(cause->domain_)
                    .arg(cause->code_)
                    .arg(cause->description_ + (cause->failureReason_.isEmpty()
                                                    ? QString()
                                                    : QStringLiteral(" ") + cause->failureReason_));
    for (const NBError& gathered : errors_)
        text +=
            QStringLiteral("\n- ") + QString(gathered.description()).replace('\n', QStringLiteral("\n  "));
    return text;
}

bool NBError::operator==(const NBError& other) const {
    auto sameUnderlying = (!underlying_ && !other.underlying_) ||
                          (underlying_ && other.underlying_ && *underlying_ == *other.underlying_);
    return domain_ == other.domain_ && code_ == other.code_ && description_ == other.description_ &&
           failureReason_ == other.failureReason_ && recoverySuggestion_ == other.recoverySuggestion_ &&
           sameUnderlying && userInfo_ == other.userInfo_ && errors_ == other.errors_;
}
