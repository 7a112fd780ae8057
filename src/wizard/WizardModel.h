#pragma once

#include "SetupStep.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QVariantList>

#include <functional>
#include <optional>

class BuildInfo;
class Connection;
class Permissions;
class QNetworkAccessManager;
class QNetworkReply;
class Recorder;
class RoomDiscovery;
class Settings;

// The state behind the setup wizard: seven steps (consent, identity, microphone, computer audio,
// webcam, sound check, done), the capture permissions as this computer grants them, the agent's
// name and number checked against the event web service, and the sound check's levels. The
// screens only read its properties and call its operations; the controller hands in its parts,
// feeds tick() on every heartbeat and is told through onFinish. Main thread only.
class WizardModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int step READ step WRITE setStep NOTIFY stepChanged)
    Q_PROPERTY(int furthest READ furthest NOTIFY furthestChanged)
    Q_PROPERTY(bool agree READ agree WRITE setAgree NOTIFY agreeChanged)
    Q_PROPERTY(QString agentText READ agentText WRITE setAgentText NOTIFY agentTextChanged)
    Q_PROPERTY(QString server READ server WRITE setServer NOTIFY serverChanged)
    Q_PROPERTY(QString serverProblem READ serverProblem NOTIFY serverChanged)
    Q_PROPERTY(QString nameText READ nameText WRITE setNameText NOTIFY nameTextChanged)
    Q_PROPERTY(bool micOK READ micOK NOTIFY permissionsChanged)
    Q_PROPERTY(bool micDenied READ micDenied NOTIFY permissionsChanged)
    Q_PROPERTY(bool micNoServer READ micNoServer NOTIFY permissionsChanged)
    Q_PROPERTY(bool camOK READ camOK NOTIFY permissionsChanged)
    Q_PROPERTY(bool camDenied READ camDenied NOTIFY permissionsChanged)
    Q_PROPERTY(bool screenOK READ screenOK NOTIFY permissionsChanged)
    Q_PROPERTY(bool screenDenied READ screenDenied NOTIFY permissionsChanged)
    Q_PROPERTY(bool screenAsked READ screenAsked NOTIFY permissionsChanged)
    Q_PROPERTY(QString micUID READ micUID NOTIFY devicesChanged)
    Q_PROPERTY(QString camUID READ camUID NOTIFY devicesChanged)
    Q_PROPERTY(QVariantList mics READ mics NOTIFY devicesChanged)
    Q_PROPERTY(QVariantList cams READ cams NOTIFY devicesChanged)
    Q_PROPERTY(bool connected READ connected NOTIFY tickChanged)
    Q_PROPERTY(float mic READ mic NOTIFY tickChanged)
    Q_PROPERTY(float sys READ sys NOTIFY tickChanged)
    Q_PROPERTY(bool micHeard READ micHeard NOTIFY tickChanged)
    Q_PROPERTY(bool sysHeard READ sysHeard NOTIFY tickChanged)
    Q_PROPERTY(bool testing READ testing NOTIFY testingChanged)
    Q_PROPERTY(bool verifying READ verifying NOTIFY verifyChanged)
    Q_PROPERTY(QString verifyError READ verifyErrorText NOTIFY verifyChanged)
    Q_PROPERTY(bool hasVerifyError READ hasVerifyError NOTIFY verifyChanged)
    Q_PROPERTY(bool hasCamera READ hasCamera NOTIFY devicesChanged)
    Q_PROPERTY(bool serverLocked READ serverLocked CONSTANT)
    Q_PROPERTY(bool sandboxed READ sandboxed CONSTANT)
    Q_PROPERTY(QStringList stepNames READ stepNames CONSTANT)
    Q_PROPERTY(bool hasAgentID READ hasAgentID NOTIFY agentTextChanged)
    Q_PROPERTY(int agentNumber READ agentNumber NOTIFY agentTextChanged)
    Q_PROPERTY(QStringList rooms READ rooms NOTIFY roomsChanged)
    Q_PROPERTY(bool trayAvailable READ trayAvailable WRITE setTrayAvailable NOTIFY trayAvailableChanged)

