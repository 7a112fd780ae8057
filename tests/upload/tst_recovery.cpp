#include "DataFolder.h"
#include "SessionFolder.h"
#include "OrphanRecovery.h"
#include "SegmentSalvage.h"
#include "TestHome.h"

#include <QtTest>

namespace {

QByteArray box(const char *type, int payload)
{
    QByteArray b(8 + payload, '\0');
    qToBigEndian<quint32>(quint32(b.size()), b.data());
    memcpy(b.data() + 4, type, 4);
    return b;
}

// A fragmented file: header, movie box, then `fragments` whole fragments of 100-byte media.
QByteArray fragmented(int fragments)
{
    QByteArray data = box("ftyp", 12) + box("moov", 40);
    for (int i = 0; i < fragments; ++i)
        data += box("moof", 24) + box("mdat", 100);
    return data;
}

QString write(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size() ? path : QString();
}

} // namespace

// What a crash leaves in writing/ is kept when it holds media, trimmed when cut, set aside when
// it holds none, and the last piece of a cut-off take goes out as its final piece.
class RecoveryTest : public QObject
{
    Q_OBJECT
    TestHome home;

private Q_SLOTS:
    void mediaEnd_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<qint64>("end");
        const QByteArray two = fragmented(2);
        QTest::newRow("empty") << QByteArray() << qint64(0);
        QTest::newRow("header only") << fragmented(0) << qint64(0);
        QTest::newRow("cut in the movie box") << fragmented(1).left(30) << qint64(0);
        QTest::newRow("no movie box") << box("ftyp", 12) + box("moof", 24) + box("mdat", 100) << qint64(0);
        QTest::newRow("fragment without media") << fragmented(0) + box("moof", 24) << qint64(0);
        QTest::newRow("whole") << two << qint64(two.size());
        QTest::newRow("cut in media") << two.left(two.size() - 1) << qint64(fragmented(1).size());
        QTest::newRow("cut after a fragment header") << two + box("moof", 24) << qint64(two.size());
        QTest::newRow("index after the fragments") << two + box("mfra", 16) << qint64(two.size() + 24);
        QTest::newRow("impossible size") << two + QByteArray("\0\0\0\3mdat", 8) << qint64(two.size());
    }
    void mediaEnd()
    {
        QFETCH(QByteArray, data);
        QBuffer buffer(&data);
        QVERIFY(buffer.open(QIODevice::ReadOnly));
        QTEST(SegmentSalvage::mediaEnd(buffer), "end");
    }

    // A real segment cut by a crash inside its last fragment reads cleanly once trimmed.
    void cutRecordingReadsAfterTrim()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty())
            QSKIP("ffmpeg not installed");
        const QString path = home.root() + QStringLiteral("/cut.m4a");
        QProcess ffmpeg;
        ffmpeg.start(QStringLiteral("ffmpeg"), QStringLiteral("-v error -y -f lavfi -i sine=d=5 -c:a aac -movflags frag_keyframe+delay_moov+default_base_moof -frag_duration 1000000").split(QLatin1Char(' ')) << path);
        QVERIFY(ffmpeg.waitForFinished(30000) && ffmpeg.exitCode() == 0);
        QFile file(path);
        QVERIFY(file.resize(file.size() * 7 / 10));
        QCOMPARE(SegmentSalvage::salvage(path), SegmentSalvage::Verdict::Trimmed);
        QProcess probe;
        probe.start(QStringLiteral("ffmpeg"), QStringList{QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path, QStringLiteral("-f"), QStringLiteral("null"), QStringLiteral("-")});
        QVERIFY(probe.waitForFinished(30000) && probe.exitCode() == 0);
        QCOMPARE(probe.readAllStandardError(), QByteArray()); // decodes without a single error
        QCOMPARE(SegmentSalvage::salvage(path), SegmentSalvage::Verdict::Whole);
    }

    void folderOfACrashedTake()
    {
        home.wipe();
        const QString writing = DataFolder::dir(QStringLiteral("writing"));
        const QString folder = writing + QLatin1Char('/') + SessionFolder::name(QStringLiteral("s/1"));
        const QString unrecognized = DataFolder::dir(QStringLiteral("unrecognized"));
        write(folder + QStringLiteral("/mic_7_00000.m4a"), fragmented(3));
        write(folder + QStringLiteral("/mic_7_00001.m4a"), fragmented(1) + box("moof", 24));
        write(folder + QStringLiteral("/mic_7_00002.m4a"), QByteArray()); // opened just before the crash
        write(folder + QStringLiteral("/sys_7_00000_final.m4a"), fragmented(1)); // ended before the crash
        write(folder + QStringLiteral("/cam_7_00000.mp4"), fragmented(0));

        const QList<OrphanRecovery::Found> found = OrphanRecovery(writing, unrecognized).run();
        QStringList names;
        for (const OrphanRecovery::Found &f : found) {
            QCOMPARE(f.session, QStringLiteral("s/1"));
            names << QFileInfo(f.path).fileName();
        }
        QCOMPARE(names, (QStringList{QStringLiteral("mic_7_00000.m4a"), QStringLiteral("mic_7_00001_final.m4a"),
                                     QStringLiteral("sys_7_00000_final.m4a")}));
        QCOMPARE(QFileInfo(found[1].path).size(), qint64(fragmented(1).size()));
        QCOMPARE(QDir(unrecognized).entryList(QDir::Files),
                 (QStringList{QStringLiteral("cam_7_00000.mp4"), QStringLiteral("mic_7_00002.m4a")}));
        QVERIFY(home.log().contains(QStringLiteral("recovery: mic_7_00002.m4a holds no whole fragment")));
    }
};

QTEST_GUILESS_MAIN(RecoveryTest)
#include "tst_recovery.moc"
