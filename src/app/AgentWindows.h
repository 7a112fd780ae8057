#pragma once

#include <QObject>
#include <QString>

#include <memory>

class AgentActions;
class AgentState;
class QNetworkAccessManager;
class ReviewWindow;
class SaleForm;
class SaleSubmission;
class SaleWidget;
class ScreenSnapper;
class Settings;

// The agent's windows and what joins them to the agent's actions: the floating sale widget (shown
// while the agent may act on calls: setup done, an agent number, cameras enabled; it follows the
// agent's state as it changes), the sale form with its submission, and the after-call review,
// whose save is reported as an event. The windows are made when first needed. On a desktop that
// cannot keep a window above others (no X server) the widget stays hidden and the reason is kept
// for the status. Main thread only.
class AgentWindows : public QObject
{
    Q_OBJECT
public:
    /// Windows that act through `actions`, send sales over `net` as the agent and to the control
    /// room of `settings` (whose file also keeps the widget's place), and follow `state`.
    AgentWindows(AgentActions &actions, QNetworkAccessManager &net, Settings &settings, const AgentState &state,
                 QObject *parent = nullptr);
    ~AgentWindows() override;

    /// Shows the widget (with the sale button in a build with a fixed control room) and its call
    /// state while the agent may act on calls, hides it otherwise.
    void update();
    /// Opens the review of a call of `secs` seconds; its save posts the review event.
    void openReview(qint64 secs);
    /// Opens the sale form.
    void openSaleForm();
    /// Whether a sale is being sent.
    bool isUploading() const;
    /// Keeps the floating widget away on this desktop, for this reason (logged once).
    void disableFloating(const QString &note);
    /// Why the floating widget cannot be used ("" when it can).
    QString note() const { return m_note; }
    /// Sets the widget's tooltip, now and whenever it is made again.
    void setTip(const QString &tip);
    /// Says on the widget that the last call for help did not reach the control room.
    void helpNotSent();

Q_SIGNALS:
    /// The widget was right-clicked at `globalPos`: the agent's menu is asked for there.
    void menuAsked(const QPoint &globalPos);
public:

    /// The windows (null until first needed).
    SaleWidget *widget() const { return m_widget.get(); }
    SaleForm *form() const { return m_form.get(); }
    ReviewWindow *review() const { return m_review.get(); }

private:
    AgentActions &m_actions;
    QNetworkAccessManager &m_net;
    Settings &m_settings;
    const AgentState &m_state;
    bool m_floating = true;
    QString m_note;
    QString m_tip;
    std::unique_ptr<SaleSubmission> m_submission;
    std::unique_ptr<ScreenSnapper> m_snapper;
    std::unique_ptr<SaleWidget> m_widget;
    std::unique_ptr<SaleForm> m_form;
    std::unique_ptr<ReviewWindow> m_review;
};
