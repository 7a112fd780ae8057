#pragma once

#include "LogOnce.h"

#include <QFileSystemWatcher>
#include <QObject>
#include <QString>
#include <QTimer>

class BuildInfo;
class QSettings;

// The agent's user settings: the values of the per-user settings.ini held in memory. Built once in
// main() (tests build their own on a file of theirs) and handed to the parts that read or change
// them. Each key is a property with its own change signal; a setter writes through to the file at
// once and announces the change. Edits made to the file from outside (by hand, by another tool,
// an editor that replaces the file) are picked up by a file watcher within a second and announced
// the same way; nothing reads the file on a timer. Values from the file are checked as they are
// read: refused ones count as unset and are logged once until they change. Main thread only.
class Settings : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int agentID READ agentID WRITE setAgentID NOTIFY agentIDChanged)
    Q_PROPERTY(QString agentName READ agentName NOTIFY agentNameChanged)
    Q_PROPERTY(QString server READ server NOTIFY serverChanged)
    Q_PROPERTY(bool setupDone READ setupDone WRITE setSetupDone NOTIFY setupDoneChanged)
    Q_PROPERTY(int wizardStep READ wizardStep WRITE setWizardStep NOTIFY wizardStepChanged)
    Q_PROPERTY(int wizardFurthest READ wizardFurthest WRITE setWizardFurthest NOTIFY wizardFurthestChanged)
    Q_PROPERTY(QString micUID READ micUID WRITE setMicUID NOTIFY micUIDChanged)
    Q_PROPERTY(QString camUID READ camUID WRITE setCamUID NOTIFY camUIDChanged)
    Q_PROPERTY(QString uploadQuality READ uploadQuality WRITE setUploadQuality NOTIFY uploadQualityChanged)
    Q_PROPERTY(QString saleWidgetFrame READ saleWidgetFrame WRITE setSaleWidgetFrame NOTIFY saleWidgetFrameChanged)

public:
    /// The settings of the INI file at `path` (read now; the folder is created); the address is
    /// the build's fixed one when none is stored. `build` outlives the settings.
    Settings(const QString &path, const BuildInfo &build, QObject *parent = nullptr);
    ~Settings() override;

    /// Largest agent number; a stored number outside 1…kMaxAgentID counts as none.
    static constexpr int kMaxAgentID = 2147483647;
    /// Longest agent name, in characters.
    static constexpr int kMaxNameLength = 100;
    /// Longest control-room address, in characters.
    static constexpr int kMaxServerLength = 255;
    /// Longest saved widget frame text, in characters.
    static constexpr int kMaxFrameLength = 64;
    /// Time after a change of the file before it is read, so that a burst of writes is read once.
    static constexpr int kSettleMs = 100;

    /// Path of the settings file.
    QString path() const { return m_path; }

    /// The agent number; 0 when none is stored or the stored one is not a number in 1…kMaxAgentID.
    int agentID() const { return m_v.agentID; }
    /// Stores the agent number as given.
    void setAgentID(int id);
    /// The agent's name; "" when the stored one is longer than kMaxNameLength.
    QString agentName() const { return m_v.agentName; }
    /// Stores the name without leading or trailing spaces and tabs; refuses (false, logged) one
    /// longer than kMaxNameLength.
    bool setAgentName(const QString &name);
    /// The control-room address host:port; the default server when nothing is stored, "" when the
    /// stored one is longer than kMaxServerLength.
    QString server() const { return m_v.server; }
    /// Stores the address without leading or trailing spaces and tabs; refuses (false, logged) one
    /// longer than kMaxServerLength.
    bool setServer(const QString &server);
    /// Whether the setup wizard has been completed.
    bool setupDone() const { return m_v.setupDone; }
    /// Stores the setup-done flag.
    void setSetupDone(bool done);
    /// The wizard step to reopen at (a SetupStep::Step number).
    int wizardStep() const { return m_v.wizardStep; }
    /// Stores the wizard step.
    void setWizardStep(int step);
    /// The furthest wizard step reached (the limit for jumping forward).
    int wizardFurthest() const { return m_v.wizardFurthest; }
    /// Stores the furthest wizard step reached.
    void setWizardFurthest(int step);
    /// Unique ID of the chosen microphone; empty means the system default.
    QString micUID() const { return m_v.micUID; }
    /// Stores the microphone choice.
    void setMicUID(const QString &uid);
    /// Unique ID of the chosen camera; empty means the default camera.
    QString camUID() const { return m_v.camUID; }
    /// Stores the camera choice.
    void setCamUID(const QString &uid);
    /// Upload quality word ("low", "med", "full"); "full" when absent.
    QString uploadQuality() const { return m_v.uploadQuality; }
    /// Stores the upload quality word as given.
    void setUploadQuality(const QString &quality);
    /// Where the sale widget was last left ("{{x, y}, {w, h}}"); "" when none or longer than
    /// kMaxFrameLength.
    QString saleWidgetFrame() const { return m_v.saleWidgetFrame; }
    /// Stores the sale widget's frame text.
    void setSaleWidgetFrame(const QString &frame);

    /// Video bit rate in bits per second for an upload quality word (exact, case-sensitive words;
    /// anything else is full quality).
    static int videoBitrate(const QString &quality);
    /// Video bit rate of the stored upload quality.
    int videoBitrate() const { return videoBitrate(uploadQuality()); }

    /// Removes every stored setting (used by uninstall); every changed value is announced.
    void removeAll();
    /// Reads the file now and announces what changed (the watcher calls it after an outside edit).
    void reload();
    /// How many times the file has been read (for checks that nothing reads it on a timer).
    int reads() const { return m_reads; }

Q_SIGNALS:
    void agentIDChanged(int id);
    void agentNameChanged(const QString &name);
    void serverChanged(const QString &server);
    void setupDoneChanged(bool done);
    void wizardStepChanged(int step);
    void wizardFurthestChanged(int step);
    void micUIDChanged(const QString &uid);
    void camUIDChanged(const QString &uid);
    void uploadQualityChanged(const QString &quality);
    void saleWidgetFrameChanged(const QString &frame);

private:
    struct Values
    {
        int agentID = 0;
        QString agentName;
        QString server;
        bool setupDone = false;
        int wizardStep = 0;
        int wizardFurthest = 0;
        QString micUID;
        QString camUID;
        QString uploadQuality;
        QString saleWidgetFrame;
    };
    Values read(QSettings &file);
    void take(const Values &v);
    void write(const char *key, const QVariant &value);
    bool writeBounded(const char *key, const QString &text, qsizetype limit);
    QString bounded(QSettings &file, const char *key, const QString &fallback, qsizetype limit);
    void refused(const char *key, const QString &value, const QString &why);
    void watch();

    const QString m_path;
    const BuildInfo &m_build;
    Values m_v;
    int m_reads = 0;
    LogOnce m_refusals;
    QFileSystemWatcher m_watcher;
    QTimer m_settle;
};