public:
    /// The parts the model works with; all outlive it.
    struct Parts
    {
        Recorder &recorder;
        Permissions &permissions;
        Connection &connection;
        RoomDiscovery &discovery;
        QNetworkAccessManager &net;
        Settings &settings;
        const BuildInfo &build;
        /// The desktop shows a system tray (without one the agent is reached through its panel).
        bool trayAvailable = true;
    };

    /// A model that starts where the agent left setup (settings wizardStep, wizardFurthest,
    /// agentID, agentName, server, micUID, camUID) and starts looking for control rooms.
    explicit WizardModel(Parts parts, QObject *parent = nullptr);
    /// Stops looking for control rooms.
    ~WizardModel() override;

    /// The step names, in step order.
    static QStringList stepNames();
    /// The steps (SetupStep::Welcome … SetupStep::Done).
    using Step = SetupStep::Step;
    /// A microphone level above this counts as heard during the sound check.
    static constexpr float kMicHeard = 0.01f;
    /// A computer-audio level above this counts as heard during the sound check.
    static constexpr float kSysHeard = 0.003f;
    /// Path of the agent verification on the event web service.
    static constexpr const char *kVerifyPath = "/wp-json/brava/v1/verify";
    /// The texts the identity check shows.
    static QString unreachableText();
    static QString mismatchText();

    /// The agent number the typed text stands for (1–110), none otherwise.
    static std::optional<int> parseAgentID(const QString &text);
    /// The typed agent number when valid.
    std::optional<int> agentID() const { return parseAgentID(m_agentText); }

    // Readers of the published fields (see the property list above).
    int step() const { return m_step; }
    /// Moves to a step (runs the step-change rules).
    void setStep(int step);
    int furthest() const { return m_furthest; }
    bool agree() const { return m_agree; }
    QString agentText() const { return m_agentText; }
    QString server() const { return m_server; }
    /// Why the typed control-room address cannot be used ("" when it can, or when none is typed).
    QString serverProblem() const;
    QString nameText() const { return m_nameText; }
    bool micOK() const { return m_micOK; }
    bool micDenied() const { return m_micDenied; }
    /// Access was asked for and no sound server (PulseAudio or PipeWire) answered.
    bool micNoServer() const { return m_micAsked && !m_micOK && !m_micDenied; }
    bool camOK() const { return m_camOK; }
    bool camDenied() const { return m_camDenied; }
    bool screenOK() const { return m_screenOK; }
    bool screenAsked() const { return m_screenAsked; }
    /// The sound server turns this program away, so computer audio cannot be had either.
    bool screenDenied() const { return m_screenDenied; }
    QString micUID() const { return m_micUID; }
    QString camUID() const { return m_camUID; }
    QVariantList mics() const { return m_mics; }
    QVariantList cams() const { return m_cams; }
    bool connected() const { return m_connected; }
    float mic() const { return m_mic; }
    float sys() const { return m_sys; }
    bool micHeard() const { return m_micHeard; }
    bool sysHeard() const { return m_sysHeard; }
    bool testing() const { return m_testing; }
    bool verifying() const { return m_verifying; }
    std::optional<QString> verifyError() const { return m_verifyError; }
    QString verifyErrorText() const { return m_verifyError.value_or(QString()); }
    bool hasVerifyError() const { return m_verifyError.has_value(); }
    bool hasCamera() const { return m_hasCamera; }
    bool serverLocked() const;
    bool sandboxed() const { return m_sandboxed; }
    bool hasAgentID() const { return agentID().has_value(); }
    int agentNumber() const { return agentID().value_or(0); }
    /// Discovered control rooms as "name (host:port)", in order of arrival.
    QStringList rooms() const { return m_rooms; }
    /// The desktop shows a system tray, so the agent's icon and menu are there.
    bool trayAvailable() const { return m_trayAvailable; }
    /// Tells the model whether a tray is there now (a tray host may start during setup).
    void setTrayAvailable(bool available);

    /// Sets typed or ticked fields (the screens write them through the properties).
    void setAgree(bool on);
    void setAgentText(const QString &text);
    void setNameText(const QString &text);
    void setServer(const QString &text);

    /// Jumps to a step the agent has reached; a step beyond furthest is ignored.
    Q_INVOKABLE void go(int target);
    /// One step back; nothing at the first step.
    Q_INVOKABLE void back();
    /// One heartbeat: link state, permissions, levels; while testing, latches the heard flags.
    void tick(float mic, float sys, bool connected);
    /// Re-reads the three permissions (each property changes only when its value does).
    Q_INVOKABLE void refreshPermissions();
    /// Linux has no consent prompt: checks microphone access now.
    Q_INVOKABLE void askMic();
    /// Checks camera access now; when allowed, the setup camera opens for the preview.
    Q_INVOKABLE void askCamera();
    /// Checks computer-audio access now and remembers that it was asked for.
    Q_INVOKABLE void askScreen();
    /// Restarts the agent into the given step (the setting wizardStep is stored first).
    Q_INVOKABLE void relaunch(int step);
    /// Chooses the microphone ("" = automatic) and restarts it so the meter follows.
    Q_INVOKABLE void selectMic(const QString &uid);
    /// Chooses the webcam ("" = automatic) and restarts it.
    Q_INVOKABLE void selectCamera(const QString &uid);
    /// Fills an empty control-room address from the first discovered room.
    Q_INVOKABLE void autoFillRoom();
    /// Uses the discovered room at this index of rooms().
    Q_INVOKABLE void chooseRoom(int index);
    /// The identity step's Next: checks name and number against the event web service's list (a
    /// build with a preset control room and an event web service only), then saves.
    Q_INVOKABLE void verifyAndSave();
    /// Stores identity and address, connects with them and moves to the microphone step.
    Q_INVOKABLE void saveAgent();
    /// Starts the sound check (a levels-only run of the recorder); nothing while one runs.
    Q_INVOKABLE void startTest();
    /// The final button.
    Q_INVOKABLE void finish();

    /// Called by the final screen's Done.
    std::function<void()> onFinish;
    /// Restarts the agent (after wizardStep was stored); quits this process.
    std::function<void()> onRelaunch;
    /// Time limit of the identity check in milliseconds.
    int verifyTimeoutMs = 15000;
    /// At most this many bytes of a verify answer are read.
    static constexpr qint64 kMaxAnswerBytes = 64 * 1024;
    /// Longest name or message taken from a verify answer.
    static constexpr int kMaxAnswerText = 200;

