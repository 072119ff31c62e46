// Captures log messages and assertion failures for tests.
#include "foundation/testing/NBMessageCapture.h"

#include <atomic>

namespace {
std::atomic<NBMessageCapture*> activeCapture{nullptr};
}

NBMessageCapture::NBMessageCapture() {
    activeCapture.store(this);
    previousHandler_ = qInstallMessageHandler(&NBMessageCapture::handleMessage);
    previousAssertionHandler_ = nbSetAssertionHandler([this](const char* category, const QString& message) {
        record(QtFatalMsg, QString::fromUtf8(category), message);
    });
}

NBMessageCapture::~NBMessageCapture() {
    nbSetAssertionHandler(std::move(previousAssertionHandler_));
    qInstallMessageHandler(previousHandler_);
    activeCapture.store(nullptr);
}

void NBMessageCapture::handleMessage(QtMsgType type, const QMessageLogContext& context, const QString& text) {
    if (NBMessageCapture* capture = activeCapture.load())
        capture->record(type, QString::fromUtf8(context.category ? context.category : "default"), text);
}

void NBMessageCapture::record(QtMsgType type, const QString& category, const QString& text) {
    std::lock_guard lock(mutex_);
    messages_.push_back({type, category, text});
}

std::vector<NBCapturedMessage> NBMessageCapture::messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
}

QStringList NBMessageCapture::texts() const {
    QStringList result;
    for (const NBCapturedMessage& message : messages())
        result << message.text;
    return result;
}

QStringList NBMessageCapture::assertions() const {
    QStringList result;
    for (const NBCapturedMessage& message : messages())
        if (message.type == QtFatalMsg)
            result << message.text;
    return result;
}

bool NBMessageCapture::contains(const QString& text) const {
    for (const NBCapturedMessage& message : messages())
        if (message.text.contains(text))
            return true;
    return false;
}

void NBMessageCapture::clear() {
    std::lock_guard lock(mutex_);
    messages_.clear();
}
