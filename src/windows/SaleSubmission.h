#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <memory>

class QFile;
class QNetworkAccessManager;
class QNetworkReply;
class QNetworkRequest;

// Reports one sale to the control room over plain HTTP, strictly one request after another: the
// sale record (POST /sale, JSON), whose answer carries the sale token; then the confirmation and,
// for a phone sale, the call recording (POST /sale-file?sale&kind&ext). Files are streamed from
// disk, never read whole. Nothing is retried; a second submit while one runs is refused. Main
// thread only.
class SaleSubmission : public QObject
{
    Q_OBJECT
public:
    /// One sale: its record and its attachments.
    struct Sale {
        QByteArray record;     ///< the JSON sale record
        bool phone = true;     ///< a phone sale also sends the call recording
        QString confirmFile;   ///< the confirmation as a file, or
        QByteArray confirmPng; ///< a screen snapshot as PNG
        QString callFile;      ///< the full call recording
    };

    /// Requests go over this network manager.
    explicit SaleSubmission(QNetworkAccessManager &net, QObject *parent = nullptr);
    ~SaleSubmission() override;

    /// Starts sending `sale` to the control room at `server` (host:port); false, and nothing
    /// happens, while another submission runs.
    bool submit(const QString &server, const Sale &sale);
    /// Whether a submission runs.
    bool busy() const { return m_busy; }
    /// What made the last submission fail, for the log (a file that would not open, the
    /// control room's answer); "" after a success.
    QString why() const { return m_why; }

    /// Idle time limits of the record, of a file and of a snapshot, in milliseconds.
    static constexpr int kRecordTimeoutMs = 20000;
    static constexpr int kFileTimeoutMs = 600000;
    static constexpr int kDataTimeoutMs = 120000;
    /// Longest answer to the record read, and longest sale token taken.
    static constexpr qint64 kMaxAnswerBytes = 64 * 1024;
    static constexpr int kMaxTokenLength = 256;

    /// Failure messages, one per step.
    static QString unreachable() { return QStringLiteral("Couldn't reach the control room"); }
    static QString confirmFailed() { return QStringLiteral("Confirmation upload failed"); }
    static QString callFailed() { return QStringLiteral("Call upload failed"); }

Q_SIGNALS:
    /// The submission ended: success, or failure with the step's message.
    void finished(bool ok, const QString &message);

private:
    using Done = std::function<void(bool ok)>;
    void postMeta();
    void uploadConfirm();
    void uploadCall();
    void uploadFile(const QString &kind, const QString &path, const Done &done);
    void uploadData(const QString &kind, const QString &ext, const QByteArray &data, const Done &done);
    void sendFile(const QString &kind, const QString &ext, int timeoutMs,
                  const std::function<QNetworkReply *(const QNetworkRequest &)> &post, const Done &done);
    void finish(bool ok, const QString &message);

    QNetworkAccessManager &m_net;
    QString m_server;
    Sale m_sale;
    QString m_token;
    bool m_busy = false;
    QString m_why;
    std::unique_ptr<QFile> m_file;
    QPointer<QNetworkReply> m_reply;
};
