#include "MentorRoster.h"

#include "WebSession.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>

namespace MentorRoster {

namespace {

constexpr int kTimeoutMs = 12000;

struct State
{
    QMap<int, QString> map;
    bool fetching = false;
    quint64 generation = 0; // answers of an older generation are ignored
    QString lastError;
};

State &state()
{
    static State s;
    return s;
}

// A decimal integer with an optional sign that fits a seat number.
std::optional<int> seatOf(const QString &key)
{
    const int start = (key.startsWith(QLatin1Char('+')) || key.startsWith(QLatin1Char('-'))) ? 1 : 0;
    if (start == key.size())
        return std::nullopt;
    for (int i = start; i < key.size(); ++i)
        if (key[i] < QLatin1Char('0') || key[i] > QLatin1Char('9'))
            return std::nullopt;
    bool ok = false;
    const int seat = key.toInt(&ok, 10);
    return ok ? std::optional<int>(seat) : std::nullopt;
}

void assertMainThread()
{
    Q_ASSERT(QThread::currentThread() == QCoreApplication::instance()->thread());
}

void finished(QNetworkReply *reply, quint64 generation)
{
    reply->deleteLater();
    State &s = state();
    if (generation != s.generation)
        return;
    s.fetching = false;
    if (!reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()) {
        s.lastError = QStringLiteral("roster not fetched: ") + reply->errorString();
        return;
    }
    const std::optional<QMap<int, QString>> roster = parse(reply->readAll());
    if (!roster) {
        s.lastError = QStringLiteral("roster answer is not a JSON object");
        return;
    }
    s.lastError.clear();
    s.map = *roster;
}

} // namespace

std::optional<QMap<int, QString>> parse(const QByteArray &data)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    QMap<int, QString> roster;
    const QJsonObject object = doc.object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const std::optional<int> seat = seatOf(it.key());
        if (seat && it.value().isString())
            roster.insert(*seat, it.value().toString());
    }
    return roster;
}

void fetch()
{
    assertMainThread();
    State &s = state();
    if (s.fetching)
        return;
    const QUrl url = WebSession::endpoint(QStringLiteral("/wp-json/brava/v1/mentors?t=")
                                          + QString::number(QDateTime::currentSecsSinceEpoch()));
    if (!url.isValid())
        return;
    s.fetching = true;
    QNetworkRequest request(url);
    request.setTransferTimeout(kTimeoutMs);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    QNetworkReply *reply = WebSession::shared().get(request);
    const quint64 generation = s.generation;
    QObject::connect(reply, &QNetworkReply::finished, reply, [reply, generation] { finished(reply, generation); });
}

QString name(int seat)
{
    assertMainThread();
    return state().map.value(seat);
}

QMap<int, QString> map()
{
    assertMainThread();
    return state().map;
}

bool fetching()
{
    return state().fetching;
}

QString lastError()
{
    return state().lastError;
}

void resetForTesting()
{
    State &s = state();
    s.map.clear();
    s.fetching = false;
    s.lastError.clear();
    ++s.generation;
}

} // namespace MentorRoster
