// Download and verification of a release: the hand-over to the file manager, a corpus of forged
// updates (each refused with the installed folder untouched and its own internal error) and the
// archives the unpacker refuses.
#include "ArchiveUnpacker.h"
#include "ReleaseManifest.h"
#include "ReleaseVerifier.h"
#include "TestHome.h"
#include "TestLiterals.h"
#include "UpdateDownload.h"
#include "UpdateKit.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

namespace {

const QString kIntegrity = QStringLiteral("Download integrity check failed");
const QString kSignature = QStringLiteral("Signature validation failed");
const QString kMismatch = QStringLiteral("Update version mismatch");

using Tweak = std::function<void(const QString &folder)>;
using Forge = std::function<Release()>;

void writeFile(const QString &path, const QByteArray &data)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(data);
}

// One zip entry: written as a file holding `data`, then given the file type and mode bits of `mode`
// in the central directory (a link's target is its data), as zip writers refuse devices.
struct Item
{
    QByteArray path;
    unsigned mode = 0100644;
    QByteArray data = "x";
};

QByteArray zipOf(const QList<Item> &items)
{
    QByteArray out(1 << 16, '\0');
    size_t used = 0;
    archive *a = archive_write_new();
    archive_write_set_format_zip(a);
    archive_write_open_memory(a, out.data(), size_t(out.size()), &used);
    for (const Item &i : items) {
        archive_entry *e = archive_entry_new();
        archive_entry_set_pathname(e, i.path.constData());
        archive_entry_set_mode(e, 0100644);
        archive_entry_set_size(e, i.data.size());
        archive_write_header(a, e);
        archive_write_data(a, i.data.constData(), size_t(i.data.size()));
        archive_entry_free(e);
    }
    archive_write_free(a);
    out.truncate(qsizetype(used));
    qsizetype p = -4;
    for (const Item &i : items) // the central directory's entries, in order
        qToLittleEndian(quint16(i.mode), out.data() + (p = out.indexOf("PK\x01\x02", p + 4)) + 40);
    return out;
}

} // namespace

Q_DECLARE_METATYPE(Forge)

class UpdateDownloadTest : public QObject
{
    Q_OBJECT
    TestHome home;
    UpdateKit kit;
    int m_serial = 0;
    QByteArray m_zip; // the last published archive

