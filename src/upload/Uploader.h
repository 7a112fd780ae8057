#pragma once

#include "SegmentPost.h"

#include <QList>
#include <QObject>
#include <QString>

#include <functional>

class QTimer;
class Settings;

// Sends every finished segment file to the control room, one at a time, oldest name first. The
// disk is the queue: a file waits in pending/<session>/ until the control room has answered 200,
// and is then deleted, so the queue survives crashes and restarts. A file that is refused blocks
// the ones behind it and is tried again at every tick, for as long as the program runs.
// Queue state lives on the main thread; enqueue() may be called from any thread.
class Uploader : public QObject
{
    Q_OBJECT
public:
    /// One waiting file and the session folder it sits in.
    struct PendingFile
    {
        QString path;
        QString session;
    };

    /// Why the last upload attempt did not go through.
    enum class Fault {
        None,       ///< the last upload went through
        NoAddress,  ///< no usable control-room address
        Unreadable, ///< the waiting file cannot be read
        Transport,  ///< no HTTP answer (refused, reset, timed out)
        Refused,    ///< the control room answered other than 200
        SetAside,   ///< a file with an unknown name could not be moved to unrecognized/
    };

    /// A queue that posts each file on a connection of its own (SegmentPost) to the control room
    /// and as the agent the settings name.
    explicit Uploader(const Settings &settings, QObject *parent = nullptr);
    ~Uploader() override;

    /// Recovers orphans from writing/, then ticks every tickIntervalMs and once at once; later calls do nothing.
    void start();
    /// Moves a finished file into pending/<session>/ and schedules a tick; callable from any thread.
    void enqueue(const QString &file, const QString &session);
    /// Files waiting at the last tick, the one in flight included.
    int pendingCount() const { return m_pendingCount; }
    /// Whether an upload request is in flight.
    bool busy() const { return m_busy; }
    /// Why the last upload did not go through; "" after a success.
    QString lastError() const { return m_lastError; }
    /// The kind of the last fault; None after a success.
    Fault fault() const { return m_fault; }

    /// The waiting files of a pending folder in upload order (stable, by file name alone).
    static QList<PendingFile> pendingFiles(const QString &pendingDir);

    /// Period of the retry tick in milliseconds; set before start().
    int tickIntervalMs = 3000;
    /// Inactivity limit of one upload in milliseconds.
    int requestTimeoutMs = 60000;
    /// Called on the main thread after a file was accepted and deleted.
    std::function<void(const QString &path)> onUploaded;

private:
    void tick();
    void recoverOrphans();
    void setAside(const PendingFile &file);
    void upload(const PendingFile &file);
    void finished(const SegmentPost::Outcome &outcome, const QString &path);
    void fail(Fault fault, const QString &text);

    const Settings &m_settings;
    Fault m_fault = Fault::None;
    QTimer *m_timer = nullptr;
    bool m_busy = false;
    int m_pendingCount = 0;
    QString m_lastError;
};
