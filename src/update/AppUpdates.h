#pragma once

#include "Alert.h"
#include "ArchiveUnpacker.h"
#include "Release.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;

// Finds a newer published build of the agent in the event web service's release feed, offers it
// when the agent is idle, downloads it and proves it (digest, signature, contents, version), then
// shows the verified folder with instructions. It never replaces or restarts the installed agent.
// Checks run manual (every outcome in an alert) or automatic (silent unless there is an offer).
// Main thread only; unpacking and verification run on a worker thread.
class AppUpdates : public QObject
{
    Q_OBJECT
public:
    /// What this build is and where its updates come from.
    struct Options
    {
        bool serverLocked = false;  ///< builds without a fixed control room never check
        QString webBase;            ///< event web service base URL, no trailing slash
        QString runningVersion;     ///< CFBundleShortVersionString of the running agent
        QString identifier;         ///< CFBundleIdentifier a release must carry
        QString installedFolder;    ///< the running agent's folder, named in the instructions
        bool packageManaged = false; ///< installed by the system's package manager
        QByteArray publicKeyPem;    ///< key the release manifest must be signed with
        QString workRoot;           ///< where work folders go; defaultWorkRoot() when empty
        qint64 maxDownloadBytes = BRAVA_UPDATE_MAX_BYTES;
        int downloadDeadlineMs = 30 * 60000; ///< the whole download, however slowly it goes on
        ArchiveUnpacker::Limits limits;
    };

    static constexpr const char *kFeedPath = "/wp-json/brava-updates/v1/releases";
    /// The feed body must be shorter than this.
    static constexpr qint64 kMaxFeedBytes = 65536;
    static constexpr int kFeedTimeoutMs = 20000;

    /// Fetches over `net` for the build that `options` describe.
    AppUpdates(QNetworkAccessManager &net, Options options, QObject *parent = nullptr);
    ~AppUpdates() override;

    /// Answers whether updating now would disturb the agent; busy until the controller installs its test.
    std::function<bool()> isBusy = [] { return true; };
    /// Shows an alert (AlertBox::show unless replaced).
    AskFunction ask;
    /// Shows the verified folder, calling back when nothing could (FolderReveal::show unless replaced).
    std::function<void(const QString &, std::function<void()>)> reveal;

    /// Starts a check unless the build is not locked or one is running; returns at once. An
    /// automatic check in a build without an event web service only logs that no feed is configured.
    void check(bool manual);
    /// Offers the pending release when nothing runs, the agent is idle and it was not offered yet;
    /// shows a build verified while the agent was busy once it is idle.
    void offerPending();
    /// Downloads and verifies `release` unless busy, not allowed or not newer; returns at once. A
    /// build of that version verified before is shown again instead.
    void download(const Release &release);

    /// Whether a check or download is running.
    bool checking() const { return m_checking; }
    /// The newer release found by the last successful check.
    std::optional<Release> pending() const { return m_pending; }
    /// The version the offer was last shown for.
    QString prompted() const { return m_prompted; }
    /// Internal error text of the last failed check or download ("" after success).
    QString lastError() const { return m_lastError; }
    /// The verified folder of the last successful download.
    QString verifiedFolder() const { return m_verified; }
    /// What a running download is doing, as the menu shows it ("" when none runs).
    QString activity() const;
    /// The web service host release URLs must be on.
    QString host() const;

    /// The data folder's "updates": found and removed with the data folder, never cleaned by a reboot.
    static QString defaultWorkRoot();
    /// Version order (UpdatePolicy::newer).
    static bool newer(const QString &a, const QString &b);

Q_SIGNALS:
    /// A check ended (with or without an alert).
    void checkFinished();
    /// A download ended: verified or refused (lastError() says why).
    void downloadFinished(bool verified);

private:
    void feedArrived(QNetworkReply *reply, bool manual);
    void decide(const QByteArray &body, bool manual);
    void checkFailed(const QString &error, bool manual);
    void endCheck();
    void downloaded(const Release &release, const QString &work, const QString &file, const QString &error,
                    const QString &sha256);
    void verified(bool ok, const QString &error, const QString &detail, const QString &folder);
    void handOver();
    void discardWork();
    void pruneEarlier(const QString &keep);
    void show(const Alert &alert, std::function<void(int)> answer = {});

    QNetworkAccessManager &m_net;
    Options m_options;
    bool m_checking = false;
    std::optional<Release> m_pending;
    QString m_prompted;
    QString m_lastError;
    QString m_verified;
    QString m_work; ///< the running download's work folder
    QString m_verifiedVersion;      ///< the version in m_verified
    bool m_handOverOwed = false;    ///< verified while busy: shown once the agent is idle
    qint64 m_received = -1;         ///< bytes of the running download (-1: none runs)
    qint64 m_total = -1;            ///< its length, -1 when the server did not say
    bool m_verifying = false;       ///< the running download is being unpacked and checked
};
