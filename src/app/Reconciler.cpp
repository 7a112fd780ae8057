#include "Reconciler.h"

#include "Recorder.h"

#include <QPointer>
#include <QTimer>

Reconciler::Reconciler(Recorder &rec, QObject *parent)
    : QObject(parent)
    , m_rec(rec)
{
}

void Reconciler::kick()
{
    if (m_applying || (canApply && !canApply()))
        return;
    m_applying = true;
    QTimer::singleShot(0, this, [this] { step(); });
}

void Reconciler::step()
{
    Q_ASSERT(m_applying);
    QPointer<Reconciler> self(this);
    const auto again = [self] {
        if (self)
            self->step();
    };

    if (!m_rec.camerasEnabled()) {
        m_rec.listening = false;
        if (m_rec.running()) {
            ++m_recorderCalls;
            m_rec.stop(again);
            issued();
            return;
        }
        finish();
        return;
    }

    m_rec.listening = wantListen;

    if (desiredSession) {
        if (m_rec.running() && m_rec.session() == desiredSession) {
            finish();
            return;
        }
        ++m_recorderCalls;
        m_rec.start(desiredSession, writerSetup ? writerSetup() : WriterSetup{}, again);
        issued();
        return;
    }
    if (wantListen) {
        if (m_rec.running() && !m_rec.session()) {
            finish();
            return;
        }
        ++m_recorderCalls;
        m_rec.start(std::nullopt, WriterSetup{}, again);
        issued();
        return;
    }
    if (m_rec.running()) {
        ++m_recorderCalls;
        m_rec.stop(again);
        issued();
        return;
    }
    finish();
}

void Reconciler::issued()
{
    if (onRecorderCall)
        onRecorderCall();
}

void Reconciler::finish()
{
    m_applying = false;
    if (onFinished)
        onFinished();
}
