#pragma once

#include "StatusMenu.h"

#include <QObject>
#include <QString>

#include <functional>

class AgentState;
class TrayView;

// The agent's state as the tray shows it: reads the controller's read-only AgentState, draws the
// tray only when the state's fingerprint changed (at once when the state announces a change),
// and flashes short confirmations. Main thread only.
class StatusView : public QObject
{
    Q_OBJECT
public:
    /// The tray of this state.
    explicit StatusView(const AgentState &state, QObject *parent = nullptr);
    ~StatusView() override;

    /// Creates the tray view; `isAvailable` and `onAction` are handed to it.
    void show(std::function<bool(StatusMenu::Action)> isAvailable, std::function<void(StatusMenu::Action)> onAction);
    /// The tray view (null before show()).
    TrayView *tray() const { return m_tray; }

    /// The state the tray shows.
    StatusMenu::State menuState() const;
    /// Redraws the tray when the state fingerprint changed.
    void refresh();
    /// Redraws the tray whatever the fingerprint says.
    void redraw();
    /// Shows a short confirmation as the status title for kFlashMs, then the state again.
    void flashStatus(const QString &text);
    /// Shows the running call timer on the on-call item when there is one.
    void showCallTime(qint64 seconds);

    /// How long a confirmation stays in milliseconds.
    static constexpr int kFlashMs = 1600;

private:
    const AgentState &m_state;
    TrayView *m_tray = nullptr;
    QString m_menuKey;
};
