#include "CheckIn.h"

#include "Config.h"
#include "OrderedJson.h"
#include "WebSession.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <QTimer>

#include <optional>

namespace CheckIn {

namespace {

// A check-in is sent only when strictly more than this has passed since the last one.
constexpr qint64 kMinSpacingMs = 3000;
constexpr int kTimeoutMs = 15000;

struct State
{
    std::optional<qint64> lastSent; // none: the distant past
    QString lastFlags;
    QTimer *timer = nullptr;
    std::function<Flags()> permissions;
    std::function<qint64()> clock;
};

State &state()
{
    static State s;
    return s;
}

qint64 now()
{
    if (state().clock)
        return state().clock();
    static QElapsedTimer monotonic;
    if (!monotonic.isValid())
        monotonic.start();
    return monotonic.elapsed();
}

const char *word(bool value)
{
    return value ? "true" : "false";
}

} // namespace

QUrl url()
{
    return WebSession::endpoint(QStringLiteral("/wp-json/brava/v1/checkin"));
}

QUrl verifyURL()
{
    return WebSession::endpoint(QStringLiteral("/wp-json/brava/v1/verify"));
}

void setPermissionSource(std::function<Flags()> source)
{
    state().permissions = std::move(source);
}

void start(int intervalMs)
{
    Q_ASSERT(QThread::currentThread() == QCoreApplication::instance()->thread());
    State &s = state();
    delete s.timer;
    s.timer = new QTimer(QCoreApplication::instance());
    s.timer->setInterval(intervalMs);
    QObject::connect(s.timer, &QTimer::timeout, s.timer, [] { poke(true); });
    s.timer->start();
}

QString fingerprint(const Flags &flags)
{
    return QString::fromLatin1(word(flags.mic)) + QLatin1String(word(flags.cam)) + QLatin1String(word(flags.screen));
}

QByteArray body(const Flags &flags)
{
    OrderedJson json;
    json.insert(QStringLiteral("token"), QString::fromLatin1(token))
        .insert(QStringLiteral("agent"), Config::agentID())
        .insert(QStringLiteral("name"), Config::agentName())
        .insert(QStringLiteral("os"), QStringLiteral("linux"))
        .insert(QStringLiteral("version"), Config::version())
        .insert(QStringLiteral("mic"), flags.mic)
        .insert(QStringLiteral("cam"), flags.cam)
        .insert(QStringLiteral("screen"), flags.screen);
    return json.toJson();
}

void poke(bool force)
{
    Q_ASSERT(QThread::currentThread() == QCoreApplication::instance()->thread());
    if (!Config::serverLocked() || Config::agentID() < 1 || !Config::setupDone())
        return;
    const QUrl target = url();
    if (!target.isValid())
        return;
    State &s = state();
    const Flags flags = s.permissions ? s.permissions() : Flags();
    const QString print = fingerprint(flags);
    if (!force && print == s.lastFlags)
        return;
    const qint64 t = now();
    // A changed fingerprint held back here goes out with a later tick: lastFlags stays as it was.
    if (s.lastSent && t - *s.lastSent <= kMinSpacingMs)
        return;
    s.lastFlags = print;
    s.lastSent = t;

    QNetworkRequest request(target);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setTransferTimeout(kTimeoutMs);
    QNetworkReply *reply = WebSession::shared().post(request, body(flags));
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}

void setClockForTesting(std::function<qint64()> clock)
{
    state().clock = std::move(clock);
}

void resetForTesting()
{
    State &s = state();
    s.lastSent.reset();
    s.lastFlags.clear();
    delete s.timer;
    s.timer = nullptr;
}

} // namespace CheckIn
