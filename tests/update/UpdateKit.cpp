#include "UpdateKit.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QSslConfiguration>
#include <QtTest>

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool run(const QString &program, const QStringList &args, const QString &cwd, QByteArray *out = nullptr)
{
    QProcess p;
    p.setWorkingDirectory(cwd);
    p.start(program, args);
    if (!p.waitForFinished(30000) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0) {
        qWarning() << program << args << p.readAllStandardError();
        return false;
    }
    if (out)
        *out = p.readAllStandardOutput();
    return true;
}

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

} // namespace

UpdateKit::UpdateKit()
{
    // A loopback address of this run's own, so parallel runs do not meet on port 443.
    auto *rng = QRandomGenerator::global();
    host = QStringLiteral("127.%1.%2.1").arg(rng->bounded(1, 255)).arg(rng->bounded(1, 255));
    const QString d = dir.path();
    QFile ext(d + QStringLiteral("/ext.cnf"));
    ext.open(QIODevice::WriteOnly);
    ext.write("subjectAltName=IP:" + host.toLatin1() + "\n");
    ext.close();
    const QStringList ec{QStringLiteral("-newkey"), QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                         QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes")};
    const QString openssl = QStringLiteral("openssl");
    if (!run(openssl, QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + ec
                 + QStringList{QStringLiteral("-keyout"), QStringLiteral("ca.key"), QStringLiteral("-out"),
                               QStringLiteral("ca.pem"), QStringLiteral("-days"), QStringLiteral("2"),
                               QStringLiteral("-subj"), QStringLiteral("/CN=Brava update test CA")},
             d)
        || !run(openssl, QStringList{QStringLiteral("req")} + ec
                    + QStringList{QStringLiteral("-keyout"), QStringLiteral("srv.key"), QStringLiteral("-out"),
                                  QStringLiteral("srv.csr"), QStringLiteral("-subj"), QStringLiteral("/CN=") + host},
                d)
        || !run(openssl,
                {QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"), QStringLiteral("srv.csr"),
                 QStringLiteral("-CA"), QStringLiteral("ca.pem"), QStringLiteral("-CAkey"), QStringLiteral("ca.key"),
                 QStringLiteral("-CAcreateserial"), QStringLiteral("-out"), QStringLiteral("srv.pem"),
                 QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-extfile"), QStringLiteral("ext.cnf")},
                d)) {
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

UpdateKit::~UpdateKit() = default;

QStringList UpdateKit::snapshot(const QString &folder)
{
    QStringList list;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        list.append(path + QLatin1Char(' ') + sha256(path));
    }
    list.sort();
    return list;
}

QString UpdateKit::makeFolder(const QString &name, const QString &version, const QString &identifier)
{
    const QString folder = dir.path() + QLatin1Char('/') + name;
    QDir(folder).removeRecursively();
    QDir().mkpath(folder + QStringLiteral("/lib"));
    QFile::copy(QStringLiteral("/bin/true"), folder + QStringLiteral("/brava-recorder"));
    QFile info(folder + QStringLiteral("/Info.ini"));
    info.open(QIODevice::WriteOnly);
    info.write("[General]\nCFBundleShortVersionString=" + version.toUtf8() + "\nCFBundleVersion=20\nCFBundleIdentifier="
               + identifier.toUtf8() + "\n");
    info.close();
    QFile data(folder + QStringLiteral("/lib/data.txt"));
    data.open(QIODevice::WriteOnly);
    data.write("release data\n");
    data.close();
    QFile::link(QStringLiteral("lib/data.txt"), folder + QStringLiteral("/data-link"));
    return folder;
}

QString UpdateKit::key(const QString &name)
{
    return QStringLiteral(BRAVA_SOURCE_DIR "/tests/update/keys/") + name;
}

QByteArray UpdateKit::sign(const QString &folder, const QString &key, const QUrl &url)
{
    QByteArray out;
    run(QStringLiteral(BRAVA_SOURCE_DIR "/scripts/sign-release"), {folder, key, url.toString()}, folder, &out);
    return out.trimmed();
}

QByteArray UpdateKit::entry(const QString &version, const QUrl &url, const QString &sha256, bool enabled,
                            const QString &platform)
{
    return "{\"product\": \"recorder\", \"platform\": \"" + platform.toUtf8() + "\", \"version\": \"" + version.toUtf8()
        + "\", \"url\": \"" + url.toString().toUtf8() + "\", \"sha256\": \"" + sha256.toUtf8()
        + "\", \"enabled\": " + (enabled ? "true" : "false") + "}";
}

QByteArray UpdateKit::feed(const QList<QByteArray> &entries, int schema, const QString &edition)
{
    QByteArray list;
    for (const QByteArray &e : entries)
        list += (list.isEmpty() ? "" : ", ") + e;
    return "{\"schema\": " + QByteArray::number(schema) + ", \"edition\": \"" + edition.toUtf8()
        + "\", \"extra\": 5, \"releases\": [" + list + "]}";
}

void UpdateKit::writeZip(const QString &path, const QList<ZipItem> &items)
{
    archive *a = archive_write_new();
    archive_write_set_format_zip(a);
    archive_write_open_filename(a, QFile::encodeName(path).constData());
    archive_entry *e = archive_entry_new();
    for (const ZipItem &item : items) {
        archive_entry_clear(e);
        archive_entry_set_pathname_utf8(e, item.path.toUtf8().constData());
        archive_entry_set_mode(e, item.mode);
        if (!item.target.isEmpty())
            archive_entry_set_symlink_utf8(e, item.target.toUtf8().constData());
        archive_entry_set_size(e, S_ISREG(item.mode) ? item.data.size() : 0);
        archive_write_header(a, e);
        if (S_ISREG(item.mode))
            archive_write_data(a, item.data.constData(), size_t(item.data.size()));
    }
    archive_entry_free(e);
    archive_write_close(a);
    archive_write_free(a);
}

QList<UpdateKit::ZipItem> UpdateKit::itemsOf(const QString &folder, const QString &prefix)
{
    QList<ZipItem> items{{prefix + QLatin1Char('/'), {}, 040755}};
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        struct stat st;
        ::lstat(QFile::encodeName(path).constData(), &st);
        const QString name = prefix + path.mid(folder.size());
        if (S_ISLNK(st.st_mode)) {
            char target[4096];
            const ssize_t n = ::readlink(QFile::encodeName(path).constData(), target, sizeof target);
            items.append({name, {}, unsigned(st.st_mode), QFile::decodeName(QByteArray(target, int(qMax<ssize_t>(n, 0))))});
        }
        else if (S_ISDIR(st.st_mode))
            items.append({name + QLatin1Char('/'), {}, unsigned(st.st_mode)});
        else
            items.append({name, readAll(path), unsigned(st.st_mode)});
    }
    return items;
}

QString UpdateKit::sha256(const QString &path)
{
    return QString::fromLatin1(QCryptographicHash::hash(readAll(path), QCryptographicHash::Sha256).toHex());
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