Q_SIGNALS:
    void stepChanged();
    void furthestChanged();
    void agreeChanged();
    void agentTextChanged();
    void serverChanged();
    void nameTextChanged();
    void permissionsChanged();
    void devicesChanged();
    void tickChanged();
    void testingChanged();
    void verifyChanged();
    void roomsChanged();
    void trayAvailableChanged();

private:
    void setFurthest(int furthest);
    void setTesting(bool on);
    void setVerify(bool verifying, std::optional<QString> error);
    void verified(QNetworkReply *reply);
    void readDevices();
    void roomsUpdated();

    Recorder &m_rec;
    Permissions &m_permissions;
    Connection &m_conn;
    RoomDiscovery &m_discovery;
    QNetworkAccessManager &m_net;
    Settings &m_settings;
    const BuildInfo &m_build;

    int m_step = 0;
    int m_furthest = 0;
    bool m_agree = false;
    QString m_agentText;
    QString m_server;
    QString m_nameText;
    bool m_micOK = false;
    bool m_micDenied = false;
    bool m_micAsked = false;
    bool m_camOK = false;
    bool m_camDenied = false;
    bool m_screenOK = false;
    bool m_screenAsked = false;
    bool m_screenDenied = false;
    QString m_micUID;
    QString m_camUID;
    QVariantList m_mics;
    QVariantList m_cams;
    bool m_connected = false;
    float m_mic = 0;
    float m_sys = 0;
    bool m_micHeard = false;
    bool m_sysHeard = false;
    bool m_testing = false;
    bool m_verifying = false;
    std::optional<QString> m_verifyError;
    bool m_hasCamera = false;
    bool m_sandboxed = false;
    QStringList m_rooms;
    bool m_trayAvailable = true;
    QPointer<QNetworkReply> m_reply;
};
