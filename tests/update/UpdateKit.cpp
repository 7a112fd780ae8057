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
    QFile ext(d + QStringLiteral("/ext.cnf"));
    if (ext.open(QIODevice::WriteOnly))
        ext.write("subjectAltName=IP:" + host.toLatin1() + "\n");
    ext.close();
    const auto openssl = [&d](const QString &args) {
        QProcess p;
        p.setWorkingDirectory(d);
        p.start(QStringLiteral("openssl"), args.split(QLatin1Char(' ')));
        return p.waitForFinished(30000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
    };
    const QString ec = QStringLiteral(" -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes");
    if (!openssl(QStringLiteral("req -x509 -keyout ca.key -out ca.pem -days 2 -subj /CN=BravaTestCA") + ec)
        || !openssl(QStringLiteral("req -keyout srv.key -out srv.csr -subj /CN=") + host + ec)
        || !openssl(QStringLiteral("x509 -req -in srv.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out srv.pem -days 2 -extfile ext.cnf"))) {
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

QByteArray UpdateKit::readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

std::unique_ptr<AppUpdates> UpdateKit::updater(const QString &version)
{
    AppUpdates::Options o;
    o.serverLocked = true;
    o.webBase = base();
    o.runningVersion = version;
    o.identifier = QStringLiteral("com.vantorra.brava-recorder");
    o.installedFolder = installed;
    o.publicKeyPem = readAll(key(QStringLiteral("test-public.pem")));
    o.tempRoot = dir.path();
    o.maxDownloadBytes = kCap;
    auto u = std::make_unique<AppUpdates>(net, o);
    u->ask = [this](const Alert &alert, std::function<void(int)> reply) {
        alerts.append(alert);
        if (reply && answer >= 0)
            QMetaObject::invokeMethod(&net, [reply, a = answer] { reply(a); }, Qt::QueuedConnection);
    };
    u->isBusy = [this] { return busy; };
    u->reveal = [this](const QString &path) { revealed.append(path); };
    return u;
}
