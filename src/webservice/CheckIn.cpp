#include "CheckIn.h"

#include "BuildInfo.h"
#include "Settings.h"
#include "OrderedJson.h"
#include "WebSession.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <QTimer>

namespace {

constexpr int kTimeoutMs = 15000;

const char *word(bool value)
{
    return value ? "true" : "false";
}

} // namespace

CheckIn::CheckIn(QNetworkAccessManager &net, const Settings &settings, const BuildInfo &build,
                 std::function<Flags()> permissions, ClockMs clock, QObject *parent)
    : QObject(parent)
    , m_net(net)
    , m_settings(settings)
    , m_build(build)
    , m_permissions(std::move(permissions))
    , m_clock(std::move(clock))
{
    Q_ASSERT(m_permissions);
    m_monotonic.start();
}

CheckIn::~CheckIn() = default;

qint64 CheckIn::now() const
{
    return m_clock ? m_clock() : m_monotonic.elapsed();
}

QUrl CheckIn::url() const
{
    return WebSession::endpoint(m_build, QStringLiteral("/wp-json/brava/v1/checkin"));
}

QUrl CheckIn::verifyURL(const BuildInfo &build)
{
    return WebSession::endpoint(build, QStringLiteral("/wp-json/brava/v1/verify"));
}

void CheckIn::start(int intervalMs)
{
    Q_ASSERT(QThread::currentThread() == thread());
    stop();
    m_timer = new QTimer(this);
    m_timer->setInterval(intervalMs);
    connect(m_timer, &QTimer::timeout, this, [this] { poke(true); });
    m_timer->start();
}

void CheckIn::stop()
{
    delete m_timer;
    m_timer = nullptr;
}

QString CheckIn::fingerprint(const Flags &flags)
{
    return QString::fromLatin1(word(flags.mic)) + QLatin1String(word(flags.cam)) + QLatin1String(word(flags.screen));
}

QByteArray CheckIn::body(const Flags &flags) const
{
    OrderedJson json;
    json.insert(QStringLiteral("token"), QString::fromLatin1(token))
        .insert(QStringLiteral("agent"), m_settings.agentID())
        .insert(QStringLiteral("name"), m_settings.agentName())
        .insert(QStringLiteral("os"), QStringLiteral("linux"))
        .insert(QStringLiteral("version"), m_build.version())
        .insert(QStringLiteral("mic"), flags.mic)
        .insert(QStringLiteral("cam"), flags.cam)
        .insert(QStringLiteral("screen"), flags.screen);
    return json.toJson();
}

void CheckIn::poke(bool force)
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (!m_build.serverLocked() || m_settings.agentID() < 1 || !m_settings.setupDone())
        return;
    const QUrl target = url();
    if (!target.isValid())
        return;
    const Flags flags = m_permissions();
    const QString print = fingerprint(flags);
    if (!force && print == m_lastFlags)
        return;
    const qint64 t = now();
    // A changed fingerprint held back here goes out with a later tick: m_lastFlags stays as it was.
    if (m_lastSent && t - *m_lastSent <= kMinSpacingMs)
        return;
    m_lastFlags = print;
    m_lastSent = t;

    QNetworkRequest request(target);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setTransferTimeout(kTimeoutMs);
    QNetworkReply *reply = m_net.post(request, body(flags));
    connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}
