#pragma once

#include <QFile>
#include <QObject>
#include <QString>
#include <QThreadPool>
#include <QTimer>
#include <QUrl>

#include <functional>
#include <memory>

class QNetworkAccessManager;
class QNetworkReply;
class Sha256;

// One release archive streamed to a file: every redirect and the final address must pass the
// download URL policy, the status must be exactly 200, and the transfer stops as soon as it passes
// the size cap (whether or not the server gave a length). The SHA-256 is computed on the way. The
// file is opened, written and closed on a thread of its own, a bounded number of pieces at a time
// (the network is read no faster than the disk takes it); the main thread never waits on the disk.
// A transfer that trickles on gets a deadline for the whole of it, beyond the time-out of silence.
class UpdateDownload : public QObject
{
    Q_OBJECT
public:
    /// A download of `url` (whose host must be `host`) into `file`, at most `maxBytes` long.
    /// The whole transfer ends with a fault after `deadlineMs`.
    UpdateDownload(QNetworkAccessManager &net, const QUrl &url, const QString &host, const QString &file,
                   qint64 maxBytes, int deadlineMs = kDeadlineMs, QObject *parent = nullptr);
    ~UpdateDownload() override;

    /// Starts the transfer; finished() follows once.
    void start();

    /// Time-out of the whole transfer when nothing arrives, in milliseconds.
    static constexpr int kTimeoutMs = 300000;
    /// Time-out of the whole transfer however slowly it goes on, in milliseconds.
    static constexpr int kDeadlineMs = 30 * 60000;
    /// Pieces (of 64 kB at most) handed to the disk thread and not written yet, at most.
    static constexpr int kMaxPiecesInFlight = 16;

Q_SIGNALS:
    /// The transfer ended: on success `error` is empty and `sha256` is the file's digest.
    void finished(const QString &error, const QString &sha256);
    /// Bytes received so far, of `total` (-1 while the server has not said).
    void progress(qint64 received, qint64 total);

private:
    void receive();
    void toDisk(std::function<QString()> job);
    void written(const QString &error);
    void done();
    void endIfDrained();
    void fail(const QString &error);

    QNetworkAccessManager &m_net;
    QUrl m_url;
    QString m_host;
    QFile m_file;                   ///< used on the disk thread only
    std::unique_ptr<Sha256> m_sha;  ///< used on the disk thread only
    qint64 m_max;
    int m_deadlineMs;
    QTimer m_deadline;
    qint64 m_total = -1;
    qint64 m_received = 0;
    QNetworkReply *m_reply = nullptr;
    QString m_error;
    int m_inFlight = 0;             ///< disk jobs not reported back yet
    bool m_ended = false;           ///< the reply has finished
    bool m_closing = false;         ///< the last job (flush and close) is queued
    QThreadPool m_disk;             ///< one thread: the file's jobs in order
};
