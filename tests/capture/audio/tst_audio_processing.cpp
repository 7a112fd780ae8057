#include "DeviceChoice.h"
#include "DriftCorrector.h"
#include "LiveConverter.h"
#include "MediaProbe.h"
#include "RecorderFixture.h"
#include "StreamTimeLine.h"
#include "TestHome.h"
#include "TestLiterals.h"

#include <random>

namespace {
constexpr int kRate = 48000;
constexpr int kBlock = 480;
constexpr int64_t kStartNs = 1000000000;

// The sample at `frame` of one 1 kHz cycle at 0.9 played at each of `clicks` (frames).
float clickAt(const QVector<int64_t> &clicks, int64_t frame)
{
    for (int64_t c : clicks)
        if (frame - c >= 0 && frame - c < 48)
            return 0.9f * float(std::sin(2 * M_PI * double(frame - c) / 48.0));
    return 0.0f;
}

// Where the clicks lie in a track's file of take "S1" (frames), at most one per 100 ms.
QVector<qsizetype> clicksIn(const RecorderFixture &f, const QString &track)
{
    const QVector<float> pcm = MediaProbe::decode(f.path(QStringLiteral("S1"), f.finalName(track)));
    QVector<qsizetype> at;
    for (qsizetype a = MediaProbe::firstAbove(pcm, 0.25f); a >= 0; a = MediaProbe::firstAbove(pcm, 0.25f, a + 4800))
        at.append(a);
    return at;
}
} // namespace

// What happens to captured audio on its way to the files and the control room: the drift
// corrector, the live-audio converter, and the choice of microphones.
class AudioProcessingTest : public QObject
{
    Q_OBJECT
    TestHome home;

private Q_SLOTS:
    void init() { home.wipe(); }

