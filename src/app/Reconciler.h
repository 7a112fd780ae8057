#pragma once

#include "WriterSetup.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class Recorder;

// Brings the recorder into line with what the control room wants (a session, live listening),
// one pass at a time. Each step re-reads the wishes, so wishes that change while a pass waits for
// the recorder are honoured by the same pass. Main thread only.
class Reconciler : public QObject
{
    Q_OBJECT
public:
    /// Reconciles the given recorder.
    explicit Reconciler(Recorder &rec, QObject *parent = nullptr);

    /// The session the control room wants recorded; none means not recording.
    std::optional<QString> desiredSession;
    /// The control room wants live audio.
    bool wantListen = false;
    /// A pass is running.
    bool applying() const { return m_applying; }

    /// Starts a pass when allowed (canApply) and none is running; otherwise the wishes wait.
    void kick();

    /// Whether a pass may start now (setup done and no wizard open).
    std::function<bool()> canApply;
    /// What the writers of a take that starts now are given (folder, bit rate); read at each start.
    std::function<WriterSetup()> writerSetup;
    /// Called when a pass finishes.
    std::function<void()> onFinished;
    /// Called right after a recorder start or stop was issued, while the pass waits for it.
    std::function<void()> onRecorderCall;
    /// Number of recorder starts and stops issued, for tests and diagnostics.
    int recorderCalls() const { return m_recorderCalls; }

private:
    void step();
    void issued();
    void finish();

    Recorder &m_rec;
    bool m_applying = false;
    int m_recorderCalls = 0;
};
