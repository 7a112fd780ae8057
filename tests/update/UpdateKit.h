#pragma once

#include "Alert.h"
#include "AppUpdates.h"
#include "HttpsStub.h"

#include <QNetworkAccessManager>
#include <QTemporaryDir>

#include <memory>

// What the update tests share: an HTTPS release server on a loopback address of its own (port 443,
// certificate from a CA made for this run and trusted by this process only), release folders signed
// with scripts/sign-release, zips written entry by entry, and an updater whose alerts are recorded.
class UpdateKit
{
public:
    /// One entry of a zip written by writeZip.
    struct ZipItem
    {
        QString path;
        QByteArray data;
        unsigned mode = 0100644; ///< file type and permission bits
        QString target;          ///< a link's target
    };

    UpdateKit();
    ~UpdateKit();
    /// "" when the server runs, else why not (the test skips).
    QString unavailable;

    /// The release server and its base URL (https://<address>).
    std::unique_ptr<HttpsStub> server;
    QString host;
    QString base() const { return QStringLiteral("https://") + host; }
    /// A URL on the release server.
    QUrl url(const QString &path) const { return QUrl(base() + path); }

    /// A temporary folder for this test program.
    QTemporaryDir dir;
    /// The folder that stands for the installed agent; it must never change.
    QString installed;
    /// A listing of `folder` with each file's digest, to show it unchanged.
    static QStringList snapshot(const QString &folder);

    /// A release folder "<name>" under dir: brava-recorder (an ELF for this machine), Info.ini of
    /// `version`, lib/data.txt and a link to it.
    QString makeFolder(const QString &name, const QString &version,
                       const QString &identifier = QStringLiteral("com.vantorra.brava-recorder"));
    /// Runs scripts/sign-release; returns the feed entry it prints ("" on failure).
    static QByteArray sign(const QString &folder, const QString &key, const QUrl &url);
    /// Path of a key under tests/update/keys.
    static QString key(const QString &name);
    /// A feed document holding these release entries.
    static QByteArray feed(const QList<QByteArray> &entries, int schema = 1, const QString &edition = QStringLiteral("show"));
    /// A feed entry.
    static QByteArray entry(const QString &version, const QUrl &url, const QString &sha256, bool enabled = true,
                            const QString &platform = QStringLiteral("linux"));

    /// Writes a zip of these entries (libarchive).
    static void writeZip(const QString &path, const QList<ZipItem> &items);
    /// The files, folders and links of `folder`, named below `prefix`.
    static QList<ZipItem> itemsOf(const QString &folder, const QString &prefix);
    /// The digest of a file.
    static QString sha256(const QString &path);

    /// An updater for this server: locked build, running `version`, test key, downloads capped at
    /// 1 MB, work folders under dir; alerts land in `alerts`, answered with `answer`.
    std::unique_ptr<AppUpdates> updater(const QString &version = QStringLiteral("1.9"));
    QNetworkAccessManager net;
    QList<Alert> alerts;
    int answer = -1;
    bool busy = false;
    QStringList revealed;
    /// Largest download of the updaters made here.
    static constexpr qint64 kCap = 1 << 20;
};
