#pragma once

#include <QByteArray>
#include <QObject>
#include <QTimer>
#include <QVariantMap>

#include <functional>

class QImage;

// Takes a picture of the whole desktop as one PNG for a sale's confirmation. On an X11 session it
// grabs every screen and puts them together as they are arranged; on a Wayland session it asks the
// desktop portal (org.freedesktop.portal.Screenshot over D-Bus), which may ask the person first.
// The answer comes later, through done(). The screens are grabbed on the main thread (only there
// can they be); reading the portal's file and making the PNG run on a pool thread. Main thread only.
class ScreenSnapper : public QObject
{
    Q_OBJECT
public:
    /// How a snapshot ended.
    enum class Outcome { Snapped, Failed, NotAllowed };

    /// Snapshots through the portal when `portal` is true, else by grabbing the screens.
    explicit ScreenSnapper(bool portal, QObject *parent = nullptr);
    /// Whether this session needs the portal (a Wayland session).
    static bool sessionNeedsPortal();

    /// Starts one snapshot (one at a time: a request while one runs is ignored).
    void snap();
    /// The screens grabbed and composed into one picture; null when there is no screen.
    static QImage grabScreens();

    /// How long the portal may take, person included, in milliseconds.
    static constexpr int kPortalTimeoutMs = 60000;
    /// Largest picture taken from the portal, in bytes.
    static constexpr qint64 kMaxPictureBytes = 256 * 1024 * 1024;

Q_SIGNALS:
    /// The snapshot ended; `png` holds the picture when it was taken.
    void done(ScreenSnapper::Outcome outcome, const QByteArray &png);

private Q_SLOTS:
    void portalResponse(uint response, const QVariantMap &results);

private:
    void askPortal();
    void finishOffThread(std::function<QByteArray()> work);
    void end(Outcome outcome, const QByteArray &png = QByteArray());

    bool m_portal;
    bool m_running = false;
    QString m_requestPath;
    QTimer m_timeout;
};
