#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>
#include <optional>

class BuildInfo;
class QNetworkAccessManager;
class Settings;
class QTimer;

// Tells the event web service which agents are set up and which capture permissions their
// computer grants. It only reports: answers are not read and nothing is retried except by the
// next poke. Main thread only. Does nothing when this build has no event web service.
class CheckIn : public QObject
{
    Q_OBJECT
public:
    /// The three capture permissions as reported.
    struct Flags
    {
        bool mic = false;
        bool cam = false;
        bool screen = false;
    };
    /// Milliseconds on a monotonic clock.
    using ClockMs = std::function<qint64()>;

    /// The shared check-in token.
    static constexpr char token[] = "qz-k7-tallyin-3Rd8Wm";
    /// A check-in is sent only when strictly more than this has passed since the last one.
    static constexpr qint64 kMinSpacingMs = 3000;

    /// Posts over `net` for the settings' agent on this build, reporting what `permissions` says,
    /// timed by `clock` (a monotonic one when empty).
    CheckIn(QNetworkAccessManager &net, const Settings &settings, const BuildInfo &build,
            std::function<Flags()> permissions, ClockMs clock = {}, QObject *parent = nullptr);
    ~CheckIn() override;

    /// The check-in endpoint; empty without an event web service.
    QUrl url() const;
    /// The agent verification endpoint; empty without an event web service.
    static QUrl verifyURL(const BuildInfo &build);

    /// Starts the repeating forced check-in (every intervalMs, default 60 s).
    void start(int intervalMs = 60000);
    /// Stops the repeating check-in.
    void stop();
    /// Sends a check-in when one is due: forced, or when the permissions changed.
    void poke(bool force);

    /// The permission fingerprint: "true"/"false" for mic, cam and screen, joined with nothing.
    static QString fingerprint(const Flags &flags);
    /// The JSON body of a check-in for these permissions and the current settings.
    QByteArray body(const Flags &flags) const;

private:
    qint64 now() const;

    QNetworkAccessManager &m_net;
    const Settings &m_settings;
    const BuildInfo &m_build;
    std::function<Flags()> m_permissions;
    ClockMs m_clock;
    QElapsedTimer m_monotonic;
    QTimer *m_timer = nullptr;
    std::optional<qint64> m_lastSent; // none: the distant past
    QString m_lastFlags;
};
