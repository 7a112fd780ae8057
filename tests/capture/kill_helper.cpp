// A recorder process for the crash test: records a take from a synthetic sound system fed in
// real time, prints "started <take>" and runs until it is killed.
#include "SyntheticCameraBackend.h"
#include "Clock.h"
#include "Recorder.h"
#include "SyntheticAudioBackend.h"

#include <QCoreApplication>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <thread>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    SyntheticAudioBackend backend;
    backend.devices = {Device{QStringLiteral("usbmic"), QStringLiteral("USB Mic"), false, true}};
    backend.monitor = QStringLiteral("out.monitor");
    SyntheticCameraBackend cameras({});
    Recorder rec(backend, cameras, Clock::monotonic());
    std::atomic<bool> quit{false};
    std::thread feeder;
    rec.start(QStringLiteral("killed"), [&] {
        feeder = std::thread([&] {
            int64_t frame = 0;
            const int64_t start = Clock::monotonic().nowNs();
            while (!quit) {
                const int64_t due = start + frame * 1000000000 / 48000;
                const int64_t now = Clock::monotonic().nowNs();
                if (now < due + 10000000) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(2));
                    continue;
                }
                for (const char *source : {"usbmic", "out.monitor"}) {
                    const int channels = backend.openChannels(QString::fromLatin1(source));
                    QByteArray pcm(480 * channels * 4, Qt::Uninitialized);
                    auto *p = reinterpret_cast<float *>(pcm.data());
                    for (int i = 0; i < 480; ++i)
                        for (int c = 0; c < channels; ++c)
                            p[i * channels + c] = 0.3f * float(std::sin(2 * M_PI * 440.0 * double(frame + i) / 48000.0));
                    backend.deliver(QString::fromLatin1(source), pcm, due);
                }
                frame += 480;
            }
        });
        std::printf("started %lld\n", (long long)rec.currentTake());
        std::fflush(stdout);
    });
    const int rc = app.exec();
    quit = true;
    if (feeder.joinable())
        feeder.join();
    return rc;
}
