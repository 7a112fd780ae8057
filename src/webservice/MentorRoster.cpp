#include "MentorRoster.h"

#include "StrictInt.h"
#include "WebSession.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>

#include <limits>
#include <utility>

namespace {

constexpr int kTimeoutMs = 12000;

// At most kMaxNameLength characters, never half of a surrogate pair.
QString capped(const QString &name)
{
    const qsizetype max = MentorRoster::kMaxNameLength;
    if (name.size() <= max)
        return name;
    return name.left(name.at(max - 1).isHighSurrogate() ? max - 1 : max);
}

} // namespace

MentorRoster::MentorRoster(QNetworkAccessManager &net, const BuildInfo &build, QObject *parent)
    : QObject(parent)
    , m_net(net)
    , m_build(build)
{
}

std::optional<QMap<int, QString>> MentorRoster::parse(const QByteArray &data)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    QMap<int, QString> roster;
    const QJsonObject object = doc.object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const std::optional<int> seat =
            parseStrictInt(it.key(), std::numeric_limits<int>::min(), std::numeric_limits<int>::max());
        if (seat && it.value().isString())
            roster.insert(*seat, capped(it.value().toString()));
    }
    return roster;
}

void MentorRoster::fetch()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (m_fetching)
        return;
    const QUrl url = WebSession::endpoint(m_build, QStringLiteral("/wp-json/brava/v1/mentors"),
                                          {{QStringLiteral("t"), QString::number(QDateTime::currentSecsSinceEpoch())}});
    if (!url.isValid())
        return;
    m_fetching = true;
    m_tooLarge = false;
    QNetworkRequest request(url);
    request.setTransferTimeout(kTimeoutMs);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    QNetworkReply *reply = m_net.get(request);
    connect(reply, &QNetworkReply::downloadProgress, this, [this, reply](qint64 received) {
        if (received > kMaxAnswerBytes && !std::exchange(m_tooLarge, true))
            reply->abort();
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] { finished(reply); });
}

void MentorRoster::finished(QNetworkReply *reply)
{
    reply->deleteLater();
    m_fetching = false;
    if (m_tooLarge) {
        m_fault = Fault::TooLarge;
        m_lastError = QStringLiteral("roster answer over %1 bytes refused").arg(kMaxAnswerBytes);
        return;
    }
    if (!reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()) {
        m_fault = Fault::NoAnswer;
        m_lastError = QStringLiteral("roster not fetched: ") + reply->errorString();
        return;
    }
    const std::optional<QMap<int, QString>> roster = parse(reply->readAll());
    if (!roster) {
        m_fault = Fault::NotAnObject;
        m_lastError = QStringLiteral("roster answer is not a JSON object");
        return;
    }
    m_fault = Fault::None;
    m_lastError.clear();
    m_map = *roster;
}

QString MentorRoster::name(int seat) const
{
    Q_ASSERT(QThread::currentThread() == thread());
    return m_map.value(seat);
}
