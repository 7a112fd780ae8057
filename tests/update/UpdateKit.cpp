#include "UpdateKit.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QSslConfiguration>

UpdateKit::UpdateKit()
{
    // A loopback address of this run's own, so parallel runs do not meet on port 443.
    auto *rng = QRandomGenerator::global();
    host = QStringLiteral("127.%1.%2.1").arg(rng->bounded(1, 255)).arg(rng->bounded(1, 255));
    const QString d = dir.path();
    for (const QString &cert : {QStringLiteral("-keyout ca.key -out ca.pem -subj /CN=BravaTestCA"),
                                QStringLiteral("-CA ca.pem -CAkey ca.key -keyout srv.key -out srv.pem -subj /CN=%1 -addext subjectAltName=IP:%1").arg(host)})
        run(d, QString(QStringLiteral("openssl req -x509 -days 2 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ") + cert).split(QLatin1Char(' ')));
    if (!QFile::exists(d + QStringLiteral("/srv.pem"))) {
        unavailable = QStringLiteral("openssl could not make the test certificates");
        return;
    }
    // This process, and nothing else, trusts the run's CA.
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.addCaCertificates(QSslCertificate::fromData(readAll(d + QStringLiteral("/ca.pem"))));
    QSslConfiguration::setDefaultConfiguration(tls);
    server = std::make_unique<HttpsStub>(QSslCertificate(readAll(d + QStringLiteral("/srv.pem"))),
                                         QSslKey(readAll(d + QStringLiteral("/srv.key")), QSsl::Ec));
    if (!server->listen(QHostAddress(host), 443))
        unavailable = QStringLiteral("cannot listen on ") + host + QStringLiteral(":443 (needs root)");
    installed = d + QStringLiteral("/installed");
    QDir().mkpath(installed);
    QFile::copy(QStringLiteral("/bin/true"), installed + QStringLiteral("/brava-recorder"));
}

QByteArray UpdateKit::run(const QString &cwd, const QStringList &command)
{
    QProcess p;
    p.setWorkingDirectory(cwd);
    p.start(command.first(), command.mid(1));
    p.waitForFinished(30000);
    return p.readAllStandardOutput();
}

QByteArray UpdateKit::readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

std::unique_ptr<AppUpdates> UpdateKit::updater(const QString &version)
{
    const AppUpdates::Options o{.serverLocked = true, .webBase = base(), .runningVersion = version,
                                .identifier = QStringLiteral("com.vantorra.brava-recorder"), .installedFolder = installed,
                                .publicKeyPem = readAll(key(QStringLiteral("test-public.pem"))), .workRoot = dir.path(), .maxDownloadBytes = kCap,
                                .downloadDeadlineMs = deadlineMs};
    auto u = std::make_unique<AppUpdates>(net, o);
    u->ask = [this](const Alert &alert, std::function<void(int)> reply) {
        alerts.append(alert);
        if (reply && answer >= 0)
            QMetaObject::invokeMethod(&net, [reply, a = answer] { reply(a); }, Qt::QueuedConnection);
    };
    u->isBusy = [this] { return busy; };
    u->reveal = [this](const QString &path, std::function<void()> failed) {
        revealed.append(path);
        if (revealFails)
            failed();
    };
    return u;
}
