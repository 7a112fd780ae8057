#include "DeviceChoice.h"
#include "LiveConverter.h"

#include <QtTest>

#include <cmath>
#include <vector>

namespace {
std::vector<float> square(int frames, int channels, float amplitude)
{
    std::vector<float> s(size_t(frames) * size_t(channels));
    for (int i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            s[size_t(i * channels + c)] = (i / 24) % 2 ? -amplitude : amplitude;
    return s;
}

int16_t sampleAt(const QByteArray &pcm, int i)
{
    return int16_t(uint16_t(uint8_t(pcm[2 * i])) | uint16_t(uint8_t(pcm[2 * i + 1])) << 8);
}

Device dev(const char *uid, bool builtIn, bool isDefault = false)
{
    return Device{QString::fromLatin1(uid), QString::fromLatin1(uid), builtIn, isDefault};
}
} // namespace

// The live-audio converter and the device choice rules.
class LiveAudioTest : public QObject
{
    Q_OBJECT

private slots:
    void outputCapacity()
    {
        QCOMPARE(LiveConverter::outputCapacity(480, 48000), 544);
        QCOMPARE(LiveConverter::outputCapacity(441, 44100), 544);
    }

    // Full scale gives a peak of 1.0 and ±32767 (never −32768); beyond full scale is clamped.
    void fullScaleSquareAndClamp()
    {
        LiveConverter live;
        const std::vector<float> s = square(480, 1, 1.0f);
        const auto pcm = live.process(s.data(), 480, 48000, 1, true);
        QVERIFY(pcm);
        QCOMPARE(pcm->size(), 960);
        QCOMPARE(sampleAt(*pcm, 0), int16_t(32767));
        QCOMPARE(sampleAt(*pcm, 24), int16_t(-32767));
        QCOMPARE(live.takePeak(), 1.0f);
        QCOMPARE(live.takePeak(), 0.0f);
        QCOMPARE(LiveConverter::toPcm16(1.5f), int16_t(32767));
        QCOMPARE(LiveConverter::toPcm16(-7.0f), int16_t(-32767));
        QCOMPARE(LiveConverter::toPcm16(0.99999f), int16_t(32766)); // truncated toward zero
        QCOMPARE(LiveConverter::toPcm16(-0.5f), int16_t(-16383));
    }

    // Without listening nothing is returned, yet the level is measured.
    void levelWithoutListening()
    {
        LiveConverter live;
        const std::vector<float> s = square(480, 1, 0.5f);
        QVERIFY(!live.process(s.data(), 480, 48000, 1, false));
        QVERIFY(std::fabs(live.takePeak() - 0.5f) < 1e-4f);
        QVERIFY(!live.process(nullptr, 480, 48000, 1, true));
        QVERIFY(!live.process(s.data(), 0, 48000, 1, true));
    }

    // Stereo computer audio comes out as one channel at the same level; another rate is
    // converted to 48 kHz; the converter follows format changes.
    void stereoAndOtherRates()
    {
        LiveConverter live;
        const std::vector<float> st = square(480, 2, 0.8f);
        const auto mono = live.process(st.data(), 480, 48000, 2, true);
        QVERIFY(mono);
        QCOMPARE(mono->size(), 960);
        QVERIFY(std::fabs(live.takePeak() - 0.8f) < 1e-3f);

        std::vector<float> s441(4410, 0.25f); // 100 ms of DC at 44.1 kHz in 10 ms blocks
        qsizetype total = 0;
        for (int k = 0; k < 10; ++k) {
            const auto out = live.process(s441.data() + 441 * k, 441, 44100, 1, true);
            if (out)
                total += out->size() / 2;
        }
        QVERIFY2(total > 4500 && total <= 4800, qPrintable(QString::number(total)));
    }

    void realDeviceNames()
    {
        QVERIFY(!DeviceChoice::isReal(QStringLiteral("BlackHole 2ch")));
        QVERIFY(!DeviceChoice::isReal(QStringLiteral("Microsoft Teams Audio")));
        QVERIFY(!DeviceChoice::isReal(QStringLiteral("Monitor of VIRTUAL sink")));
        QVERIFY(DeviceChoice::isReal(QStringLiteral("USB Headset")));
        QVERIFY(DeviceChoice::isBuiltIn(QStringLiteral("internal"), QString()));
        QVERIFY(DeviceChoice::isBuiltIn(QString(), QStringLiteral("pci")));
        QVERIFY(!DeviceChoice::isBuiltIn(QStringLiteral("headset"), QStringLiteral("usb")));
        QVERIFY(!DeviceChoice::isBuiltIn(QString(), QStringLiteral("bluetooth")));
    }

    // Headset over the laptop's microphone with no saved choice; an unplugged saved choice goes
    // to the system default, not to another attached device; the room microphone is the built-in
    // one unless it is already the main microphone.
    void choosingMicrophones()
    {
        const QList<Device> laptopAndHeadset = {dev("builtin", true, true), dev("headset", false), dev("usb2", false)};
        QCOMPARE(DeviceChoice::pickMic(laptopAndHeadset, QString())->uid, QStringLiteral("headset"));
        QCOMPARE(DeviceChoice::pickMic(laptopAndHeadset, QStringLiteral("usb2"))->uid, QStringLiteral("usb2"));
        QCOMPARE(DeviceChoice::pickMic(laptopAndHeadset, QStringLiteral("unplugged"))->uid, QStringLiteral("builtin"));
        const QList<Device> laptop = {dev("builtin", true, true)};
        QCOMPARE(DeviceChoice::pickMic(laptop, QString())->uid, QStringLiteral("builtin"));
        const QList<Device> noDefault = {dev("a", true), dev("b", true)};
        QCOMPARE(DeviceChoice::pickMic(noDefault, QString())->uid, QStringLiteral("a"));
        QVERIFY(!DeviceChoice::pickMic({}, QString()));

        QCOMPARE(DeviceChoice::pickRoomMic(laptopAndHeadset, QStringLiteral("headset"))->uid, QStringLiteral("builtin"));
        QVERIFY(!DeviceChoice::pickRoomMic(laptopAndHeadset, QStringLiteral("builtin")));
    }
};

QTEST_GUILESS_MAIN(LiveAudioTest)
#include "tst_live_audio.moc"
