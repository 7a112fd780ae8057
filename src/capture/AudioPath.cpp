#include "AudioPath.h"

#include "BravaLog.h"
#include "DriftCorrector.h"
#include "LiveConverter.h"
#include "SerialQueue.h"
#include "Take.h"

#include <algorithm>
#include <array>

namespace {
const char *trackName(int source)
{
    static const char *const names[] = {"mic", "sys", "room"};
    return names[source];
}
} // namespace

AudioPath::AudioPath(SerialQueue &q, const std::atomic<bool> &listening)
    : m_q(q)
    , m_listening(listening)
{
    for (auto &d : m_drift)
        d = std::make_unique<DriftCorrector>();
    for (auto &l : m_live)
        l = std::make_unique<LiveConverter>();
}

AudioPath::~AudioPath()
{
    m_q.sync([this] { m_take.reset(); }); // every job using this path has run
}

int AudioPath::newStream(Source source) { return ++m_generation[source]; }

void AudioPath::post(Source source, int generation, AudioBuffer &&buffer)
{
    const int64_t frames = buffer.frames();
    const int64_t limit = int64_t(buffer.rate) * kMaxQueuedMs / 1000;
    if (m_queuedFrames[source] + frames > limit && m_queuedFrames[source] > 0) {
        ++m_dropped[source]; // q is stuck (a disk that does not answer): the sound server may not wait
        return;
    }
    m_queuedFrames[source] += frames;
    m_q.async([this, source, generation, frames, b = std::move(buffer)] {
        m_queuedFrames[source] -= frames;
        onAudio(source, generation, b);
    });
}

void AudioPath::beginTake(std::shared_ptr<Take> take)
{
    // Drops from now on belong to this take, also those before the job below has run.
    std::array<long long, kSources> before{};
    for (int k = 0; k < kSources; ++k)
        before[size_t(k)] = m_dropped[k];
    m_q.async([this, before, take = std::move(take)]() mutable {
        for (int k = 0; k < kSources; ++k) {
            m_reported[k] = before[size_t(k)];
            m_steps[k] = {};
            m_noticed[k] = false;
        }
        m_take = std::move(take);
    });
}

void AudioPath::endTake(std::function<void()> done)
{
    m_q.async([this, done = std::move(done)] {
        // Audio still held for placing goes to the sync in time order, as it would have come.
        std::vector<TimedSample> held[kSources];
        size_t next[kSources] = {0, 0, 0};
        judgeSteps(true);
        for (int k = 0; k < kSources; ++k) {
            held[k] = m_drift[k]->flush();
            noteSteps(Source(k));
        }
        for (;;) {
            int first = -1;
            for (int k = 0; k < kSources; ++k)
                if (next[k] < held[k].size() && (first < 0 || held[k][next[k]].pts < held[first][next[first]].pts))
                    first = k;
            if (first < 0)
                break;
            write(Source(first), {held[first][next[first]++]});
        }
        if (m_take)
            m_take->finishAudio();
        reportDrops();
        reportSteps();
        m_take.reset();
        if (done)
            done();
    });
}

void AudioPath::reportDrops()
{
    for (int k = 0; k < kSources; ++k) {
        const long long now = m_dropped[k];
        if (now > m_reported[k])
            bravaLog(QStringLiteral("audio queue full: dropped ") + QString::number(now - m_reported[k])
                     + QStringLiteral(" blocks of ") + QString::fromLatin1(trackName(k)));
        m_reported[k] = now;
    }
}

QString AudioPath::stepText(int64_t frames)
{
    return QString::number(frames) + QStringLiteral(" frames (") + QString::number(double(frames) / 48.0, 'f', 1)
        + QStringLiteral(" ms)");
}

void AudioPath::judgeSteps(bool final)
{
    // The tracks share the clock their stamps are on. Late timing answers (a loaded machine, all
    // answers late after a stall) move every track's stamps later by about as much; audio the
    // server lost moves only the track that lost it, and only later (a server never hands audio
    // out twice). So the part of a step every other track shares, at most the smallest of their
    // moves (less the losses the server's positions showed on them), is lateness and stays set
    // aside; the part beyond it is this track's own loss and is mended, when it is clearly more
    // than the stamps' jitter. A track that has not delivered since a second before the step is
    // not running and is no witness; without one nothing is mended.
    for (int k = 0; k < kSources; ++k) {
        DriftCorrector &track = *m_drift[k];
        const std::optional<DriftCorrector::Candidate> step = track.pendingStep();
        if (!step)
            continue;
        // The server's own positions show this stream's audio lost: filled as they say. Comparing
        // it with the other tracks' stamps would count their moves between the loss and the
        // window of snapshots that showed it (often a loss they shared) against it.
        if (step->located) {
            track.settleStep(step->frames);
            noteSteps(Source(k), QStringLiteral("the server's positions show it"));
            continue;
        }
        std::optional<double> shared; // the witnesses' move closest to none
        bool waiting = false;
        QStringList movedWith;
        for (int o = 0; o < kSources; ++o) {
            const DriftCorrector &other = *m_drift[o];
            if (o == k || other.newestNs() < step->seenNs - 1000000000)
                continue;
            if (!final && other.newestNs() < step->seenNs + kJudgeNs && track.newestNs() < step->seenNs + kMaxJudgeNs) {
                waiting = true;
                continue;
            }
            const std::optional<double> move = other.stampMove(std::min(step->atNs, step->seenNs) - 20000000, step->seenNs);
            if (!move)
                continue;
            const double along = step->seconds > 0 ? std::clamp(*move, 0.0, step->seconds) : std::clamp(*move, step->seconds, 0.0);
            if (!shared || std::fabs(along) < std::fabs(*shared))
                shared = along;
            if (std::fabs(*move) > kWitnessStillSeconds)
                movedWith.append(QString::fromLatin1(trackName(o)));
        }
        if (waiting)
            continue;
        const double own = shared ? step->seconds - *shared : 0.0;
        const bool mend = std::fabs(own) >= std::max(DriftCorrector::kMinStepSeconds, kOwnShare * std::fabs(step->seconds));
        const int frames = mend ? int(std::lround(double(step->frames) * own / step->seconds)) : 0;
        track.settleStep(frames);
        noteSteps(Source(k), !shared ? QStringLiteral("no other track to compare with")
                          : !mend && movedWith.isEmpty() ? QStringLiteral("too small to tell from the stamps' jitter")
                          : !mend ? QStringLiteral("stamps of ") + movedWith.join(QStringLiteral(", ")) + QStringLiteral(" moved too")
                          : movedWith.isEmpty() ? QStringLiteral("the other tracks' stamps held still")
                                                : QStringLiteral("beyond the move of ") + movedWith.join(QStringLiteral(", ")));
    }
}

