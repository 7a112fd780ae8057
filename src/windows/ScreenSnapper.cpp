#include "ScreenSnapper.h"

#include <QBuffer>
#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusObjectPath>
#include <QFile>
#include <QFutureWatcher>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QRandomGenerator>
#include <QScreen>
#include <QUrl>
#include <QtConcurrent/QtConcurrentRun>

namespace {

const QString kPortal = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPortalPath = QStringLiteral("/org/freedesktop/portal/desktop");

QByteArray png(const QImage &image)
{
    QByteArray out;
    QBuffer buffer(&out);
    buffer.open(QIODevice::WriteOnly);
    if (image.isNull() || !image.save(&buffer, "PNG"))
        return QByteArray();
    return out;
}

} // namespace

ScreenSnapper::ScreenSnapper(bool portal, QObject *parent)
    : QObject(parent)
    , m_portal(portal)
{
    m_timeout.setSingleShot(true);
    m_timeout.setInterval(kPortalTimeoutMs);
    connect(&m_timeout, &QTimer::timeout, this, [this] { end(Outcome::Failed); });
}

bool ScreenSnapper::sessionNeedsPortal()
{
    return qEnvironmentVariable("XDG_SESSION_TYPE") == QLatin1String("wayland")
        || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

void ScreenSnapper::snap()
{
    if (m_running)
        return;
    m_running = true;
    if (m_portal) {
        askPortal();
        return;
    }
    finishOffThread([shot = grabScreens()] { return png(shot); });
}

void ScreenSnapper::finishOffThread(std::function<QByteArray()> work)
{
    auto *watcher = new QFutureWatcher<QByteArray>(this);
    connect(watcher, &QFutureWatcher<QByteArray>::finished, this, [this, watcher] {
        watcher->deleteLater();
        const QByteArray bytes = watcher->result();
        end(bytes.isEmpty() ? Outcome::Failed : Outcome::Snapped, bytes);
    });
    watcher->setFuture(QtConcurrent::run(std::move(work)));
}

QImage ScreenSnapper::grabScreens()
{
    const QList<QScreen *> screens = QGuiApplication::screens();
    QRect all;
    for (const QScreen *s : screens)
        all |= s->geometry();
    if (all.isEmpty())
        return QImage();
    QImage out(all.size(), QImage::Format_RGB32);
    out.fill(Qt::black);
    QPainter painter(&out);
    for (QScreen *s : screens) {
        const QPixmap shot = s->grabWindow(0);
        painter.drawPixmap(QRect(s->geometry().topLeft() - all.topLeft(), s->geometry().size()), shot);
    }
    return out;
}

void ScreenSnapper::askPortal()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        QTimer::singleShot(0, this, [this] { end(Outcome::Failed); });
        return;
    }
    // The answer arrives as a signal on a request object whose path follows from our bus name and
    // a token of ours; listen there before asking, so that no answer is missed.
    const QString token = QStringLiteral("brava%1").arg(QRandomGenerator::global()->generate());
    QString sender = bus.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    m_requestPath = kPortalPath + QStringLiteral("/request/") + sender + QLatin1Char('/') + token;
    bus.connect(kPortal, m_requestPath, QStringLiteral("org.freedesktop.portal.Request"), QStringLiteral("Response"),
                this, SLOT(portalResponse(uint, QVariantMap)));
    QDBusMessage call = QDBusMessage::createMethodCall(kPortal, kPortalPath, QStringLiteral("org.freedesktop.portal.Screenshot"),
                                                       QStringLiteral("Screenshot"));
    call << QString() << QVariantMap{{QStringLiteral("handle_token"), token}, {QStringLiteral("interactive"), false}};
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, kPortalTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher] {
        watcher->deleteLater();
        if (QDBusPendingReply<QDBusObjectPath>(*watcher).isError())
            end(Outcome::Failed); // no portal, or no screenshot service in it
    });
    m_timeout.start();
}

void ScreenSnapper::portalResponse(uint response, const QVariantMap &results)
{
    if (!m_running)
        return;
    // 0: taken; 1: the person said no; anything else: it failed.
    if (response == 1) {
        end(Outcome::NotAllowed);
        return;
    }
    const QUrl uri(results.value(QStringLiteral("uri")).toString());
    if (response != 0 || !uri.isLocalFile()) {
        end(Outcome::Failed);
        return;
    }
    finishOffThread([path = uri.toLocalFile()] {
        QFile file(path);
        if (file.size() > kMaxPictureBytes || !file.open(QIODevice::ReadOnly))
            return QByteArray();
        return png(QImage::fromData(file.read(kMaxPictureBytes)));
    });
}

void ScreenSnapper::end(Outcome outcome, const QByteArray &bytes)
{
    if (!m_running)
        return;
    m_running = false;
    m_timeout.stop();
    if (!m_requestPath.isEmpty()) {
        QDBusConnection::sessionBus().disconnect(kPortal, m_requestPath, QStringLiteral("org.freedesktop.portal.Request"),
                                                 QStringLiteral("Response"), this, SLOT(portalResponse(uint, QVariantMap)));
        m_requestPath.clear();
    }
    Q_EMIT done(outcome, bytes);
}
