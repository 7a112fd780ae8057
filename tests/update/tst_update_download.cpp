// Download and verification of a release: the good path to the file manager, and a corpus of
// forged updates, each refused with the installed folder untouched and its own internal error.
#include "ArchiveUnpacker.h"
#include "TestHome.h"
#include "UpdateKit.h"
#include "UpdatePolicy.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <sys/stat.h>

namespace {

const QString kIntegrity = QStringLiteral("Download integrity check failed");
const QString kSignature = QStringLiteral("Signature validation failed");
const QString kMismatch = QStringLiteral("Update version mismatch");
const QString kInvalid = QStringLiteral("Invalid download");

enum class Forgery {
    WrongDigest, OtherKey, OmitsFile, AddsFile, ChangesFile, VersionMismatch, OtherIdentifier, RedirectOtherHost,
    RedirectHttp, RedirectPort, ZipSlip, LinkEscapes, SetUid, WrongArchitecture, NoAppFolder, Truncated,
    OversizeWithoutLength, OversizeWithLength, OlderSigned
};

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void writeAll(const QString &path, const QByteArray &data)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(data);
}

// Sets the file type and mode bits of entry `name` in a zip's central directory, which zip writers
// refuse to do for devices and pipes.
QByteArray withMode(QByteArray zip, const QByteArray &name, quint16 mode)
{
    for (qsizetype p = zip.indexOf("PK\x01\x02"); p >= 0; p = zip.indexOf("PK\x01\x02", p + 4)) {
        const int nameLength = quint8(zip[p + 28]) | quint8(zip[p + 29]) << 8;
        if (zip.mid(p + 46, nameLength) == name) {
            zip[p + 40] = char(mode & 0xff);
            zip[p + 41] = char(mode >> 8);
        }
    }
    return zip;
}

} // namespace

Q_DECLARE_METATYPE(Forgery)

class UpdateDownloadTest : public QObject
{
    Q_OBJECT
    TestHome home;
    UpdateKit kit;
    QStringList installedBefore;

    // Signs a release folder of `version` with `key` and serves its zip; returns the release.
    Release publish(const QString &name, const QString &version, const QString &key = QStringLiteral("test-private.pem"),
                    const std::function<void(const QString &)> &beforeSigning = {})
    {
        const QString folder = kit.makeFolder(name, version);
        if (beforeSigning)
            beforeSigning(folder);
        const QUrl url = kit.url(QStringLiteral("/wp-content/uploads/") + name + QStringLiteral(".zip"));
        const QByteArray entry = UpdateKit::sign(folder, UpdateKit::key(key), url);
        const QString zip = kit.dir.path() + QLatin1Char('/') + UpdatePolicy::archiveName(version);
        return serve(name, readAll(zip), QJsonDocument::fromJson(entry).object().value(QLatin1String("sha256")).toString(),
                     version);
    }
    Release serve(const QString &name, const QByteArray &archive, const QString &sha256 = QString(),
                  const QString &version = QStringLiteral("2.0"))
    {
        const QString path = QStringLiteral("/wp-content/uploads/") + name + QStringLiteral(".zip");
        kit.server->route(path.toUtf8(), {200, archive});
        Release r{QStringLiteral("recorder"), QStringLiteral("linux"), version, kit.url(path),
                  sha256.isEmpty() ? QString::fromLatin1(QCryptographicHash::hash(archive, QCryptographicHash::Sha256).toHex())
                                   : sha256,
                  true};
        return r;
    }
    // The signed folder zipped entry by entry after `change`, so the change is not in the manifest.
    Release tampered(const QString &name, const std::function<void(QList<UpdateKit::ZipItem> &)> &change)
    {
        publish(name, QStringLiteral("2.0"));
        QList<UpdateKit::ZipItem> items = UpdateKit::itemsOf(kit.dir.path() + QLatin1Char('/') + name, QStringLiteral("Brava Recorder"));
        change(items);
        const QString zip = kit.dir.path() + QStringLiteral("/tampered.zip");
        UpdateKit::writeZip(zip, items);
        return serve(name, readAll(zip));
    }
    static void replaceData(QList<UpdateKit::ZipItem> &items, const QString &suffix, const QByteArray &data)
    {
        for (UpdateKit::ZipItem &i : items)
            if (i.path.endsWith(suffix))
                i.data = data;
    }

