#include "SaleSubmission.h"

#include "Protocol.h"
#include "QueryString.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

namespace {

QString word(const char *w)
{
    return QString::fromLatin1(w);
}

bool ok200(QNetworkReply *reply)
{
    return reply->error() == QNetworkReply::NoError
        && reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == 200;
}

// Why an answer is not a 200, in words.
QString answerProblem(QNetworkReply *reply)
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    return status > 0 && status != 200 ? QStringLiteral("the control room answered %1").arg(status) : reply->errorString();
}

} // namespace

SaleSubmission::SaleSubmission(QNetworkAccessManager &net, QObject *parent)
    : QObject(parent)
    , m_net(net)
{
}

SaleSubmission::~SaleSubmission()
{
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
    }
}

bool SaleSubmission::submit(const QString &server, const Sale &sale)
{
    if (m_busy)
        return false;
    m_busy = true;
    m_server = server;
    m_sale = sale;
    m_token.clear();
    m_why.clear();
    postMeta();
    return true;
}

void SaleSubmission::postMeta()
{
    const QUrl url = QueryString::at(QStringLiteral("http"), m_server, word(Protocol::Path::sale), {});
    const auto failed = [this] { finish(false, unreachable()); };
    if (!url.isValid()) {
        m_why = QStringLiteral("no usable address in \"%1\"").arg(m_server);
        QTimer::singleShot(0, this, failed); // the caller hears of it the same way as of any other end
        return;
    }
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setTransferTimeout(kRecordTimeoutMs);
    QNetworkReply *reply = m_net.post(request, m_sale.record);
    m_reply = reply;
    // The answer is small; one that is not is no sale token.
    connect(reply, &QNetworkReply::readyRead, this, [reply] {
        if (reply->bytesAvailable() > kMaxAnswerBytes)
            reply->abort();
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        reply->deleteLater();
        const QJsonValue token = ok200(reply)
            ? QJsonDocument::fromJson(reply->read(kMaxAnswerBytes)).object().value(word(Protocol::Sale::token))
            : QJsonValue();
        if (!token.isString() || token.toString().isEmpty() || token.toString().size() > kMaxTokenLength) {
            m_why = ok200(reply) ? QStringLiteral("no sale token in the answer") : answerProblem(reply);
            finish(false, unreachable());
            return;
        }
        m_token = token.toString();
        uploadConfirm();
    });
}

void SaleSubmission::uploadConfirm()
{
    const QString kind = word(Protocol::SaleFileQuery::confirm);
    const Done next = [this](bool ok) {
        if (!ok)
            finish(false, confirmFailed());
        else if (!m_sale.phone)
            finish(true, QString());
        else
            uploadCall();
    };
    if (!m_sale.confirmFile.isEmpty())
        uploadFile(kind, m_sale.confirmFile, next);
    else
        uploadData(kind, QStringLiteral("png"), m_sale.confirmPng, next);
}

void SaleSubmission::uploadCall()
{
    const Done done = [this](bool ok) { finish(ok, ok ? QString() : callFailed()); };
    if (m_sale.callFile.isEmpty()) {
        m_why = QStringLiteral("no call recording attached");
        done(false);
        return;
    }
    uploadFile(word(Protocol::SaleFileQuery::call), m_sale.callFile, done);
}

void SaleSubmission::uploadFile(const QString &kind, const QString &path, const Done &done)
{
    // Only a plain file that opens: a vanished or unreadable one fails at once, and a pipe or a
    // device would block or never end.
    const QFileInfo info(path);
    auto file = std::make_unique<QFile>(path);
    if (!info.isFile() || !file->open(QIODevice::ReadOnly)) {
        m_why = path + QStringLiteral(": ")
            + (!info.exists() ? QStringLiteral("no such file") : !info.isFile() ? QStringLiteral("not a plain file") : file->errorString());
        QTimer::singleShot(0, this, [done] { done(false); });
        return;
    }
    m_file = std::move(file);
    QFile *body = m_file.get();
    sendFile(kind, info.suffix().toLower(), kFileTimeoutMs, [this, body](const QNetworkRequest &r) { return m_net.post(r, body); },
             [this, done](bool ok) {
                 m_file.reset();
                 done(ok);
             });
}

void SaleSubmission::uploadData(const QString &kind, const QString &ext, const QByteArray &data, const Done &done)
{
    sendFile(kind, ext, kDataTimeoutMs, [this, data](const QNetworkRequest &r) { return m_net.post(r, data); }, done);
}

void SaleSubmission::sendFile(const QString &kind, const QString &ext, int timeoutMs,
                              const std::function<QNetworkReply *(const QNetworkRequest &)> &post, const Done &done)
{
    using namespace Protocol::SaleFileQuery;
    const QUrl url = QueryString::at(QStringLiteral("http"), m_server, word(Protocol::Path::saleFile),
                                     {{word(sale), m_token}, {word(Protocol::SaleFileQuery::kind), kind},
                                      {word(Protocol::SaleFileQuery::ext), ext}});
    if (!url.isValid()) {
        QTimer::singleShot(0, this, [done] { done(false); });
        return;
    }
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/octet-stream"));
    request.setTransferTimeout(timeoutMs);
    // The body is read from its device as it goes out, never copied whole.
    request.setAttribute(QNetworkRequest::DoNotBufferUploadDataAttribute, true);
    QNetworkReply *reply = post(request);
    m_reply = reply;
    connect(reply, &QNetworkReply::readyRead, reply, [reply] { reply->skip(reply->bytesAvailable()); });
    connect(reply, &QNetworkReply::finished, this, [this, reply, done] {
        reply->deleteLater();
        if (!ok200(reply))
            m_why = answerProblem(reply);
        done(ok200(reply));
    });
}

void SaleSubmission::finish(bool ok, const QString &message)
{
    m_busy = false;
    Q_EMIT finished(ok, message);
}
