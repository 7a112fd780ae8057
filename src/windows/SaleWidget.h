#pragma once

#include "SaleWidgetModel.h"

#include <QObject>
#include <QPoint>
#include <QPointer>
#include <QPushButton>
#include <QTimer>

#include <functional>

class QWidget;

// The floating call/help widget: a small frameless panel that stays above other windows on every
// workspace, never takes the focus from the dialer, and offers three large buttons (call, sale,
// help). It snaps to the nearest screen edge after every move and then saves where it ended (once
// per move, not while dragging); a saved place off every screen is brought back onto one. Its
// owner decides the call state (setCall) and what the buttons do (the signals). Main thread only.
class SaleWidget : public QObject
{
    Q_OBJECT
public:
    /// Where the saved frame is read from and written to ("{{x, y}, {w, h}}" text).
    struct FrameStore {
        std::function<QString()> load;
        std::function<void(const QString &)> save;
    };

    /// A hidden widget that keeps its frame in `store`.
    explicit SaleWidget(FrameStore store, QObject *parent = nullptr);
    ~SaleWidget() override;

    /// Builds and shows the panel (with or without the sale button), or raises the one shown.
    void show(bool withSale);
    /// Takes the panel away; the next show builds a new one at the saved frame.
    void hide();
    /// Switches the call button between idle and a running call.
    void setCall(bool active);
    /// Confirms a help request on the call button for a moment.
    void flashHelp();
    /// Says on the call button, for a while, that the last help request did not reach the control room.
    void flashHelpNotSent();
    /// Sets the panel's tooltip (what the agent is doing, on a desktop without a tray).
    void setTip(const QString &tip);
    /// The panel's tooltip as last set.
    QString tip() const { return m_tip; }
    /// Shows the panel with its last choice of buttons and asks for the sale form.
    void snap();

    /// Whether the panel is shown.
    bool isShown() const { return m_window != nullptr; }
    /// Whether a call is marked as running.
    bool callActive() const { return m_callActive; }
    /// The panel's window, its call and sale buttons; null while hidden (sale: or without it).
    QWidget *window() const { return m_window; }
    QPushButton *callButton() const { return m_callBtn; }
    QPushButton *saleButton() const { return m_saleBtn; }

Q_SIGNALS:
    /// The call button was pressed.
    void callPressed();
    /// The sale button was pressed.
    void salePressed();
    /// The help button was pressed (the widget confirms it itself).
    void helpPressed();
    /// The panel was right-clicked at `globalPos`: the agent's menu is asked for there.
    void menuAsked(const QPoint &globalPos);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void build(bool withSale);
    void drawCall(bool helpFlash);
    void drawLook(const SaleWidgetModel::CallLook &look);
    void moved();
    void snapToEdge();

    FrameStore m_store;
    QPointer<QWidget> m_window;
    QPointer<QPushButton> m_callBtn;
    QPointer<QPushButton> m_saleBtn;
    QPointer<QWidget> m_panel;
    QString m_tip;
    bool m_callActive = false;
    bool m_showSale = true;
    bool m_snapping = false;
    QRect m_placed; // where the panel was put when built: reaching it is no move of the agent's
    QPoint m_dragOffset;
    bool m_dragging = false;
    QTimer m_snapJob;
    QTimer m_snapEnd;
    QTimer m_flashEnd;
};