    // Steps in the microphone's stamps on the manual clock, with clicks played at the same device
    // frames into each track and stamps jittered ±1 ms:
    // - "lost quanta": a server that now and then loses a whole quantum (256 frames) of the
    //   microphone, with no sign but the stamps (the other tracks' hold still, but for one loss
    //   that comes as every track's stamps go 5 ms late for 0.2 s): each loss is filled with
    //   silence where it happened (clicks 60 ms after each); the log tells the first loss with its
    //   size and the take's total, and the shared lateness is filled on no track;
    // - "late": stamps of every track go 6 ms late together for half a second (timing answers
    //   delayed on a loaded machine), the microphone's 2 ms more (jitter, no loss), with and
    //   without the other tracks: nothing is filled or dropped, the log calls the step doubtful
    //   with its reason (clicks before, in and after it);
    // - "server skipped ahead": every track loses a quantum at once and the microphone one more
    //   just after, which the server's positions show (the shared one on every track 0.3 s
    //   later, the microphone's own after that): each is filled where it happened, on every track;
    //   "…beside a loss shown on the others": the microphone's own loss (143 frames) shows in its
    //   stamps alone, just after the shared one is shown: it is filled all the same.
    // Every click lies in the microphone's file at the computer audio's time and at its place as
    // played, within 1 ms.
    void stepsInTheStamps()
    {
        const struct { const char *name; bool losses, witnesses; int skip; } rows[] = { // skip 0: no; 1: as above; 2: beside
            {"lost quanta", true, true, 0}, {"all tracks late", false, true, 0}, {"microphone alone late", false, false, 0},
            {"server skipped ahead", false, true, 1}, {"…beside a loss shown on the others", false, true, 2}};
        for (const auto &[name, losses, witnesses, skip] : rows) {
            init();
            qInfo("%s", name);
            const int own = skip == 2 ? 143 : 256; // the microphone's own loss, shown at block ownShown
            const int ownShown = skip == 2 ? 231 : 250;
            RecorderFixture f(0, true);
            std::mt19937 random(losses ? 11 : 5);
            QVector<int> lossBlocks; // 10 ms blocks before which the microphone loses 256 frames
            for (int b = 100; losses && b < 560; b += std::uniform_int_distribution<int>(40, 90)(random))
                lossBlocks.append(b);
            QVector<int64_t> clicks; // device frames: 60 ms after each loss, or before, in and after the lateness
            for (int k = 0; k < lossBlocks.size(); ++k)
                clicks.append(int64_t(lossBlocks[k]) * kBlock + 256 * (k + 1) + 2880);
            if (!losses)
                clicks = skip ? QVector<int64_t>{260 * kBlock + 100, 420 * kBlock + 7} : QVector<int64_t>{320 * kBlock + 100, 380 * kBlock + 7, 470 * kBlock + 300};
            const auto lostBy = [&](int b) { return 256 * std::count_if(lossBlocks.begin(), lossBlocks.end(), [b](int l) { return l <= b; }); };
            const int lateFrom = losses ? lossBlocks[2] : 360, lateTo = lateFrom + (losses ? 20 : 50);
            QVERIFY(f.start(QStringLiteral("S1")));
            const int64_t startNs = f.clock->nowNs();
            for (int b = 0; b < (losses ? 620 : 500); ++b) {
                f.manual->set(startNs + (b + 1) * 10000000LL);
                for (const QString &source : witnesses ? QStringList{QStringLiteral("usbmic"), QStringLiteral("laptop"), RecorderFixture::kMonitor} : strings({"usbmic"})) {
                    const int channels = f.audio->openChannels(source);
                    const bool mic = source == QStringLiteral("usbmic");
                    const int64_t lost = skip ? 256 * (b >= 200) + (mic && b >= 215 ? own : 0) : mic ? lostBy(b) : 0;
                    const int64_t shown = skip ? 256 * (b >= 230) + (mic && b >= ownShown ? own : 0) : lost; // in the stamps
                    const int64_t first = b * kBlock + lost; // its first device frame
                    const int64_t late = skip ? 0 : b >= lateFrom && b < lateTo ? (losses ? 5000000 : mic ? 8000000 : 6000000) : 0;
                    const bool note = skip && (b == 230 || (mic && b == 250 && skip != 2)); // by the server's positions
                    QByteArray pcm(kBlock * channels * int(sizeof(float)), Qt::Uninitialized);
                    auto *p = reinterpret_cast<float *>(pcm.data());
                    for (int i = 0; i < kBlock * channels; ++i)
                        p[i] = clickAt(clicks, first + i / channels);
                    const int64_t jitter = std::uniform_int_distribution<int64_t>(-1000000, 1000000)(random);
                    f.audio->deliver(source, pcm, startNs + (b * kBlock + shown) * 1000000000 / kRate + jitter + late, false, note ? 256 : 0,
                                     startNs + (b == 230 ? 200 * kBlock : 215 * kBlock + 256) * 1000000000 / kRate);
                }
                f.rec->audioQueue().sync([] {});
            }
            QVERIFY(f.stop());
            const QVector<qsizetype> mic = clicksIn(f, QStringLiteral("mic")), sys = witnesses ? clicksIn(f, QStringLiteral("sys")) : mic;
            QVERIFY(mic.size() == clicks.size() && sys.size() == clicks.size());
            for (int k = 0; k < clicks.size(); ++k) {
                const qsizetype off = mic[k] - sys[0] - (clicks[k] - clicks[0]);
                qInfo("click %d: mic - sys %.3f ms, off its place %.3f ms", k + 1, double(mic[k] - sys[k]) / 48.0, double(off) / 48.0);
                QVERIFY2(std::llabs(mic[k] - sys[k]) <= 48 && std::llabs(off) <= 48, qPrintable(QString::number(k + 1)));
            }
            const QString log = home.log();
            if (skip) {
                const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("mic: in this take 2 gaps filled with silence, (\\d+) frames .* in all, (\\d) confirmed")).match(log);
                QVERIFY2(m.hasMatch() && std::abs(m.captured(1).toInt() - 256 - own) <= 24 && m.captured(2).toInt() == (skip == 2 ? 1 : 2)
                             && log.contains(QStringLiteral("sys: in this take 1 gaps filled with silence, 256 frames (5.3 ms) in all, 1 confirmed")),
                         qPrintable(log));
                continue;
            }
            QVERIFY2(!log.contains(QRegularExpression(QStringLiteral("(sys|room): (in this take [1-9]|the sound server)"))), qPrintable(log));
            if (!losses) {
                QVERIFY2((!log.contains(QStringLiteral("filled with silence,")) || log.contains(QStringLiteral("in this take 0 gaps filled"))) && log.contains(QStringLiteral("mic: its time stamps moved"))
                             && log.contains(witnesses ? QStringLiteral("moved too") : QStringLiteral("no other track to compare with"))
                             && !log.contains(QStringLiteral("the sound server lost")) && !log.contains(QStringLiteral("the sound server repeated")),
                         qPrintable(log));
                continue;
            }
            const QRegularExpressionMatch one = QRegularExpression(QStringLiteral("mic: the sound server lost (\\d+) frames .* filled with silence")).match(log);
            const QRegularExpressionMatch all = QRegularExpression(QStringLiteral("mic: in this take %1 gaps filled with silence, (\\d+) frames").arg(lossBlocks.size())).match(log);
            QVERIFY2(log.count(QStringLiteral("the sound server lost")) == 1 && one.hasMatch() && all.hasMatch(), qPrintable(log));
            QVERIFY2(std::abs(one.captured(1).toInt() - 256) <= 24 && std::abs(all.captured(1).toInt() - lostBy(620)) <= 48, qPrintable(log));
        }
    }

    // A device 0.1 % fast for 30 minutes (1.8 s of extra samples) stays on the monotonic time
    // line with contiguous stamps and exactly 48000 frames per second of monotonic time; blocks
    // lost after 10 s re-anchor the time line once, and what follows keeps its place.
    void staysOnTheTimeline()
    {
        for (const int lostBlocks : {0, 50}) { // none lost, 0.5 s lost
            // A device whose crystal runs 0.1 % fast: blocks stamped with the monotonic time of their
            // first frame plus the jitter a real sound server shows (uniform ±1.5 ms), clicks at 50 and 99 %.
            const int seconds = 1800;
            const double rate = kRate * 1.001;
            const QVector<int64_t> clicks = {int64_t(seconds * kRate * 0.5), int64_t(seconds * kRate * 0.99)};
            const auto timeOf = [rate](int64_t f) { return kStartNs + int64_t(double(f) * 1e9 / rate); };
            std::mt19937 random(7);
            DriftCorrector corrector;
            int64_t nextNs = -1, frames = 0, gaps = 0, b = 0;
            QVector<int64_t> clicksNs; // where the written clicks reach 0.3
            for (; b < int64_t(seconds * rate) / kBlock; ++b) {
                AudioBuffer block{QByteArray(kBlock * int(sizeof(float)), 0), kRate, 1, timeOf(b * kBlock), false};
                for (int i = 0; i < kBlock; ++i)
                    reinterpret_cast<float *>(block.pcm.data())[i] = clickAt(clicks, b * kBlock + i);
                block.captureNs += std::uniform_int_distribution<int64_t>(-1500000, 1500000)(random);
                for (const TimedSample &s : b < 1000 || b >= 1000 + lostBlocks ? corrector.process(block) : std::vector<TimedSample>()) {
                    const int64_t pts = s.pts.in(1000000000);
                    gaps += nextNs >= 0 && std::llabs(pts - nextNs) > 1;
                    const auto *p = reinterpret_cast<const float *>(s.pcm.constData());
                    for (int i = 0; i < s.frameCount(); ++i)
                        if (std::fabs(p[i]) >= 0.3f && (clicksNs.isEmpty() || pts - clicksNs.last() > 100000000))
                            clicksNs.append(pts + int64_t(i) * 1000000000 / kRate);
                    frames += s.frameCount();
                    nextNs = pts + int64_t(s.frameCount()) * 1000000000 / kRate;
                }
            }
            QCOMPARE(corrector.anchors(), lostBlocks ? 2 : 1);
            const double stretch = corrector.stretch();
            for (const TimedSample &s : corrector.flush()) // the audio held back for a late verdict
                frames += s.frameCount();
            QCOMPARE(gaps, int64_t(lostBlocks ? 1 : 0));
            QCOMPARE(clicksNs.size(), clicks.size());
            for (int i = 0; i < clicks.size(); ++i) {
                const double errMs = double(clicksNs[i] - timeOf(clicks[i] + 3)) / 1e6;
                qInfo("click at %.0f s: %.3f ms off the time line", double(clicks[i]) / rate, errMs);
                QVERIFY2(std::fabs(errMs) < 1.0, qPrintable(QString::number(errMs)));
            }
            const double written = double(frames) / kRate;
            const double elapsed = double(timeOf(b * kBlock) - kStartNs) / 1e9 - lostBlocks * 0.01;
            QVERIFY2(std::fabs(written - elapsed) < 0.005, qPrintable(QStringLiteral("%1 vs %2").arg(written).arg(elapsed)));
            QVERIFY(std::fabs(stretch + 0.001) < 0.0002); // it found the crystal's error
        }
    }

    // A loss the server's positions show (256 frames lost at block 100, shown at block 150) while
    // a move of the stamps alone awaits a verdict that never comes (every stamp 6 ms late from
    // block 140) waits its turn, and the audio after the loss is held meanwhile: the silence goes
    // in before a click of block 102, though that was 0.85 s old when the loss got its verdict.
    void aShownLossWaitsForAPendingVerdict()
    {
        DriftCorrector corrector;
        const QVector<int64_t> clicks = {102 * kBlock + 100};
        int64_t clickNs = -1;
        for (int b = 0; b < 300; ++b) {
            AudioBuffer block{QByteArray(kBlock * int(sizeof(float)), 0), kRate, 1, 0, false};
            const int64_t first = b * kBlock + (b >= 100 ? 256 : 0); // its first device frame
            for (int i = 0; i < kBlock; ++i)
                reinterpret_cast<float *>(block.pcm.data())[i] = clickAt(clicks, first + i);
            block.captureNs = kStartNs + (b * kBlock + (b >= 150 ? 256 : 0)) * 1000000000LL / kRate + (b >= 140 ? 6000000 : 0);
            if (b == 150)
                block.lostFrames = 256, block.lostAtNs = kStartNs + 100 * kBlock * 1000000000LL / kRate;
            std::vector<TimedSample> out = corrector.process(block);
            if (corrector.pendingStep() && corrector.pendingStep()->located)
                corrector.settleStep(corrector.pendingStep()->frames);
            if (b == 299)
                for (TimedSample &s : corrector.flush())
                    out.push_back(std::move(s));
            for (const TimedSample &s : out) {
                const auto *p = reinterpret_cast<const float *>(s.pcm.constData());
                for (int i = 0; i < s.frameCount() && clickNs < 0; ++i)
                    if (p[i] >= 0.3f)
                        clickNs = s.pts.in(1000000000) + int64_t(i) * 1000000000 / kRate;
            }
        }
        const DriftCorrector::Steps steps = corrector.takeSteps();
        QVERIFY(steps.gaps == 1 && steps.located == 1 && steps.gapFrames == 256 && steps.doubtful == 1);
        const int64_t placeNs = kStartNs + (clicks[0] + 3) * 1000000000LL / kRate; // device frames count the lost ones; 0.3 is reached 3 frames in
        QVERIFY2(clickNs >= 0 && std::llabs(clickNs - placeNs) < 1000000, qPrintable(QString::number(double(clickNs - placeNs) / 1e6)));
    }

    // A server that reports latency 0 hands a mono stream over in quanta of 256 frames; each
    // snapshot is answered 20–300 µs after its quantum arrived, and 500–1200 µs after it while
    // the server stalls now and then (a stall every 7 quanta, from 1 s on, for `stalls` stalls),
    // each stall losing one quantum of the stream when `losing`; with `hang`, the server first
    // answers nothing for 0.4 s and then late by 2–4 ms while it catches up (nothing lost). The
    // losses shown add up to what was lost, within a millisecond, and late answers alone show none.
    void serverPositionsShowWhatWasLost()
    {
        // A quantum lost at each of 12 stalls; one after a hang; 40 stalls and a hang, answers late, nothing lost.
        const struct { int stalls; bool losing, hang; } rows[] = {{12, true, false}, {1, true, true}, {40, false, true}};
        for (const auto &[stalls, losing, hang] : rows) {
            constexpr int64_t kQuantumNs = 256 * 1000000000LL / kRate;
            StreamTimeLine line(kRate, int(sizeof(float)));
            std::mt19937 random(7);
            int64_t writeIndex = 0, lost = 0;
            int shownFrames = 0;
            for (int q = 1; q < 900; ++q) {
                const int stall = q >= 190 && (q - 190) % 7 == 0 ? (q - 190) / 7 : -1;
                const bool stalling = q >= 190 && q < 190 + 7 * stalls + 60;
                if (stall >= 0 && stall < stalls && losing) {
                    ++lost; // this quantum never reaches the stream
                    continue;
                }
                writeIndex += 256 * int64_t(sizeof(float));
                const bool hung = hang && q >= 100 && q < 175, catchingUp = hang && q >= 175 && q < 185;
                if (hung)
                    continue; // no answer
                const auto late = [&](int64_t from, int64_t to) { return std::uniform_int_distribution<int64_t>(from, to)(random); };
                const int64_t lateNs = catchingUp ? late(2000000, 4000000) : stalling ? late(500000, 1200000) : late(20000, 300000);
                const int64_t takenNs = kStartNs + q * kQuantumNs + lateNs;
                line.add(takenNs, takenNs - writeIndex * 1000000000 / (kRate * int64_t(sizeof(float))), writeIndex, false);
                shownFrames += line.takeLoss().frames;
            }
            QVERIFY2(std::abs(shownFrames - 256 * lost) <= (lost ? 48 : 0), qPrintable(QStringLiteral("%1 of %2").arg(shownFrames).arg(256 * lost)));
        }
    }

    // A new format (another device) starts a new time line at its own first block; what the old
    // one still held comes out first. Output waits kHoldSeconds (a loss found late is filled where
    // it happened).
    void formatChangeStartsOver()
    {
        DriftCorrector corrector;
        std::vector<TimedSample> out;
        const auto feed = [&](int channels, int64_t fromNs, int blocks) {
            out.clear();
            for (int b = 0; b < blocks; ++b)
                for (TimedSample &s : corrector.process({QByteArray(kBlock * 4 * channels, 0), kRate, channels, fromNs + b * 10000000LL, false}))
                    out.push_back(std::move(s));
            return out.empty() ? -1 : out.front().pts.in(1000000000);
        };
        QCOMPARE(feed(1, 1000000000, 9), -1); // 0.09 s: still settling
        QVERIFY(std::llabs(feed(1, 1090000000, 90) - 1000000000) < 1000);
        QVERIFY(feed(2, 9000000000, 100) > 0 && out.front().channels == 1); // the mono time line's last held frames
        const auto stereo = std::find_if(out.begin(), out.end(), [](const TimedSample &s) { return s.channels == 2; });
        QVERIFY(stereo != out.end() && std::llabs(stereo->pts.in(1000000000) - 9000000000) < 1000000);
    }

    // 100 ms of a square wave in 10 ms blocks comes out as 48 kHz mono 16-bit at the same level:
    // full scale as ±32767 (never −32768, beyond it clamped), stereo as one channel, another rate
    // converted; without listening nothing comes out, yet the level is measured.
    void conversion()
    {
        // Full scale, beyond it, stereo, 44.1 kHz, not listening.
        const struct { int rate, channels; float amplitude; bool listening; } rows[] = {
            {48000, 1, 1.0f, true}, {48000, 1, 1.5f, true}, {48000, 2, 0.8f, true}, {44100, 1, 0.25f, true}, {48000, 1, 0.5f, false}};
        for (const auto &[rate, channels, amplitude, listening] : rows) {
            LiveConverter live;
            const int frames = rate / 100;
            std::vector<float> block(size_t(frames * channels));
            QByteArray out;
            for (int k = 0; k < 10; ++k) {
                for (size_t i = 0; i < block.size(); ++i)
                    block[i] = ((k * frames + int(i) / channels) / 24) % 2 ? -amplitude : amplitude;
                out += live.process(block.data(), frames, rate, channels, listening).value_or(QByteArray());
            }
            const int most = listening ? 4800 : 0; // 100 ms at 48 kHz; a resampler may hold a few back
            QVERIFY2(out.size() / 2 >= most * 15 / 16 && out.size() / 2 <= most, qPrintable(QString::number(out.size())));
            QVERIFY2(std::fabs(live.takePeak() - amplitude) < 0.03f * amplitude && live.takePeak() == 0.0f, qPrintable(QString::number(amplitude)));
            const auto *pcm = reinterpret_cast<const int16_t *>(out.constData());
            QVERIFY(amplitude < 1.0f || (pcm[0] == 32767 && pcm[24] == -32767 && pcm[48] == 32767));
        }
    }

    // The level of one click does not depend on the blocks it comes in: PulseAudio hands over a
    // few milliseconds at a time, PipeWire a quantum.
    void levelIgnoresBlockSize()
    {
        QVector<float> levels;
        for (int block : {96, 256, 480, 1024}) {
            LiveConverter live;
            std::vector<float> s(size_t(block) * 8, 0.0f);
            for (int i = 0; i < 48; ++i)
                s[size_t(block) * 3 + 20 + size_t(i)] = 0.9f * float(std::sin(2 * M_PI * i / 48.0));
            for (int k = 0; k < 8; ++k)
                live.process(s.data() + size_t(k) * size_t(block), block, kRate, 1, false);
            levels.append(live.takePeak());
        }
        const auto [least, most] = std::minmax_element(levels.begin(), levels.end());
        // The click's power over the 10 ms window: sqrt(48 × 0.9² / 2 / 480) ≈ 0.201.
        QVERIFY2(*most - *least < 0.01f && std::fabs(*least - 0.201f) < 0.005f, qPrintable(QStringLiteral("%1 to %2").arg(*least).arg(*most)));
    }

    // Headset over the laptop's microphone with no saved choice; an unplugged saved choice goes
    // to the system default, not to another attached device; then the first one. The room
    // microphone is the built-in one unless it is already the main microphone.
    void choosingMicrophones()
    {
        const QList<Device> both = {{QStringLiteral("builtin"), QString(), true, true}, {QStringLiteral("headset"), QString(), false, false}, {QStringLiteral("usb2"), QString(), false, false}};
        const QList<Device> noDefault = {{QStringLiteral("a"), QString(), true, false}, {QStringLiteral("b"), QString(), true, false}};
        const QList<std::tuple<QList<Device>, const char *, const char *>> rows = { // devices, saved choice: mic and room mic
            {both, "", "headset builtin"}, {both, "usb2", "usb2 builtin"}, {both, "gone", "builtin "}, {noDefault, "", "a b"}};
        for (const auto &[devices, saved, micAndRoom] : rows) {
            const QString mic = DeviceChoice::pickMic(devices, QString::fromUtf8(saved)).value_or(Device{}).uid;
            QCOMPARE(mic + QLatin1Char(' ') + DeviceChoice::pickRoomMic(devices, mic).value_or(Device{}).uid, QString::fromUtf8(micAndRoom));
        }
    }
};

QTEST_GUILESS_MAIN(AudioProcessingTest)
#include "tst_audio_processing.moc"
