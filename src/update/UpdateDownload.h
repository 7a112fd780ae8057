#pragma once

#include <QFile>
#include <QObject>
#include <QString>
#include <QUrl>

#include <memory>

class QNetworkAccessManager;
class QNetworkReply;
class Sha256;

// One release archive streamed to a file: every redirect and the final address must pass the
// download URL policy, the status must be exactly 200, and the transfer stops as soon as it passes
// the size cap (whether or not the server gave a length). The SHA-256 is computed on the way.
class UpdateDownload : public QObject
{
    Q_OBJECT
public:
    /// A download of `url` (whose host must be `host`) into `file`, at most `maxBytes` long.
    UpdateDownload(QNetworkAccessManager &net, const QUrl &url, const QString &host, const QString &file,
                   qint64 maxBytes, QObject *parent = nullptr);
    ~UpdateDownload() override;

    /// Starts the transfer; finished() follows once.
    void start();

    /// Time-out of the whole transfer when nothing arrives, in milliseconds.
    static constexpr int kTimeoutMs = 300000;

Q_SIGNALS:
    /// The transfer ended: on success `error` is empty and `sha256` is the file's digest.
    void finished(const QString &error, const QString &sha256);

private:
    void receive();
    void done();
    void fail(const QString &error);

    QNetworkAccessManager &m_net;
    QUrl m_url;
    QString m_host;
    QFile m_file;
    qint64 m_max;
    qint64 m_received = 0;
    std::unique_ptr<Sha256> m_sha;
    QNetworkReply *m_reply = nullptr;
    QString m_error;
};
