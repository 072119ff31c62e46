// Test helpers: capture what the libraries log and the assertion failures they raise, so tests can assert
// the system's message texts. Used only by test programs (library quillon_testing).
#pragma once

#include "foundation/NBLogging.h"

#include <QString>
#include <QStringList>

#include <mutex>
#include <vector>

struct NBCapturedMessage {
    QtMsgType type;
    QString category;
    QString text;
};

// While alive, records every Qt log message (from any thread) instead of printing it, and turns assertion
// failures into recorded messages of type QtFatalMsg that do not abort.
class NBMessageCapture {
public:
    NBMessageCapture();
    ~NBMessageCapture();
    NBMessageCapture(const NBMessageCapture&) = delete;
    NBMessageCapture& operator=(const NBMessageCapture&) = delete;

    std::vector<NBCapturedMessage> messages() const;
    QStringList texts() const;
    QStringList assertions() const;
    // True when some message contains the text.
    bool contains(const QString& text) const;
    void clear();

private:
    static void handleMessage(QtMsgType type, const QMessageLogContext& context, const QString& text);
    void record(QtMsgType type, const QString& category, const QString& text);

    mutable std::mutex mutex_;
    std::vector<NBCapturedMessage> messages_;
    QtMessageHandler previousHandler_ = nullptr;
    NBAssertionHandler previousAssertionHandler_;
};
