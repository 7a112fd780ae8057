#pragma once

#include <QJsonObject>
#include <QObject>

#include <atomic>
#include <functional>
#include <optional>

class Connection;
class MentorRoster;
class Reconciler;
class Recorder;
class Settings;
class SetupRoute;

// The control room's command table: each command either changes what the control room wants of
// the recorder (a session, live audio), after which the reconciler brings the recorder into line,
// or acts at once (preview, cameras, microphone, camera, quality, whisper, release, replaced).
// Arguments of the wrong JSON type count as absent; unknown commands are ignored. Main thread only.
class Commands : public QObject
{
    Q_OBJECT
public:
    /// Commands for this recorder and link that store choices in `settings` and send the agent
    /// to setup through `setup`; nothing is applied while `wizardOpen` or before setup.
    Commands(Recorder &rec, Connection &conn, MentorRoster &roster, Settings &settings, SetupRoute &setup,
             const std::atomic<bool> &wizardOpen, QObject *parent = nullptr);
    ~Commands() override;

    /// Longest session name taken from "start", in characters.
    static constexpr qsizetype kMaxSession = 100;
    /// Longest whisper text, in characters (10 kB).
    static constexpr qsizetype kMaxWhisper = 10 * 1024;
    /// Longest device uid of "setMic" and "setCam", in characters.
    static constexpr qsizetype kMaxUid = 255;
    /// Longest upload quality word, in characters.
    static constexpr qsizetype kMaxQuality = 16;

    /// Handles one command from the control room; a text argument over its limit is logged and
    /// the command ignored.
    void handle(const QJsonObject &command);
    /// Reacts to the link going up or down: a lost link ends live listening.
    void linkChanged();
    /// Starts a pass of the reconciler (wishes wait while it may not run).
    void apply();

    /// Why the last command was refused, until a command is accepted (the heartbeat's "error").
    std::optional<QString> refusal() const { return m_refusal; }
    /// Live audio is wanted and capture runs.
    bool live() const;
    /// A pass runs or a session is wanted.
    bool busy() const;
    /// The recorder wishes and the reconciler.
    Reconciler &reconciler() const { return *m_reconciler; }

    /// Called when something the tray shows may have changed.
    std::function<void()> onChanged;
    /// Called when the control room said another computer took this agent number.
    std::function<void()> onReplaced;

Q_SIGNALS:
    /// A whisper for the agent: its text, the coach's seat and name ("" while the roster does not
    /// know the seat; it is fetched again then).
    void whisper(const QString &text, int seat, const QString &from);

private:
    /// Carries out a command; false when it was refused or is unknown.
    bool dispatch(const QString &type, const QJsonObject &command);
    /// Refuses (logs and keeps as refusal()) a text argument longer than its limit.
    bool tooLong(const QString &type, const char *key, const QString &value, qsizetype limit);
    void applyFinished();
    void release();
    void changed();

    Recorder &m_rec;
    Connection &m_conn;
    MentorRoster &m_roster;
    Settings &m_settings;
    SetupRoute &m_setup;
    const std::atomic<bool> &m_wizardOpen;
    Reconciler *m_reconciler;
    std::optional<QString> m_refusal;
};
