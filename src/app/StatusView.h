#pragma once

#include "StatusMenu.h"
#include "TrayTip.h"

#include <QObject>
#include <QString>

#include <functional>

class Connection;
class Recorder;
class TrayView;
class Uploader;

// The agent's state as the tray shows it: gathers it from the recorder, the link and the upload
// queue, draws the tray only when the state's fingerprint changed, and flashes short
// confirmations. Reads cached values only. Main thread only.
class StatusView : public QObject
{
    Q_OBJECT
public:
    /// The state of these parts; `live` and `onCall` answer what the parts cannot.
    StatusView(Recorder &rec, Connection &conn, Uploader &uploader, std::function<bool()> live,
               std::function<bool()> onCall, QObject *parent = nullptr);
    ~StatusView() override;

    /// Creates the tray view; `isAvailable` and `onAction` are handed to it.
    void show(std::function<bool(StatusMenu::Action)> isAvailable, std::function<void(StatusMenu::Action)> onAction);
    /// The tray view (null before show()).
    TrayView *tray() const { return m_tray; }

    /// The state the tray shows.
    StatusMenu::State menuState() const;
    /// What the tooltip says beyond the menu's state.
    TrayTip::Facts tipFacts() const;
    /// Updates the tooltip, and redraws the tray when the state fingerprint changed.
    void refresh();
    /// Redraws the tray whatever the fingerprint says.
    void redraw();
    /// Shows a short confirmation as the status title for kFlashMs, then the state again.
    void flashStatus(const QString &text);
    /// Shows the running call timer on the on-call item when there is one, and in the tooltip.
    void showCallTime(qint64 seconds);

    /// How long a confirmation stays in milliseconds.
    static constexpr int kFlashMs = 1600;

private:
    Recorder &m_rec;
    Connection &m_conn;
    Uploader &m_uploader;
    std::function<bool()> m_live;
    std::function<bool()> m_onCall;
    TrayView *m_tray = nullptr;
    QString m_menuKey;
    qint64 m_callSeconds = 0;
};
