// A small program the store's tests run as a separate process: it writes values into a package as one
// device, so tests can kill it (SIGKILL right after a save) or run two of it against one package at once.
//
//   quillon_store_test_writer <package> <device> <count> <key prefix> [--keys N] [--save-every N] [--hold]
//
// Writes <count> values: key "<prefix><i mod N>" (N = --keys, default <count>) gets the dictionary
// {"device": <device>, "sequence": i}. With --save-every, saves after every N writes. Then saves, prints
// "saved" on its own line and, with --hold, waits to be killed; otherwise tears the store down and exits.
#include "store/OAKStore.h"

#include <QCoreApplication>
#include <QStringList>
#include <QThread>

#include <cstdio>

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 5) {
        std::fprintf(
            stderr,
            "usage: %s <package> <device> <count> <key prefix> [--keys N] [--save-every N] [--hold]\n",
            argv[0]);
        return 2;
    }
    const QString package = arguments[1];
    const QString device = arguments[2];
    const int count = arguments[3].toInt();
    const QString prefix = arguments[4];
    int keyCount = count;
    int saveEvery = 0;
    bool hold = false;
    for (int index = 5; index < arguments.size(); ++index) {
        if (arguments[index] == QLatin1String("--keys") && index + 1 < arguments.size())
            keyCount = arguments[++index].toInt();
        else if (arguments[index] == QLatin1String("--save-every") && index + 1 < arguments.size())
            saveEvery = arguments[++index].toInt();
        else if (arguments[index] == QLatin1String("--hold"))
            hold = true;
    }
    auto store = OAKStore::storeWithURL(QUrl::fromLocalFile(package), device);
    store->loadNow();
    for (int sequence = 0; sequence < count; ++sequence) {
        const QString key = prefix + QString::number(sequence % std::max(1, keyCount));
        store->setPropertyListValue(
            QVariantMap{{QStringLiteral("device"), device}, {QStringLiteral("sequence"), qint64(sequence)}},
            key);
        if (saveEvery > 0 && (sequence + 1) % saveEvery == 0 && !store->saveNow())
            return 1;
    }
    if (!store->saveNow())
        return 1;
    std::printf("saved\n");
    std::fflush(stdout);
    if (hold) {
        for (;;)
            QThread::sleep(1);
    }
    store->tearDownNow();
    return 0;
}
