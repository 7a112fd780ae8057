#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QTimer>
#include <QProcess>

// A D-Bus session bus of the test's own, made the process's session bus, with a second connection
// on which the test plays a desktop service. Start it before anything uses the session bus.
class TestSessionBus
{
public:
    ~TestSessionBus()
    {
        QDBusConnection::disconnectFromBus(QStringLiteral("service"));
        m_daemon.kill();
        m_daemon.waitForFinished();
    }
    /// Starts the bus daemon; false when there is none on this computer.
    bool start()
    {
        m_daemon.start(QStringLiteral("dbus-daemon"), {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")});
        if (!m_daemon.waitForStarted(5000) || !m_daemon.waitForReadyRead(5000))
            return false;
        m_address = QString::fromUtf8(m_daemon.readLine().trimmed());
        qputenv("DBUS_SESSION_BUS_ADDRESS", m_address.toUtf8());
        return QDBusConnection::sessionBus().isConnected();
    }
    /// The connection on which the test serves `object` at `path` under the well-known `name`.
    QDBusConnection serve(const QString &name, const QString &path, QObject *object)
    {
        QDBusConnection own = QDBusConnection::connectToBus(m_address, QStringLiteral("service"));
        if (!own.registerObject(path, object, QDBusConnection::ExportAllSlots) || !own.registerService(name))
            qWarning("cannot serve %s on the test bus", qPrintable(name));
        return own;
    }

private:
    QProcess m_daemon;
    QString m_address;
};

// A desktop portal's answer to `call` (one with a "handle_token" option): the request object's
// path now, and on `bus` that object's Response with `results` a moment later, after the call's
// own answer, as portals do.
inline QDBusObjectPath portalRequest(const QDBusMessage &call, const QDBusConnection &bus, const QVariantMap &options, uint response,
                                     const QVariantMap &results, QObject *context)
{
    const QString sender = call.service().mid(1).replace(QLatin1Char('.'), QLatin1Char('_'));
    const QString path = QStringLiteral("/org/freedesktop/portal/desktop/request/") + sender + QLatin1Char('/') + options.value(QStringLiteral("handle_token")).toString();
    QDBusMessage answer = QDBusMessage::createSignal(path, QStringLiteral("org.freedesktop.portal.Request"), QStringLiteral("Response"));
    answer << response << results;
    QTimer::singleShot(50, context, [bus, answer] { bus.send(answer); });
    return QDBusObjectPath(path);
}