    Release forge(Forgery f)
    {
        const QString n = QStringLiteral("forged-%1").arg(int(f));
        switch (f) {
        case Forgery::WrongDigest: {
            Release r = publish(n, QStringLiteral("2.0"));
            r.sha256 = QString(64, QLatin1Char('0'));
            return r;
        }
        case Forgery::OtherKey: return publish(n, QStringLiteral("2.0"), QStringLiteral("other-private.pem"));
        case Forgery::OmitsFile:
            return tampered(n, [](auto &items) { items.removeIf([](const auto &i) { return i.path.endsWith(QLatin1String("data.txt")); }); });
        case Forgery::AddsFile:
            return tampered(n, [](auto &items) { items.append({QStringLiteral("Brava Recorder/lib/extra.so"), "payload"}); });
        case Forgery::ChangesFile:
            return tampered(n, [](auto &items) { replaceData(items, QStringLiteral("data.txt"), "changed\n"); });
        case Forgery::VersionMismatch: {
            Release r = publish(n, QStringLiteral("2.1"));
            r.version = QStringLiteral("2.0");
            return r;
        }
        case Forgery::OtherIdentifier: {
            const QString folder = kit.makeFolder(n, QStringLiteral("2.0"), QStringLiteral("com.other.app"));
            UpdateKit::sign(folder, UpdateKit::key(QStringLiteral("test-private.pem")), kit.url(QStringLiteral("/x.zip")));
            return serve(n, readAll(kit.dir.path() + QStringLiteral("/Brava Recorder-2.0-linux.zip")));
        }
        case Forgery::RedirectOtherHost:
        case Forgery::RedirectHttp:
        case Forgery::RedirectPort: {
            Release good = publish(n, QStringLiteral("2.0"));
            const QByteArray to = f == Forgery::RedirectOtherHost ? QByteArray("https://127.0.0.9/wp-content/uploads/a.zip")
                : f == Forgery::RedirectHttp ? QByteArray("http://" + kit.host.toLatin1() + "/wp-content/uploads/a.zip")
                                             : QByteArray(kit.base().toLatin1() + ":443/wp-content/uploads/" + n.toLatin1() + ".zip");
            kit.server->route(good.url.path().toUtf8(), {302, {}, to});
            return good;
        }
        case Forgery::ZipSlip:
            return tampered(n, [](auto &items) { items.prepend({QStringLiteral("Brava Recorder/../../slipped.txt"), "x"}); });
        case Forgery::LinkEscapes:
            return tampered(n, [](auto &items) {
                items.append({QStringLiteral("Brava Recorder/escape"), {}, 0120777, QStringLiteral("../../../etc")});
            });
        case Forgery::SetUid:
            return publish(n, QStringLiteral("2.0"), QStringLiteral("test-private.pem"), [](const QString &folder) {
                ::chmod(QFile::encodeName(folder + QStringLiteral("/brava-recorder")).constData(), 04755);
            });
        case Forgery::WrongArchitecture:
            return publish(n, QStringLiteral("2.0"), QStringLiteral("test-private.pem"), [](const QString &folder) {
                QFile exe(folder + QStringLiteral("/brava-recorder"));
                exe.open(QIODevice::ReadWrite);
                exe.seek(18);
                exe.write(QByteArray("\xb7\x00", 2)); // EM_AARCH64 (or x86-64's 0x3e on an ARM machine)
                if (sizeof(void *) == 8 && Q_PROCESSOR_WORDSIZE == 8 && !QSysInfo::currentCpuArchitecture().startsWith(QLatin1String("x86"))) {
                    exe.seek(18);
                    exe.write(QByteArray("\x3e\x00", 2));
                }
            });
        case Forgery::NoAppFolder:
            return tampered(n, [](auto &items) {
                for (auto &i : items)
                    i.path.replace(QStringLiteral("Brava Recorder"), QStringLiteral("Other"));
            });
        case Forgery::Truncated: {
            publish(n, QStringLiteral("2.0"));
            const QByteArray whole = readAll(kit.dir.path() + QStringLiteral("/Brava Recorder-2.0-linux.zip"));
            return serve(n, whole.left(whole.size() / 2));
        }
        case Forgery::OversizeWithoutLength:
        case Forgery::OversizeWithLength: {
            Release r = serve(n, QByteArray(2 * UpdateKit::kCap, 'z'));
            kit.server->route(r.url.path().toUtf8(), {200, QByteArray(2 * UpdateKit::kCap, 'z'), {}, f == Forgery::OversizeWithLength});
            return r;
        }
        case Forgery::OlderSigned: {
            Release r = publish(n, QStringLiteral("1.5"));
            r.version = QStringLiteral("2.0");
            return r;
        }
        }
        return {};
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!kit.unavailable.isEmpty())
            QSKIP(qPrintable(kit.unavailable));
        installedBefore = UpdateKit::snapshot(kit.installed);
        QVERIFY(!installedBefore.isEmpty());
    }
    void init()
    {
        kit.alerts.clear();
        kit.revealed.clear();
        kit.busy = false;
        kit.answer = 0;
    }

    void verifiedReleaseIsShown()
    {
        const Release r = publish(QStringLiteral("good"), QStringLiteral("2.0"));
        auto u = kit.updater();
        QSignalSpy done(u.get(), &AppUpdates::downloadFinished);
        u->download(r);
        QVERIFY(u->checking());
        QVERIFY(done.wait(20000));
        QCOMPARE(done[0][0].toBool(), true);
        QTRY_COMPARE(kit.revealed, QStringList{u->verifiedFolder()});
        QCOMPARE(kit.alerts[0].message, QStringLiteral("Update verified"));
        QVERIFY(kit.alerts[0].informative.contains(kit.installed));
        QCOMPARE(kit.alerts[0].buttons.value(0), QStringLiteral("Show Verified App"));
        const QString folder = u->verifiedFolder();
        QVERIFY(folder.endsWith(QLatin1String("/verified/Brava Recorder")));
        QVERIFY(QFileInfo(folder).dir().path().contains(kit.dir.path() + QStringLiteral("/brava-update-")));
        QCOMPARE(QFile::permissions(QFileInfo(folder).path()) & 0x0077, QFile::Permissions());
        QVERIFY(QFileInfo(folder + QStringLiteral("/brava-recorder")).isExecutable());
        QCOMPARE(QFileInfo(folder + QStringLiteral("/data-link")).symLinkTarget(), folder + QStringLiteral("/lib/data.txt"));
        QVERIFY(QFile::exists(QFileInfo(folder).path() + QStringLiteral("/../Brava Recorder-2.0-linux.zip")));
        QCOMPARE(UpdateKit::snapshot(kit.installed), installedBefore);
    }

    // Busy after verification, or busy again at the click: the busy alert, never the file manager.
    void busyAtHandOver_data()
    {
        QTest::addColumn<bool>("busyAtEnd");
        QTest::addColumn<QStringList>("alerts");
        const QString verified = QStringLiteral("Update verified");
        QTest::newRow("busy when verified") << true << QStringList{verified}; // the busy one only
        QTest::newRow("busy at the click") << false << QStringList{verified, verified}; // instructions, then busy
    }
    void busyAtHandOver()
    {
        QFETCH(bool, busyAtEnd);
        QFETCH(QStringList, alerts);
        const Release r = publish(QStringLiteral("busy"), QStringLiteral("2.0"));
        auto u = kit.updater();
        QSignalSpy done(u.get(), &AppUpdates::downloadFinished);
        u->download(r);
        kit.busy = busyAtEnd;
        QVERIFY(done.wait(20000));
        kit.busy = true;
        QTRY_COMPARE(kit.alerts.last().informative,
                     QStringLiteral("The update is ready, but recording or uploads have started. Use Check for Updates when they finish."));
        QVERIFY(kit.revealed.isEmpty());
        QStringList shown;
        for (const Alert &a : std::as_const(kit.alerts))
            shown.append(a.message);
        QCOMPARE(shown, alerts);
    }

    void forged_data()
    {
        QTest::addColumn<Forgery>("forgery");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QString>("detail"); // in the log line
        QTest::newRow("wrong digest") << Forgery::WrongDigest << kIntegrity << QStringLiteral("(digest ");
        QTest::newRow("signed by another key") << Forgery::OtherKey << kSignature << QStringLiteral("signature does not verify");
        QTest::newRow("manifest omits a file") << Forgery::OmitsFile << kSignature << QStringLiteral("manifest lists files");
        QTest::newRow("manifest misses an added file") << Forgery::AddsFile << kSignature << QStringLiteral("not in the manifest: lib/extra.so");
        QTest::newRow("file changed after signing") << Forgery::ChangesFile << kSignature << QStringLiteral("differs from the manifest: lib/data.txt");
        QTest::newRow("version mismatch") << Forgery::VersionMismatch << kMismatch << QStringLiteral("holds version 2.1");
        QTest::newRow("another program's identifier") << Forgery::OtherIdentifier << kSignature << QStringLiteral("another program");
        QTest::newRow("redirect to another host") << Forgery::RedirectOtherHost << kInvalid << QStringLiteral("Invalid download");
        QTest::newRow("redirect to http") << Forgery::RedirectHttp << kInvalid << QStringLiteral("Invalid download");
        QTest::newRow("redirect to an explicit port") << Forgery::RedirectPort << kInvalid << QStringLiteral("Invalid download");
        QTest::newRow("zip-slip entry") << Forgery::ZipSlip << kSignature << QStringLiteral("leaves the folder or has a bad name");
        QTest::newRow("link escaping the folder") << Forgery::LinkEscapes << kSignature << QStringLiteral("link leaves the folder");
        QTest::newRow("set-uid file") << Forgery::SetUid << kSignature << QStringLiteral("set-uid or set-gid entry: brava-recorder");
        QTest::newRow("executable for another machine") << Forgery::WrongArchitecture << kSignature << QStringLiteral("not a program for this computer");
        QTest::newRow("no app folder") << Forgery::NoAppFolder << kIntegrity << QStringLiteral("outside the app folder");
        QTest::newRow("truncated archive") << Forgery::Truncated << kSignature << QStringLiteral("archive is damaged");
        QTest::newRow("over the cap, no length") << Forgery::OversizeWithoutLength
                                                  << QStringLiteral("Download larger than %1 bytes").arg(UpdateKit::kCap) << QStringLiteral("than 1048576");
        QTest::newRow("over the cap, with length") << Forgery::OversizeWithLength
                                                    << QStringLiteral("Download larger than %1 bytes").arg(UpdateKit::kCap) << QStringLiteral("than 1048576");
        QTest::newRow("older version, right key") << Forgery::OlderSigned << kMismatch << QStringLiteral("holds version 1.5");
    }
    void forged()
    {
        QFETCH(Forgery, forgery);
        QFETCH(QString, error);
        QFETCH(QString, detail);
        const Release r = forge(forgery);
        auto u = kit.updater();
        QSignalSpy done(u.get(), &AppUpdates::downloadFinished);
        u->download(r);
        QVERIFY(done.wait(20000));
        QCOMPARE(done[0][0].toBool(), false);
        QCOMPARE(u->lastError(), error);
        QCOMPARE(kit.alerts.size(), 1);
        QCOMPARE(kit.alerts[0].message, QStringLiteral("Update wasn’t opened"));
        QCOMPARE(kit.alerts[0].informative,
                 QStringLiteral("The download or its signature could not be verified. Your installed app is unchanged. "
                                "Try Check for Updates again later."));
        QVERIFY(kit.revealed.isEmpty());
        QVERIFY(!u->checking());
        QCOMPARE(UpdateKit::snapshot(kit.installed), installedBefore);
        QVERIFY(!QFile::exists(kit.dir.path() + QStringLiteral("/slipped.txt")));
        const QString line = home.log().split(QLatin1Char('\n')).filter(QStringLiteral("update refused: ")).last();
        QVERIFY2(line.contains(QStringLiteral("update refused: ") + error) && line.contains(detail), qPrintable(line));
    }

    // A release that is not newer than the running version is never downloaded (rollback).
    void olderReleaseNeverDownloads()
    {
        const Release r = publish(QStringLiteral("old"), QStringLiteral("1.5"));
        auto u = kit.updater(QStringLiteral("1.9"));
        kit.server->paths.clear();
        u->download(r);
        QVERIFY(!u->checking());
        kit.busy = true;
        u = kit.updater(QStringLiteral("1.0"));
        u->download(r); // busy: nothing either
        QVERIFY(!u->checking());
        QVERIFY(kit.server->paths.isEmpty());
    }

    // What the unpacker refuses before it writes anything.
    void unpackRefusals_data()
    {
        QTest::addColumn<QByteArray>("zip");
        QTest::addColumn<int>("maxEntries");
        QTest::addColumn<qint64>("maxBytes");
        QTest::addColumn<QString>("reason");
        const QString path = kit.dir.path() + QStringLiteral("/u.zip");
        const auto zipOf = [&](const QList<UpdateKit::ZipItem> &items) {
            UpdateKit::writeZip(path, QList<UpdateKit::ZipItem>{{QStringLiteral("B/first.txt"), "first"}} + items);
            return readAll(path);
        };
        QTest::newRow("absolute path") << zipOf({{QStringLiteral("/tmp/abs.txt"), "x"}}) << 100 << qint64(1000) << "leaves the folder";
        QTest::newRow("dot-dot") << zipOf({{QStringLiteral("B/../../x.txt"), "x"}}) << 100 << qint64(1000) << "leaves the folder";
        QTest::newRow("link out") << zipOf({{QStringLiteral("B/l"), {}, 0120777, QStringLiteral("../..")}}) << 100 << qint64(1000) << "link leaves";
        QTest::newRow("absolute link") << zipOf({{QStringLiteral("B/l"), {}, 0120777, QStringLiteral("/etc")}}) << 100 << qint64(1000) << "link leaves";
        QTest::newRow("device") << withMode(zipOf({{QStringLiteral("B/dev"), {}}}), "B/dev", 020644) << 100 << qint64(1000) << "device";
        QTest::newRow("block device") << withMode(zipOf({{QStringLiteral("B/blk"), {}}}), "B/blk", 060644) << 100 << qint64(1000) << "device";
        QTest::newRow("twice") << zipOf({{QStringLiteral("B/first.txt"), "again"}}) << 100 << qint64(1000) << "twice";
        QTest::newRow("too many entries") << zipOf({{QStringLiteral("B/2"), "2"}, {QStringLiteral("B/3"), "3"}}) << 2 << qint64(1000) << "entries";
        QTest::newRow("too many bytes") << zipOf({{QStringLiteral("B/big"), QByteArray(2000, 'b')}}) << 100 << qint64(1000) << "bytes";
    }
    void unpackRefusals()
    {
        QFETCH(QByteArray, zip);
        QFETCH(int, maxEntries);
        QFETCH(qint64, maxBytes);
        QFETCH(QString, reason);
        QTemporaryDir into;
        const QString path = into.path() + QStringLiteral("/a.zip");
        writeAll(path, zip);
        QDir().mkdir(into.path() + QStringLiteral("/out"));
        QList<ArchiveUnpacker::Entry> entries;
        QString error;
        QVERIFY(!ArchiveUnpacker::unpack(path, into.path() + QStringLiteral("/out"), {maxEntries, maxBytes}, &entries, &error));
        QVERIFY2(error.contains(reason), qPrintable(error));
        QCOMPARE(QDir(into.path() + QStringLiteral("/out")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
        QCOMPARE(QDir(into.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), (QStringList{QStringLiteral("a.zip"), QStringLiteral("out")}));
    }
};

QTEST_GUILESS_MAIN(UpdateDownloadTest)
#include "tst_update_download.moc"