    // A release folder of `version` signed with `key` after `beforeSigning`, zipped by sign-release
    // or, after `afterSigning`, by zip again; served under /wp-content/uploads/.
    Release publish(const QString &version = QStringLiteral("2.0"), const Tweak &beforeSigning = {}, const Tweak &afterSigning = {},
                    const QString &key = QStringLiteral("test-private.pem"))
    {
        const QString root = kit.dir.filePath(QString::number(++m_serial)), folder = root + QLatin1String("/Brava Recorder");
        const QString path = QLatin1String("/wp-content/uploads/") + QString::number(m_serial) + QLatin1String(".zip");
        QDir().mkpath(folder + QLatin1String("/lib"));
        QFile::copy(QStringLiteral("/bin/true"), folder + QLatin1String("/brava-recorder"));
        writeFile(folder + QLatin1String("/Info.ini"), "[General]\nCFBundleShortVersionString=" + version.toUtf8() + "\nCFBundleIdentifier=com.vantorra.brava-recorder\n");
        writeFile(folder + QLatin1String("/lib/data.txt"), "release data\n");
        QFile::link(QStringLiteral("lib/data.txt"), folder + QLatin1String("/data-link"));
        if (beforeSigning)
            beforeSigning(folder);
        const QByteArray entry = UpdateKit::run(root, {QStringLiteral(BRAVA_SOURCE_DIR "/scripts/sign-release"), folder, UpdateKit::key(key), kit.base() + path});
        QString zip = root + QLatin1String("/Brava Recorder-") + version + QLatin1String("-linux.zip");
        if (afterSigning) {
            QFile::remove(zip);
            afterSigning(folder);
            UpdateKit::run(root, {QStringLiteral("zip"), QStringLiteral("-qry"), zip = root + QLatin1String(".zip"), QStringLiteral(".")});
        }
        Release r = serve(path, {200, UpdateKit::readAll(zip)}, version);
        if (!afterSigning) // the digest sign-release printed
            r.sha256 = QJsonDocument::fromJson(entry).object().value(QLatin1String("sha256")).toString();
        return r;
    }
    Release serve(const QString &path, const HttpsStub::Answer &answer, const QString &version = QStringLiteral("2.0"))
    {
        kit.server->route(path.toUtf8(), answer);
        m_zip = answer.body;
        return {QStringLiteral("recorder"), QStringLiteral("linux"), version, QUrl(kit.base() + path), QString::fromLatin1(QCryptographicHash::hash(m_zip, QCryptographicHash::Sha256).toHex()), true};
    }
    QStringList workFolders() const
    {
        return QDir(kit.dir.path()).entryList({QStringLiteral("brava-update-*")}, QDir::Dirs | QDir::NoDotAndDotDot);
    }
    void installedUntouched()
    {
        QCOMPARE(QDir(kit.installed).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), strings({"brava-recorder"}));
        QCOMPARE(UpdateKit::readAll(kit.installed + QLatin1String("/brava-recorder")), UpdateKit::readAll(QStringLiteral("/bin/true")));
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!kit.unavailable.isEmpty())
            QSKIP(qPrintable(kit.unavailable));
        QCOMPARE(AppUpdates::Options().maxDownloadBytes, qint64(512) << 20); // the build's cap; the tests use kCap
        const ArchiveUnpacker::Limits limits; // the real limits and time-outs, shortened below
        QVERIFY(limits.maxEntries == 20000 && limits.maxBytes == qint64(4) << 30 && ReleaseManifest::kMaxBytes == 4 << 20);
        QVERIFY(AppUpdates::kFeedTimeoutMs == 20000 && UpdateDownload::kTimeoutMs == 300000);
        QVERIFY(AppUpdates::Options().downloadDeadlineMs == 30 * 60000 && UpdateDownload::kDeadlineMs == 30 * 60000);
        // Work folders live in the data folder (removed with it, never by a reboot), not in /tmp.
        QCOMPARE(AppUpdates::defaultWorkRoot(), home.root() + QStringLiteral("/data/Brava Recorder/updates"));
    }
    void init()
    {
        kit.alerts.clear();
        kit.revealed.clear();
        kit.busy = kit.revealFails = false;
        kit.answer = 0;
    }

    // Idle, busy once verified, or busy again at the click: the file manager only when idle (after
    // busy at the click, two alerts: the instructions, then busy); when nothing can show the
    // folder, an alert names it.
    void handOver()
    {
        const struct { bool busyWhenVerified, busyAtClick, revealFails; int alerts; } rows[] = {{false, false, false, 1}, {true, true, false, 1}, {false, true, false, 2}, {false, false, true, 2}};
        for (const auto &[busyWhenVerified, busyAtClick, revealFails, alerts] : rows) {
            kit.alerts.clear(), kit.revealed.clear(), kit.busy = false, kit.revealFails = revealFails;
            auto u = kit.updater();
            QSignalSpy done(u.get(), &AppUpdates::downloadFinished);
            const Release release = publish();
            u->download(release);
            kit.busy = busyWhenVerified;
            QVERIFY(done.wait(20000) && done[0][0].toBool() == true);
            kit.busy = busyAtClick;
            const QString folder = u->verifiedFolder();
            QTRY_COMPARE(kit.alerts.size(), alerts);
            QTRY_COMPARE(kit.revealed, busyAtClick ? QStringList() : QStringList{folder});
            installedUntouched();
            if (busyAtClick) {
                QCOMPARE(kit.alerts.last().message, QStringLiteral("Update verified"));
                QCOMPARE(kit.alerts.last().informative, QStringLiteral("The update is ready, but recording or uploads have started. Use Check for Updates when they finish."));
                // Once idle, the tick's offer shows the verified build; that version is not fetched again.
                kit.busy = false;
                const qsizetype asked = kit.server->heads.size();
                u->offerPending();
                QTRY_COMPARE(kit.revealed, QStringList{folder});
                u->download(release);
                QTRY_COMPARE(kit.revealed, (QStringList{folder, folder}));
                QVERIFY(kit.server->heads.size() == asked && !u->checking());
                continue;
            }
            QCOMPARE(kit.alerts[0].informative, QStringLiteral("Quit Brava Recorder, then replace the installed Brava Recorder folder (") + kit.installed
                                                    + QStringLiteral(") with the verified one shown in the file manager. Open it again. Your agent number and settings stay saved.\n\n"
                                                                     "The verified folder: ") + folder);
            QCOMPARE(kit.alerts[0].buttons.value(0), QStringLiteral("Show Verified App"));
            if (revealFails) {
                QCOMPARE(kit.alerts[1].message + u'|' + kit.alerts[1].informative, QStringLiteral("Couldn’t show the verified folder|No file manager on this computer opened it "
                                                                                                  "(the log says why). Open it yourself: ") + folder);
                kit.revealFails = false;
            }
            QVERIFY2(folder.startsWith(kit.dir.path() + QLatin1String("/brava-update-")) && folder.endsWith(QLatin1String("/verified/Brava Recorder")), qPrintable(folder));
            QCOMPARE(QFile::permissions(QFileInfo(folder).path()) & 0x0077, QFile::Permissions());
            QVERIFY(QFileInfo(folder + QLatin1String("/brava-recorder")).isExecutable());
            QCOMPARE(QFileInfo(folder + QLatin1String("/data-link")).symLinkTarget(), folder + QLatin1String("/lib/data.txt"));
            QVERIFY(QFile::exists(folder + QLatin1String("/../../Brava Recorder-2.0-linux.zip")));
        }
        QTRY_COMPARE(workFolders().size(), 1); // each download took the place of the one before
    }

    void forged_data()
    {
        QTest::addColumn<Forge>("forge");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QString>("detail"); // in the log line
        const auto row = [](const char *name, const Forge &forge, const QString &error, const char *detail) {
            QTest::newRow(name) << forge << error << QString::fromUtf8(detail);
        };
        const auto before = [this](const Tweak &t) { return [this, t] { return publish(QStringLiteral("2.0"), t); }; };
        const auto after = [this](const Tweak &t) { return [this, t] { return publish(QStringLiteral("2.0"), {}, t); }; };
        const auto answered = [this](const HttpsStub::Answer &a) { return [this, a] { return serve(QStringLiteral("/wp-content/uploads/x.zip"), a); }; };
        row("wrong digest", [this] { Release r = publish(); r.sha256 = QString(64, QLatin1Char('0')); return r; }, kIntegrity, "(digest ");
        row("signed by another key", [this] { return publish(QStringLiteral("2.0"), {}, {}, QStringLiteral("other-private.pem")); }, kSignature, "signature does not verify");
        row("manifest omits a file", after([](const QString &f) { QFile::remove(f + QLatin1String("/lib/data.txt")); }), kSignature, "manifest lists files");
        row("manifest misses an added file", after([](const QString &f) { writeFile(f + QLatin1String("/lib/extra.so"), "payload"); }), kSignature,
            "not in the manifest: lib/extra.so");
        row("file changed after signing", after([](const QString &f) { writeFile(f + QLatin1String("/lib/data.txt"), "Release data\n"); }), kSignature, // same size
            "differs from the manifest: lib/data.txt");
        row("mode changed after signing", after([](const QString &f) { ::chmod(QFile::encodeName(f + QLatin1String("/lib/data.txt")).constData(), 0755); }),
            kSignature, "differs from the manifest: lib/data.txt");
        row("link turned after signing", after([](const QString &f) { QFile::remove(f + QLatin1String("/data-link")), QFile::link(QStringLiteral("lib"), f + QLatin1String("/data-link")); }),
            kSignature, "differs from the manifest: data-link");
        row("no app folder", after([](const QString &f) { QDir().rename(f, f + QLatin1String("/../Other")); }), kIntegrity, "outside the app folder");
        row("version mismatch", [this] { Release r = publish(QStringLiteral("2.1")); r.version = QStringLiteral("2.0"); return r; }, kMismatch, "holds version 2.1");
        row("another program's identifier", before([](const QString &f) {
                writeFile(f + QLatin1String("/Info.ini"), "[General]\nCFBundleShortVersionString=2.0\nCFBundleIdentifier=com.other.app\n");
            }), kSignature, "another program");
        row("set-uid file", before([](const QString &f) { ::chmod(QFile::encodeName(f + QLatin1String("/brava-recorder")).constData(), 04755); }), kSignature,
            "set-uid or set-gid entry: brava-recorder");
        row("set-gid file", before([](const QString &f) { ::chmod(QFile::encodeName(f + QLatin1String("/lib/data.txt")).constData(), 02644); }), kSignature,
            "set-uid or set-gid entry: lib/data.txt");
        row("executable for another machine", before([](const QString &f) {
                QFile exe(f + QLatin1String("/brava-recorder"));
                QVERIFY(exe.open(QIODevice::ReadWrite) && exe.seek(18) && exe.write(QByteArray(2, '\0')) == 2); // no machine
            }), kSignature, "not a program for this computer");
        row("truncated archive", [this] { publish(); return serve(QStringLiteral("/wp-content/uploads/t.zip"), {200, m_zip.left(m_zip.size() / 2)}); }, kSignature,
            "archive is damaged");
        row("link leaving the app folder", before([](const QString &f) { QFile::link(QStringLiteral("../../Other"), f + QLatin1String("/lib/up")); }), kSignature,
            "link leaves the app folder: lib/up");
        row("zip-slip entry", [this] { return serve(QStringLiteral("/wp-content/uploads/s.zip"), {200, zipOf({{"Brava Recorder/a"}, {"Brava Recorder/../../x"}})}); },
            kSignature, "leaves the folder");
        row("redirect to another host", answered({302, {}, "https://127.0.0.1/wp-content/uploads/x.zip"}), QStringLiteral("Invalid download"), "");
        row("redirect with a port", answered({302, {}, "https://" + kit.host.toLatin1() + ":443/wp-content/uploads/x.zip"}), QStringLiteral("Invalid download"), "");
        row("redirect to http", answered({302, {}, "http://" + kit.host.toLatin1() + "/wp-content/uploads/x.zip"}), QStringLiteral("Invalid download"), "");
        row("at the cap, no archive", answered({200, QByteArray(UpdateKit::kCap, 'z'), {}, false}), kSignature, "archive");
        row("over the cap, no length", answered({200, QByteArray(2 * UpdateKit::kCap, 'z'), {}, false}), QStringLiteral("Download larger than 1048576 bytes"), "");
    }
    void forged()
    {
        QFETCH(Forge, forge);
        QFETCH(QString, error);
        QFETCH(QString, detail);
        auto u = kit.updater();
        QSignalSpy done(u.get(), &AppUpdates::downloadFinished);
        u->download(forge());
        QVERIFY(done.wait(20000) && done[0][0].toBool() == false);
        QTRY_COMPARE(workFolders(), QStringList()); // the whole work folder is gone (partial archive, unpacked files), and the earlier ones
        QCOMPARE(u->lastError(), error);
        QVERIFY(kit.alerts.size() == 1 && kit.alerts[0].message == QStringLiteral("Update wasn’t opened"));
        QCOMPARE(kit.alerts[0].informative, QStringLiteral("The download or its signature could not be verified. Your installed app is "
                                                           "unchanged. Try Check for Updates again later."));
        QVERIFY2(kit.revealed.isEmpty() && !u->checking(), qPrintable(kit.revealed.join(u' ')));
        installedUntouched();
        const QString line = home.log().split(QLatin1Char('\n')).filter(QStringLiteral("update refused: ")).last();
        QVERIFY2(line.contains(QStringLiteral("update refused: ") + error) && line.contains(detail), qPrintable(line));
    }

    // A transfer that trickles on is shown in the menu as it goes and ends at the deadline.
    void slowDownloadEndsAtDeadline()
    {
        kit.deadlineMs = 1500;
        auto u = kit.updater();
        kit.deadlineMs = 30 * 60000;
        QSignalSpy done(u.get(), &AppUpdates::downloadFinished);
        u->download(serve(QStringLiteral("/wp-content/uploads/slow.zip"), {200, QByteArray(200000, 's'), {}, true, true}));
        QTRY_COMPARE(u->activity(), QStringLiteral("Downloading the update… 50 %"));
        QVERIFY(done.wait(20000) && done[0][0].toBool() == false);
        QCOMPARE(u->lastError(), QStringLiteral("the download did not finish within 1.5 s"));
        QCOMPARE(u->activity(), QString());
    }

    // A build is unpacked into "unpacking" and named "verified" only once every check has passed.
    void verifiedOnlyOnceVerified()
    {
        for (const bool tampered : {true, false}) {
            const Release r = tampered ? publish(QStringLiteral("2.0"), {}, [](const QString &f) { writeFile(f + QLatin1String("/lib/data.txt"), "Release data\n"); }) : publish();
            const QString work = kit.dir.filePath(QStringLiteral("direct-%1").arg(tampered));
            QVERIFY(QDir().mkpath(work));
            writeFile(work + QLatin1String("/a.zip"), m_zip);
            const ReleaseVerifier::Result result = ReleaseVerifier::verify({work + QLatin1String("/a.zip"), work, r.version, QStringLiteral("com.vantorra.brava-recorder"),
                                                                            UpdateKit::readAll(UpdateKit::key(QStringLiteral("test-public.pem"))), {}});
            QCOMPARE(result.ok, !tampered);
            QCOMPARE(QDir(work).entryList(QDir::Dirs | QDir::NoDotAndDotDot), QStringList{tampered ? QStringLiteral("unpacking") : QStringLiteral("verified")});
        }
    }

    // A release not newer than the running version is never downloaded (rollback), nor is any while busy.
    void olderOrBusyNeverDownloads()
    {
        const Release r{QStringLiteral("recorder"), QStringLiteral("linux"), QStringLiteral("1.5"), QUrl(kit.base() + QLatin1String("/wp-content/uploads/o.zip")), QString(64, QLatin1Char('a')), true};
        auto u = kit.updater(QStringLiteral("1.9"));
        u->download(r);
        QVERIFY(!u->checking() && home.log().contains(QStringLiteral("update refused: version 1.5 is not newer")));
        u = kit.updater(QStringLiteral("1.0")); // an address the policy refuses is not even asked
        const qsizetype asked = kit.server->heads.size();
        u->download({r.product, r.platform, r.version, QUrl(QStringLiteral("http://") + kit.host + QLatin1String("/wp-content/uploads/o.zip")), r.sha256, true});
        QVERIFY(!u->checking() && kit.server->heads.size() == asked);
        kit.busy = true;
        u = kit.updater(QStringLiteral("1.0"));
        u->download(r);
        QVERIFY(!u->checking());
    }

    // What the unpacker refuses before it writes anything.
    void unpackRefusals()
    {
        const QList<std::pair<QList<Item>, QString>> rows = { // entries after B/first.txt, the reason
            {{{"/tmp/abs.txt"}}, QStringLiteral("leaves the folder")}, {{{"B/../../x.txt"}}, QStringLiteral("leaves the folder")},
            {{{"B/l", 0120777, "../../etc"}}, QStringLiteral("link leaves")}, {{{"B/l", 0120777, "/etc"}}, QStringLiteral("link leaves")},
            {{{"B/dev", 020644}}, QStringLiteral("device")}, {{{"B/blk", 060644}}, QStringLiteral("device")}, {{{"B/first.txt"}}, QStringLiteral("twice")},
            {{{"B/a\\b.txt"}}, QStringLiteral("leaves the folder")}, {{{"B/a\tb.txt"}}, QStringLiteral("leaves the folder")},
            {{{"B/l", 0120777, ".."}}, QStringLiteral("link leaves")}, {{{"B/2"}, {"B/3"}}, QStringLiteral("entries")}, {{{"B/big", 0100644, QByteArray(2000, 'b')}}, QStringLiteral("bytes")}};
        for (const auto &[items, reason] : rows) {
            QTemporaryDir into;
            const QString out = into.filePath(QStringLiteral("out"));
            writeFile(into.filePath(QStringLiteral("a.zip")), zipOf(QList<Item>{{"B/first.txt"}} + items));
            QDir().mkdir(out);
            QList<ArchiveUnpacker::Entry> entries;
            QString error;
            QVERIFY(!ArchiveUnpacker::unpack(into.filePath(QStringLiteral("a.zip")), out, {2, 1000}, &entries, &error));
            QVERIFY2(error.contains(reason), qPrintable(error));
            QCOMPARE(QDir(out).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
            QCOMPARE(QDir(into.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), (QStringList{QStringLiteral("a.zip"), QStringLiteral("out")}));
        }
    }
};

QTEST_GUILESS_MAIN(UpdateDownloadTest)
#include "tst_update_download.moc"