void AudioPath::noteSteps(Source source, const QString &why)
{
    const DriftCorrector::Steps now = m_drift[source]->takeSteps();
    if (!m_take || (now.gaps == 0 && now.overlaps == 0 && now.doubtful == 0))
        return;
    DriftCorrector::Steps &take = m_steps[source];
    const bool first = take.gaps == 0 && take.overlaps == 0 && take.doubtful == 0;
    take.gaps += now.gaps;
    take.overlaps += now.overlaps;
    take.doubtful += now.doubtful;
    take.located += now.located;
    take.gapFrames += now.gapFrames;
    take.overlapFrames += now.overlapFrames;
    take.doubtfulFrames += now.doubtfulFrames;
    if (!first)
        return;
    const QString reason = why.isEmpty() ? QString() : QStringLiteral(" (") + why + QStringLiteral(")");
    const QString what = now.gaps ? QStringLiteral("the sound server lost ") + stepText(now.gapFrames)
            + QStringLiteral(" of audio, filled with silence") + reason
        : now.overlaps ? QStringLiteral("the sound server repeated ") + stepText(now.overlapFrames)
            + QStringLiteral(" of audio, dropped") + reason
                       : QStringLiteral("its time stamps moved ") + stepText(now.doubtfulFrames)
            + QStringLiteral(" with no audio shown lost, not filled") + reason;
    bravaLog(QString::fromLatin1(trackName(source)) + QStringLiteral(": ") + what
             + QStringLiteral("; further ones are counted until the take ends"));
}

void AudioPath::reportSteps()
{
    for (int k = 0; k < kSources; ++k) {
        const DriftCorrector::Steps &s = m_steps[k];
        if (s.gaps > 0 || s.overlaps > 0 || s.doubtful > 0)
            bravaLog(QString::fromLatin1(trackName(k)) + QStringLiteral(": in this take ") + QString::number(s.gaps)
                     + QStringLiteral(" gaps filled with silence, ") + stepText(s.gapFrames) + QStringLiteral(" in all, ")
                     + QString::number(s.located) + QStringLiteral(" confirmed by the server's positions; ")
                     + QString::number(s.overlaps) + QStringLiteral(" overlaps dropped, ") + stepText(s.overlapFrames)
                     + QStringLiteral("; ") + QString::number(s.doubtful) + QStringLiteral(" doubtful steps not filled, ")
                     + stepText(s.doubtfulFrames));
        m_steps[k] = {};
    }
}

float AudioPath::takePeak(Source source) { return m_peak[source].exchange(0.f); }

void AudioPath::raisePeak(Source source, float peak)
{
    float seen = m_peak[source];
    while (peak > seen && !m_peak[source].compare_exchange_weak(seen, peak)) {
    }
}

void AudioPath::onAudio(Source source, int generation, const AudioBuffer &buffer)
{
    Q_ASSERT(m_q.isCurrent());
    if (generation != m_generation[source])
        return; // a block of a stream that has been closed since
    if (m_driftGeneration[source] != generation) {
        write(source, m_drift[source]->flush()); // the previous stream's last audio
        noteSteps(source);
        m_driftGeneration[source] = generation;
    }
    // The corrector holds the first audio back while it places its time line: the start sync
    // hears of it now, or it would turn camera frames away all that time.
    if (m_take && !m_noticed[source]) {
        m_noticed[source] = true;
        m_take->sawFirst(QString::fromLatin1(trackName(source)), MediaTime::fromNanoseconds(buffer.captureNs));
    }
    write(source, m_drift[source]->process(buffer));
    noteSteps(source, QStringLiteral("no other track compared it in time"));
    judgeSteps(false);
    if (source == Room)
        return; // the room microphone has no live audio and no level
    LiveConverter &live = *m_live[source];
    const std::optional<QByteArray> pcm = live.process(reinterpret_cast<const float *>(buffer.pcm.constData()),
                                                       buffer.frames(), buffer.rate, buffer.channels, m_listening);
    raisePeak(source, live.takePeak());
    QByteArray &held = m_liveHeld[source];
    if (!pcm || !onLiveAudio) {
        held.clear(); // not listening: nothing old is sent when listening starts again
        return;
    }
    held += *pcm;
    if (held.size() >= kLiveChunkBytes) {
        onLiveAudio(source == Mic ? 0 : 1, held);
        held.clear();
    }
}

void AudioPath::write(Source source, const std::vector<TimedSample> &samples)
{
    if (!m_take)
        return;
    const QString track = QString::fromLatin1(trackName(source));
    for (const TimedSample &sample : samples)
        m_take->write(track, sample);
}
