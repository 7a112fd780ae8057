#pragma once

#include "FirstPlacement.h"
#include "ScreenSnapper.h"

#include <QByteArray>
#include <QColor>
#include <QPointer>
#include <QString>
#include <QWidget>

#include <functional>

class QButtonGroup;
class QLabel;
class QLineEdit;
class QPushButton;
class QScrollArea;
class SaleSubmission;

// The window in which an agent reports a sale: how the call was placed, the lead's name, the
// annual premium value, whether it was a referral, a confirmation (a file or a snapshot of the
// screen) and, for a phone sale, the full call recording. It checks what was entered and hands the
// sale to its SaleSubmission; on failure everything entered stays. Built once, hidden on close.
// Main thread only.
class SaleForm : public QWidget
{
    Q_OBJECT
public:
    /// A form that sends through `submission`, snaps through `snapper`, and asks `agentID` and
    /// `server` for the agent number and control-room address at the moment of sending.
    SaleForm(SaleSubmission &submission, ScreenSnapper &snapper, std::function<int()> agentID,
             std::function<QString()> server, QWidget *parent = nullptr);
    ~SaleForm() override;

    /// Opens the form with no attachments (typed texts and choices of the last use stay), in
    /// front, inside the screen; while a submission runs, as it is.
    void open();
    /// Forgets every attachment.
    void reset();
    /// Shows the call-recording section as the chosen method needs it.
    void applyMethod();
    /// Takes a refusal's message away once the agent changes what it was about (anything on the form).
    void clearProblem();
    /// Attaches a confirmation file (and drops a snapshot).
    void setConfirmFile(const QString &path);
    /// Attaches a snapshot (and drops a confirmation file).
    void setConfirmSnapshot(const QByteArray &png);
    /// Attaches the call recording.
    void setCallFile(const QString &path);
    /// The submit button: checks, then sends; ignored while a submission runs.
    void submitTapped();
    /// Keeps the window, title bar and borders included, inside its screen's usable area, less 16
    /// points on every side.
    void fitToScreen();
    /// Whether a submission runs.
    bool isUploading() const { return m_busy; }

    /// Asks for one file of these types with this message; "" when none was chosen. The desktop's
    /// own file chooser unless replaced (tests).
    std::function<QString(const QString &message, const QStringList &types)> chooseFile;
    /// Whether this computer records a take now: a computer sale made while it does not is
    /// flagged on the status line (no recording of the call exists). Always true unless replaced.
    std::function<bool()> recording = [] { return true; };

    /// Controls, for the one who drives the form (tests).
    QButtonGroup *methodGroup() const { return m_method; }
    QButtonGroup *referralGroup() const { return m_referral; }
    QLineEdit *leadField() const { return m_lead; }
    QLineEdit *apvField() const { return m_apv; }
    QLabel *confirmLabel() const { return m_confirmLabel; }
    QLabel *callLabel() const { return m_callLabel; }
    QPushButton *callChoose() const { return m_callChoose; }
    QPushButton *submitButton() const { return m_submit; }
    QLabel *statusLine() const { return m_status; }
    /// The colour of the status line's text.
    QColor statusColour() const { return m_statusColour; }

    /// Content size, margins and times of the form.
    static constexpr int kWidth = 468;
    static constexpr int kHeight = 648;
    static constexpr int kScreenInset = 16;
    static constexpr int kHideAfterSuccessMs = 1300;
    /// Colours: progress and success, and errors.
    static QColor green();
    static QColor errorColour();
    /// The colour of a warning that does not stop the sale.
    static QColor warningColour();
    /// The warning of a computer sale while nothing is recorded.
    static QString notRecordingText();

private:
    void build();
    void chooseConfirm();
    void snapConfirm();
    void chooseCall();
    void snapped(ScreenSnapper::Outcome outcome, const QByteArray &png);
    void finish(bool ok, const QString &message);
    void setStatus(const QString &text, const QColor &colour);
    bool phone() const;

    SaleSubmission &m_submission;
    ScreenSnapper &m_snapper;
    std::function<int()> m_agentID;
    std::function<QString()> m_server;
    QScrollArea *m_scroll = nullptr;
    QButtonGroup *m_method = nullptr;
    QButtonGroup *m_referral = nullptr;
    QLineEdit *m_lead = nullptr;
    QLineEdit *m_apv = nullptr;
    QLabel *m_confirmLabel = nullptr;
    QLabel *m_callTitle = nullptr;
    QLabel *m_callLabel = nullptr;
    QPushButton *m_callChoose = nullptr;
    QPushButton *m_submit = nullptr;
    QLabel *m_status = nullptr;
    QString m_confirmFile;
    QByteArray m_confirmPng;
    QString m_callFile;
    QColor m_statusColour;
    bool m_busy = false;
    FirstPlacement m_placement;
};
