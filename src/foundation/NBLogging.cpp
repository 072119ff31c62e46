// Assertion reporting and the message formatter shared by every module.
#include "foundation/NBLogging.h"

#include <mutex>

Q_LOGGING_CATEGORY(lcFoundation, "quillon.foundation")

namespace {
std::mutex handlerMutex;
NBAssertionHandler& currentHandler() {
    static NBAssertionHandler handler;
    return handler;
}
} // namespace

void nbRaiseAssertion(const QLoggingCategory& category, const QString& message) {
    NBAssertionHandler handler;
    {
        std::lock_guard lock(handlerMutex);
        handler = currentHandler();
    }
    if (handler) {
        handler(category.categoryName(), message);
        return;
    }
    QMessageLogger(nullptr, 0, nullptr, category.categoryName()).fatal("%s", qUtf8Printable(message));
}

NBAssertionHandler nbSetAssertionHandler(NBAssertionHandler handler) {
    std::lock_guard lock(handlerMutex);
    NBAssertionHandler previous = std::move(currentHandler());
    currentHandler() = std::move(handler);
    return previous;
}

QString nbFormat(const QString& format, const QStringList& arguments) {
    QString result;
    result.reserve(format.size() + 16 * arguments.size());
    qsizetype argumentIndex = 0;
    for (qsizetype index = 0; index < format.size(); ++index) {
        if (format[index] == u'%' && index + 1 < format.size() && format[index + 1] == u'@') {
            if (argumentIndex < arguments.size())
                result += arguments[argumentIndex];
            ++argumentIndex;
            ++index;
        } else {
            result += format[index];
        }
    }
    return result;
}
