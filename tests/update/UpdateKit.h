#pragma once

#include "Alert.h"
#include "AppUpdates.h"
#include "HttpsStub.h"

#include <QNetworkAccessManager>
#include <QTemporaryDir>

#include <memory>

// What the update tests share: an HTTPS release server on a loopback address of its own (port 443,
// certificate from a CA made for this run and trusted by this process only) and an updater whose
// alerts are recorded.
class UpdateKit
{
public:
    UpdateKit();
    /// "" when the server runs, else why not (the test skips).
    QString unavailable;

    /// A temporary folder for this test program.
    QTemporaryDir dir;
    /// The release server and its address.
    std::unique_ptr<HttpsStub> server;
    QString host;
    QString base() const { return QStringLiteral("https://") + host; }
    /// The folder that stands for the installed agent; it must never change.
    QString installed;
    /// Path of a key under tests/update/keys.
    static QString key(const QString &name) { return QStringLiteral(BRAVA_SOURCE_DIR "/tests/update/keys/") + name; }
    /// Runs command[0] with the rest as arguments in `cwd`; returns its output.
    static QByteArray run(const QString &cwd, const QStringList &command);
    /// A file's bytes ("" when unreadable).
    static QByteArray readAll(const QString &path);

    /// An updater for this server: locked build, running `version`, test key, downloads capped at
    /// kCap, work folders under dir; alerts land in `alerts`, answered with `answer`.
    std::unique_ptr<AppUpdates> updater(const QString &version = QStringLiteral("1.9"));
    QNetworkAccessManager net;
    QList<Alert> alerts;
    int answer = -1;
    bool busy = false;
    int deadlineMs = 30 * 60000; ///< the updaters' deadline for a whole download
    QStringList revealed;
    bool revealFails = false; ///< nothing on the desktop can show the folder
    static constexpr qint64 kCap = 1 << 20;
};
