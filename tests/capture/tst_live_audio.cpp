#include "DeviceChoice.h"
#include "LiveConverter.h"

#include <QtTest>

#include <cmath>
#include <vector>

Q_DECLARE_METATYPE(QList<Device>)

// The live-audio converter and the device choice rules.
class LiveAudioTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // 100 ms of a square wave in 10 ms blocks comes out as 48 kHz mono 16-bit at the same level:
    // full scale as ±32767 (never −32768), stereo as one channel, another rate converted; without
    // listening nothing comes out, yet the level is measured.
    void conversion_data()
    {
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<float>("amplitude");
        QTest::addColumn<bool>("listening");
        QTest::addColumn<int>("minSamples");
        QTest::newRow("full scale") << 48000 << 1 << 1.0f << true << 4800;
        QTest::newRow("stereo") << 48000 << 2 << 0.8f << true << 4800;
        QTest::newRow("44.1 kHz") << 44100 << 1 << 0.25f << true << 4500;
        QTest::newRow("not listening") << 48000 << 1 << 0.5f << false << 0;
    }
    void conversion()
    {
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(float, amplitude);
        QFETCH(bool, listening);
        QFETCH(int, minSamples);
        LiveConverter live;
        const int frames = rate / 100;
        std::vector<float> block(size_t(frames * channels));
        QByteArray out;
        for (int k = 0; k < 10; ++k) {
            for (size_t i = 0; i < block.size(); ++i)
                block[i] = ((k * frames + int(i) / channels) / 24) % 2 ? -amplitude : amplitude;
            out += live.process(block.data(), frames, rate, channels, listening).value_or(QByteArray());
        }
        QVERIFY2(out.size() / 2 >= minSamples && out.size() / 2 <= (listening ? 4800 : 0), qPrintable(QString::number(out.size())));
        QVERIFY2(std::fabs(live.takePeak() - amplitude) < 0.03f * amplitude, qPrintable(QString::number(amplitude)));
        QCOMPARE(live.takePeak(), 0.0f);
        const auto *pcm = reinterpret_cast<const int16_t *>(out.constData());
        if (amplitude == 1.0f)
            QVERIFY(pcm[0] == 32767 && pcm[24] == -32767);
        QVERIFY(!live.process(nullptr, 480, 48000, 1, true) && !live.process(block.data(), 0, 48000, 1, true));
    }

    // Beyond full scale is clamped, the rest truncated toward zero.
    void toPcm16()
    {
        const QList<std::pair<float, int16_t>> cases = {{1.5f, 32767}, {-7.0f, -32767}, {0.99999f, 32766}, {-0.5f, -16383}};
        for (const auto &[in, out] : cases)
            QCOMPARE(LiveConverter::toPcm16(in), out);
    }

    // Names of virtual devices are filtered; built-in comes from the form factor or the bus.
    void realAndBuiltIn()
    {
        for (const char *fake : {"BlackHole 2ch", "Microsoft Teams Audio", "Monitor of VIRTUAL sink"})
            QVERIFY(!DeviceChoice::isReal(QString::fromUtf8(fake)));
        QVERIFY(DeviceChoice::isReal(QStringLiteral("USB Headset")));
        QVERIFY(DeviceChoice::isBuiltIn(QStringLiteral("internal"), QString()) && DeviceChoice::isBuiltIn(QString(), QStringLiteral("pci")));
        QVERIFY(!DeviceChoice::isBuiltIn(QStringLiteral("headset"), QStringLiteral("usb")) && !DeviceChoice::isBuiltIn(QString(), QStringLiteral("bluetooth")));
    }

    // Headset over the laptop's microphone with no saved choice; an unplugged saved choice goes
    // to the system default, not to another attached device; then the first one. The room
    // microphone is the built-in one unless it is already the main microphone.
    void choosingMicrophones_data()
    {
        const auto dev = [](const char *uid, bool builtIn, bool isDefault = false) {
            return Device{QString::fromLatin1(uid), QString::fromLatin1(uid), builtIn, isDefault};
        };
        const QList<Device> both = {dev("builtin", true, true), dev("headset", false), dev("usb2", false)};
        QTest::addColumn<QList<Device>>("devices");
        QTest::addColumn<QString>("saved");
        QTest::addColumn<QString>("mic");
        QTest::addColumn<QString>("room");
        QTest::newRow("attached wins") << both << QString() << QStringLiteral("headset") << QStringLiteral("builtin");
        QTest::newRow("saved") << both << QStringLiteral("usb2") << QStringLiteral("usb2") << QStringLiteral("builtin");
        QTest::newRow("unplugged") << both << QStringLiteral("gone") << QStringLiteral("builtin") << QString();
        QTest::newRow("no default") << QList<Device>{dev("a", true), dev("b", true)} << QString() << QStringLiteral("a") << QStringLiteral("b");
        QTest::newRow("none") << QList<Device>{} << QString() << QString() << QString();
    }
    void choosingMicrophones()
    {
        QFETCH(QList<Device>, devices);
        QFETCH(QString, saved);
        QFETCH(QString, mic);
        QFETCH(QString, room);
        QCOMPARE(DeviceChoice::pickMic(devices, saved).value_or(Device{}).uid, mic);
        QCOMPARE(DeviceChoice::pickRoomMic(devices, mic).value_or(Device{}).uid, room);
    }
};

QTEST_GUILESS_MAIN(LiveAudioTest)
#include "tst_live_audio.moc"
