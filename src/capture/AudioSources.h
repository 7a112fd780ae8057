#pragma once

#include "AudioBackend.h"
#include "AudioFault.h"
#include "AudioPath.h"
#include "Device.h"

#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

// The recorder's sound sources on the main thread: the microphone (the saved or best choice), the
// computer audio (the default output's monitor, followed when the default output changes, tried
// again 2 s after its stream stops) and the room microphone (a built-in microphone other than the
// one in use). Opens and closes them for each take, keeps the device list the menu shows, and
// holds the audio problem the status reports, with its permission kind. Blocks go to AudioPath.
class AudioSources : public QObject
{
    Q_OBJECT
public:
    /// A permission the last open found refused.
    enum class Blocked { None, Microphone, ComputerAudio };

    /// Sources of `backend` feeding `path`.
    AudioSources(AudioBackend &backend, AudioPath &path, QObject *parent = nullptr);
    ~AudioSources() override;

    /// Opens computer audio, microphone and room microphone; problems become lastError.
    void open();
    /// Closes every source; a pending retry is void. No block is posted after it returns.
    void close();
    /// Re-opens the microphone and room microphone after the chosen device changed (while open).
    void restartMic();
    /// The sources are open (a capture runs).
    bool isOpen() const { return m_open; }

    /// Last audio problem, None when fine (any thread).
    AudioFault fault() const;
    /// Which permission the fault is about (None when it is of another kind).
    Blocked blocked() const;
    /// Clears the problem (a new capture starts).
    void clearError() { setError(AudioFault::None); }
    /// Microphones as last listed (real devices only); never asks the sound server.
    QList<Device> mics() const;
    /// Name and unique ID of the microphone in use, name of the room microphone ("" when none).
    QString micName() const;
    QString micUID() const;
    /// The microphone the user chose ("" = the system default); read when the microphone opens.
    QString chosenUID() const;
    /// Sets the microphone the user chose.
    void setChosenUID(const QString &uid);
    QString roomName() const;

    /// Replaces how a delayed action is scheduled (the 2 s retry); tests run it at once or never.
    std::function<void(int ms, std::function<void()> action)> schedule;

private:
    using Source = AudioPath::Source;

    void startMic();
    void startRoomMic();
    void startSystemAudio();
    void systemAudioStopped(const QString &reason);
    void serverChanged();
    void refreshDevices();
    std::unique_ptr<AudioCapture> openSource(Source source, const QString &name, int channels, QString *error);
    void setError(AudioFault fault);

    AudioBackend &m_backend;
    AudioPath &m_path;
    bool m_open = false;
    bool m_answering = true;
    QString m_sysMonitor; // the source computer audio is taken from
    int m_retryToken = 0;
    std::unique_ptr<AudioCapture> m_caps[AudioPath::kSources];
    int m_stream[AudioPath::kSources] = {0, 0, 0}; // the stream each capture was opened as

    mutable QMutex m_mutex; // guards the fields below (read from any thread)
    AudioFault m_fault = AudioFault::None;
    QString m_micName, m_micUID, m_roomName, m_chosenUID;
    QList<Device> m_inputs;
};
