// Logging and assertions shared by every Quillon library.
//
// Messages that users or logs see are the system's own texts, written through one Qt logging category per
// module ("quillon.store", "quillon.dispatch", ...), so tests can capture and assert them (see
// foundation/testing/NBMessageCapture.h). Broken invariants are reported with nbRaiseAssertion: by default
// that writes the message as a fatal message and aborts; tests may install a handler that records instead,
// in which case the caller goes on as its documented failure path says (the block does not run, ...).
#pragma once

#include <QLoggingCategory>
#include <QString>

#include <functional>

Q_DECLARE_LOGGING_CATEGORY(lcFoundation)

// Handler for assertion failures: receives the category name and the message.
using NBAssertionHandler = std::function<void(const char* category, const QString& message)>;

// Reports a broken invariant. With the default handler this does not return.
void nbRaiseAssertion(const QLoggingCategory& category, const QString& message);

// Replaces the assertion handler for the whole process and returns the previous one. An empty handler
// restores the default (fatal) behaviour.
NBAssertionHandler nbSetAssertionHandler(NBAssertionHandler handler);

// Formats the system's message templates: each "%@" in turn is replaced by the next argument, as the
// messages are written ("%@:%@ should only be called from within the database queue").
QString nbFormat(const QString& format, const QStringList& arguments);

template <typename... Arguments> QString nbFormat(const char* format, const Arguments&... arguments) {
    return nbFormat(QString::fromUtf8(format), QStringList{QString(arguments)...});
}
