// OAKStoreWatcher: the process-wide inotify thread behind store change detection (see OAKStoreWatcher.h).
#include "store/OAKStoreWatcher.h"

#include "foundation/NBLogging.h"
#include "store/OAKStoreLogging.h"

#include <QFile>
#include <QSet>

#include <cerrno>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

// Every watch gets the same mask, so that stores sharing a folder (two devices' stores on one package in one
// process) share its watch: entries appearing, disappearing or being renamed, files written, and the folder
// itself going away.
constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                                IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

} // namespace

struct OAKStoreWatcher::Private {
    int descriptor = -1;
    std::mutex mutex;
    Token nextToken = 1;
    std::map<Token, Handler> handlers;
    std::map<Token, QSet<QString>> foldersByToken;
    struct Watch {
        QString folder;
        std::set<Token> tokens;
    };
    std::map<int, Watch> watches;
    std::map<QString, int> watchByFolder;

    void removeTokenFromFolder(Token token, const QString& folder) {
        const auto found = watchByFolder.find(folder);
        if (found == watchByFolder.end())
            return;
        Watch& watch = watches[found->second];
        watch.tokens.erase(token);
        if (watch.tokens.empty()) {
            inotify_rm_watch(descriptor, found->second);
            watches.erase(found->second);
            watchByFolder.erase(found);
        }
    }
};

OAKStoreWatcher& OAKStoreWatcher::shared() {
    // Created on first use and kept for the life of the process, with its thread.
    static OAKStoreWatcher* watcher = new OAKStoreWatcher();
    return *watcher;
}

OAKStoreWatcher::OAKStoreWatcher() : d(std::make_unique<Private>()) {
    d->descriptor = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (d->descriptor < 0) {
        qCCritical(lcStore).noquote()
            << QStringLiteral("Could not start watching store packages: inotify is not "
                              "available (%1)")
                   .arg(QString::fromLocal8Bit(strerror(errno)));
        return;
    }
    std::thread([this] { run(); }).detach();
}

OAKStoreWatcher::Token OAKStoreWatcher::registerHandler(Handler handler) {
    if (d->descriptor < 0)
        return 0;
    std::lock_guard lock(d->mutex);
    const Token token = d->nextToken++;
    d->handlers.emplace(token, std::move(handler));
    return token;
}

void OAKStoreWatcher::setWatchedFolders(Token token, const QStringList& folders) {
    if (token == 0)
        return;
    std::lock_guard lock(d->mutex);
    QSet<QString>& current = d->foldersByToken[token];
    const QSet<QString> wanted(folders.begin(), folders.end());
    QSet<QString> unwanted = current;
    unwanted.subtract(wanted);
    for (const QString& folder : unwanted) {
        d->removeTokenFromFolder(token, folder);
        current.remove(folder);
    }
    for (const QString& folder : wanted) {
        if (current.contains(folder))
            continue;
        auto found = d->watchByFolder.find(folder);
        if (found == d->watchByFolder.end()) {
            const int watch =
                inotify_add_watch(d->descriptor, QFile::encodeName(folder).constData(), kWatchMask);
            if (watch < 0) {
                qCWarning(lcStore).noquote()
                    << nbFormat("ERROR: could not start FSEventStream for path %@", folder);
                continue;
            }
            // A folder replaced under the same name may come back with the watch of another path: drop the
            // old name's entry.
            if (const auto previous = d->watches.find(watch); previous != d->watches.end())
                d->watchByFolder.erase(previous->second.folder);
            d->watches[watch].folder = folder;
            found = d->watchByFolder.insert_or_assign(folder, watch).first;
        }
        d->watches[found->second].tokens.insert(token);
        current.insert(folder);
    }
}

void OAKStoreWatcher::unregisterHandler(Token token) {
    if (token == 0)
        return;
    std::lock_guard lock(d->mutex);
    for (const QString& folder : d->foldersByToken[token])
        d->removeTokenFromFolder(token, folder);
    d->foldersByToken.erase(token);
    d->handlers.erase(token);
}

void OAKStoreWatcher::run() {
    alignas(struct inotify_event) char buffer[64 * 1024];
    for (;;) {
        pollfd descriptor{d->descriptor, POLLIN, 0};
        if (poll(&descriptor, 1, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        const ssize_t length = read(d->descriptor, buffer, sizeof buffer);
        if (length <= 0)
            continue;
        std::map<Token, QStringList> changed;
        std::vector<std::pair<Handler, QStringList>> calls;
        {
            std::lock_guard lock(d->mutex);
            for (ssize_t offset = 0; offset < length;) {
                const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
                offset += ssize_t(sizeof(struct inotify_event) + event->len);
                if (event->mask & IN_Q_OVERFLOW) {
                    // Events were lost: every store checks its package.
                    for (const auto& [token, folders] : d->foldersByToken)
                        changed[token] << folders.values();
                    continue;
                }
                const auto watch = d->watches.find(event->wd);
                if (watch == d->watches.end())
                    continue;
                const QString path = event->len > 0 ? watch->second.folder + QLatin1Char('/') +
                                                          QFile::decodeName(QByteArray(event->name))
                                                    : watch->second.folder;
                for (const Token token : watch->second.tokens)
                    changed[token] << path;
                if (event->mask & IN_IGNORED) {
                    // The folder went away and the kernel dropped its watch.
                    for (const Token token : watch->second.tokens)
                        d->foldersByToken[token].remove(watch->second.folder);
                    d->watchByFolder.erase(watch->second.folder);
                    d->watches.erase(watch);
                }
            }
            for (auto& [token, paths] : changed) {
                if (const auto handler = d->handlers.find(token); handler != d->handlers.end())
                    calls.emplace_back(handler->second, std::move(paths));
            }
        }
        for (const auto& [handler, paths] : calls)
            handler(paths);
    }
}
