#include "SaleForm.h"

#include "BravaLog.h"
#include "SaleFormModel.h"
#include "ScreenChanges.h"
#include "SaleSubmission.h"
#include "SaleWidgetModel.h"

#include <QButtonGroup>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QShortcut>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>
#include <QWindow>

namespace {

constexpr int kLeft = 24;
constexpr int kContentWidth = 420;

QString rgba(const QColor &c)
{
    return QStringLiteral("rgba(%1, %2, %3, %4)").arg(c.red()).arg(c.green()).arg(c.blue()).arg(c.alpha());
}

QColor white(qreal alpha)
{
    return QColor::fromRgbF(1, 1, 1, float(alpha));
}

QColor field()
{
    return QColor::fromRgbF(0.02f, 0.19f, 0.50f, 1.0f);
}

QLabel *label(QWidget *parent, const QString &text, const QRect &frame, const QString &style)
{
    auto *l = new QLabel(text, parent);
    l->setGeometry(frame);
    l->setStyleSheet(style);
    return l;
}

QLabel *caption(QWidget *parent, const QString &text, int y)
{
    return label(parent, text, QRect(kLeft, y, kContentWidth, 16),
                 QStringLiteral("color: %1; font-size: 11px; font-weight: bold;").arg(rgba(white(0.6))));
}

QString noteStyle(const QColor &colour)
{
    return QStringLiteral("color: %1; font-size: 12px;").arg(rgba(colour));
}

// Two or more buttons of which one is chosen, drawn as one segmented control.
QButtonGroup *segments(QWidget *parent, const QStringList &titles, const QRect &frame)
{
    auto *group = new QButtonGroup(parent);
    const int w = frame.width() / int(titles.size());
    for (int i = 0; i < titles.size(); ++i) {
        auto *b = new QPushButton(titles[i], parent);
        b->setCheckable(true);
        b->setGeometry(frame.x() + i * w, frame.y(), w, frame.height());
        b->setStyleSheet(QStringLiteral("QPushButton { background-color: %1; color: white; border: 1px solid %2;"
                                        " font-size: 14px; }"
                                        " QPushButton:checked { background-color: %3; font-weight: bold; }")
                             .arg(rgba(field()), rgba(white(0.2)), rgba(SaleWidgetModel::blue())));
        group->addButton(b, i);
    }
    group->button(0)->setChecked(true);
    return group;
}

QPushButton *attachButton(QWidget *parent, const QString &title, const QRect &frame)
{
    auto *b = new QPushButton(title, parent);
    b->setGeometry(frame);
    b->setStyleSheet(QStringLiteral("QPushButton { background-color: %1; color: white; border: 2px solid %2;"
                                    " border-radius: 8px; font-size: 13px; }"
                                    " QPushButton:disabled { color: %3; border-color: %3; }")
                         .arg(rgba(field()), rgba(SaleWidgetModel::blue()), rgba(white(0.4))));
    return b;
}

QLineEdit *textField(QWidget *parent, const QString &placeholder, int y)
{
    auto *f = new QLineEdit(parent);
    f->setPlaceholderText(placeholder);
    f->setGeometry(kLeft, y, kContentWidth, 32);
    f->setStyleSheet(QStringLiteral("QLineEdit { background-color: %1; color: white; border: 1px solid %2;"
                                    " border-radius: 6px; padding: 0 8px; font-size: 14px; }")
                         .arg(rgba(field()), rgba(white(0.25))));
    return f;
}

} // namespace

QColor SaleForm::green()
{
    return SaleWidgetModel::green();
}

QColor SaleForm::errorColour()
{
    return QColor::fromRgbF(1.0f, 0.5f, 0.5f, 1.0f);
}

QColor SaleForm::warningColour()
{
    return QColor(0xff, 0xcc, 0x00);
}

QString SaleForm::notRecordingText()
{
    return QStringLiteral("⚠ This computer is not recording this call");
}

SaleForm::SaleForm(SaleSubmission &submission, ScreenSnapper &snapper, std::function<int()> agentID,
                   std::function<QString()> server, QWidget *parent)
    : QWidget(parent, Qt::Window)
    , m_submission(submission)
    , m_snapper(snapper)
    , m_agentID(std::move(agentID))
    , m_server(std::move(server))
{
    chooseFile = [this](const QString &message, const QStringList &types) {
        const QString filter = message + QStringLiteral(" (*.") + types.join(QStringLiteral(" *.")) + QLatin1Char(')');
        return QFileDialog::getOpenFileName(this, message, QDir::homePath(), filter);
    };
    build();
    connect(&m_snapper, &ScreenSnapper::done, this, &SaleForm::snapped);
    connect(&m_submission, &SaleSubmission::finished, this, [this](bool ok, const QString &message) {
        if (m_busy)
            finish(ok, message);
    });
    // A screen that changes (resolution, docks, another monitor) keeps the form inside it.
    ScreenChanges::follow(this, [this] { QTimer::singleShot(0, this, [this] { if (isVisible()) fitToScreen(); }); });
}

SaleForm::~SaleForm() = default;

void SaleForm::build()
{
    setWindowTitle(QStringLiteral("Submit a Sale"));
    setObjectName(QStringLiteral("saleForm"));
    new QShortcut(QKeySequence(Qt::Key_Escape), this, this, &QWidget::close); // as the title bar's close: what was typed stays
    resize(kWidth, kHeight);
    setMinimumSize(320, 240);

    auto *content = new QWidget;
    content->setObjectName(QStringLiteral("saleFormContent"));
    content->setFixedSize(kWidth, kHeight);
    content->setStyleSheet(QStringLiteral("QWidget#saleFormContent { background-color: %1; }")
                               .arg(rgba(QColor(SaleWidgetModel::navy().rgb()))));

    label(content, QStringLiteral("Submit a Sale"), QRect(kLeft, 20, kContentWidth, 30),
          QStringLiteral("color: white; font-size: 22px; font-weight: bold;"));
    caption(content, QStringLiteral("HOW DID YOU PLACE THIS CALL?"), 62);
    m_method = segments(content, {QStringLiteral("📞  Phone"), QStringLiteral("💻  Computer")}, QRect(kLeft, 82, kContentWidth, 40));
    connect(m_method, &QButtonGroup::idClicked, this, &SaleForm::clearProblem);
    connect(m_method, &QButtonGroup::idClicked, this, &SaleForm::applyMethod);
    caption(content, QStringLiteral("LEAD NAME"), 138);
    m_lead = textField(content, QStringLiteral("Who did you write?"), 158);
    caption(content, QStringLiteral("ANNUAL PREMIUM VALUE (APV)"), 206);
    m_apv = textField(content, QStringLiteral("$ e.g. 1200"), 226);
    caption(content, QStringLiteral("REFERRAL?"), 274);
    m_referral = segments(content, {QStringLiteral("No"), QStringLiteral("Yes")}, QRect(kLeft, 294, 180, 32));
    connect(m_referral, &QButtonGroup::idClicked, this, &SaleForm::clearProblem);
    for (QLineEdit *field : {m_lead, m_apv})
        connect(field, &QLineEdit::textEdited, this, &SaleForm::clearProblem);
    caption(content, QStringLiteral("CONFIRMATION  (PDF OR SCREENSHOT)"), 342);
    connect(attachButton(content, QStringLiteral("Choose file…"), QRect(24, 362, 205, 34)), &QPushButton::clicked, this,
            &SaleForm::chooseConfirm);
    connect(attachButton(content, QStringLiteral("📸  Snap screen"), QRect(239, 362, 205, 34)), &QPushButton::clicked,
            this, &SaleForm::snapConfirm);
    m_confirmLabel = label(content, QString(), QRect(kLeft, 402, kContentWidth, 16), QString());
    m_callTitle = caption(content, QStringLiteral("FULL CALL RECORDING  (BOTH SIDES)"), 436);
    m_callChoose = attachButton(content, QStringLiteral("Choose call recording…"), QRect(kLeft, 456, kContentWidth, 34));
    connect(m_callChoose, &QPushButton::clicked, this, &SaleForm::chooseCall);
    m_callLabel = label(content, QString(), QRect(kLeft, 496, kContentWidth, 16), QString());
    m_status = label(content, QString(), QRect(kLeft, 556, kContentWidth, 18), QString());
    m_submit = new QPushButton(QStringLiteral("Submit Sale"), content);
    m_submit->setGeometry(kLeft, 580, kContentWidth, 48);
    m_submit->setStyleSheet(QStringLiteral("QPushButton { background-color: %1; color: white; border: none;"
                                           " border-radius: 10px; font-size: 16px; font-weight: bold; }"
                                           " QPushButton:disabled { background-color: %2; }")
                                .arg(rgba(SaleWidgetModel::blue()), rgba(white(0.3))));
    connect(m_submit, &QPushButton::clicked, this, &SaleForm::submitTapped);

    m_scroll = new QScrollArea(this);
    m_scroll->setWidget(content);
    m_scroll->setFrameShape(QFrame::NoFrame);
    m_scroll->setStyleSheet(QStringLiteral("QScrollArea { background-color: %1; }").arg(rgba(QColor(SaleWidgetModel::navy().rgb()))));
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_scroll);
    reset();
    applyMethod();
}

void SaleForm::open()
{
    if (!m_busy) // a sale on its way keeps what it sends, and the form shows how it ends
        reset();
    m_placement.place(*this, QSize(kWidth, kHeight));
    show();
    fitToScreen();
    raise();
    activateWindow();
    applyMethod();
}

void SaleForm::reset()
{
    m_confirmFile.clear();
    m_confirmPng.clear();
    m_callFile.clear();
    m_busy = false;
    m_submit->setEnabled(true);
    m_confirmLabel->setText(QStringLiteral("No confirmation yet"));
    m_confirmLabel->setStyleSheet(noteStyle(white(0.6)));
    setStatus(QString(), green());
}

bool SaleForm::phone() const
{
    return m_method->checkedId() != 1;
}

void SaleForm::applyMethod()
{
    // The warning follows the method and the recording; a refusal or an outcome shown stays.
    const bool warn = !phone() && !recording();
    if (!m_busy && warn && m_status->text().isEmpty())
        setStatus(notRecordingText(), warningColour());
    else if (!m_busy && !warn && m_statusColour == warningColour())
        setStatus(QString(), green());
    if (!phone()) {
        m_callTitle->setStyleSheet(QStringLiteral("color: %1; font-size: 11px; font-weight: bold;").arg(rgba(white(0.3))));
        m_callChoose->setEnabled(false);
        m_callLabel->setText(QStringLiteral("Not needed — the call was recorded in the app"));
        m_callLabel->setStyleSheet(noteStyle(white(0.3)));
        return;
    }
    m_callTitle->setStyleSheet(QStringLiteral("color: %1; font-size: 11px; font-weight: bold;").arg(rgba(white(0.6))));
    m_callChoose->setEnabled(true);
    if (!m_callFile.isEmpty()) {
        m_callLabel->setText(QStringLiteral("✓ ") + QFileInfo(m_callFile).fileName());
        m_callLabel->setStyleSheet(noteStyle(green()));
    } else {
        m_callLabel->setText(QStringLiteral("Required for a phone sale"));
        m_callLabel->setStyleSheet(noteStyle(white(0.6)));
    }
}

void SaleForm::chooseConfirm()
{
    const QString path = chooseFile(QStringLiteral("Choose the application confirmation (PDF or screenshot)"),
                                    SaleFormModel::confirmTypes());
    if (!path.isEmpty())
        setConfirmFile(path);
}

void SaleForm::setConfirmFile(const QString &path)
{
    m_confirmFile = path;
    m_confirmPng.clear();
    m_confirmLabel->setText(QStringLiteral("✓ ") + QFileInfo(path).fileName());
    m_confirmLabel->setStyleSheet(noteStyle(green()));
    clearProblem();
}

void SaleForm::snapConfirm()
{
    m_snapper.snap();
}

void SaleForm::snapped(ScreenSnapper::Outcome outcome, const QByteArray &png)
{
    if (outcome == ScreenSnapper::Outcome::Snapped) {
        setConfirmSnapshot(png);
        return;
    }
    m_confirmLabel->setText(outcome == ScreenSnapper::Outcome::NotAllowed
                                ? QStringLiteral("Allow screenshots in your desktop's privacy settings")
                                : QStringLiteral("Screen capture failed"));
    m_confirmLabel->setStyleSheet(noteStyle(errorColour()));
}

void SaleForm::setConfirmSnapshot(const QByteArray &png)
{
    m_confirmPng = png;
    m_confirmFile.clear();
    m_confirmLabel->setText(QStringLiteral("✓ Screen snapped (%1 KB)").arg(png.size() / 1024));
    m_confirmLabel->setStyleSheet(noteStyle(green()));
    clearProblem();
}

void SaleForm::chooseCall()
{
    const QString path = chooseFile(QStringLiteral("Choose the full call recording (both sides)"), SaleFormModel::callTypes());
    if (!path.isEmpty())
        setCallFile(path);
}

void SaleForm::setCallFile(const QString &path)
{
    m_callFile = path;
    applyMethod();
    clearProblem();
}

void SaleForm::clearProblem()
{
    if (!m_busy && m_statusColour == errorColour())
        setStatus(QString(), green());
}

void SaleForm::submitTapped()
{
    if (m_busy)
        return;
    SaleFormModel::Entry e;
    e.agentID = m_agentID();
    e.phone = phone();
    e.lead = m_lead->text();
    e.apv = m_apv->text();
    e.referral = m_referral->checkedId() == 1;
    e.hasConfirm = !m_confirmFile.isEmpty() || !m_confirmPng.isEmpty();
    e.hasCall = !m_callFile.isEmpty();
    if (const QString problem = SaleFormModel::check(e); !problem.isEmpty()) {
        setStatus(problem, errorColour());
        return;
    }
    SaleSubmission::Sale sale{SaleFormModel::record(e), e.phone, m_confirmFile, m_confirmPng, m_callFile};
    m_busy = true;
    m_submit->setEnabled(false);
    setStatus(QStringLiteral("Submitting…"), green());
    if (!m_submission.submit(m_server(), sale)) {
        // Another form's sale is still on its way: nothing of this one has been sent.
        m_busy = false;
        m_submit->setEnabled(true);
        setStatus(QStringLiteral("Failed — try again"), errorColour());
    }
}

void SaleForm::finish(bool ok, const QString &message)
{
    m_busy = false;
    m_submit->setEnabled(true);
    if (!ok) {
        setStatus(message.isEmpty() ? QStringLiteral("Failed — try again") : message, errorColour());
        const QString why = m_submission.why();
        bravaLog(QStringLiteral("sale not sent: ") + m_status->text() + (why.isEmpty() ? QString() : QStringLiteral(" (") + why + QLatin1Char(')')));
        return;
    }
    setStatus(QStringLiteral("Saved ✓  Sent to the control room"), green());
    bravaLog(QStringLiteral("sale sent to the control room"));
    QPointer<SaleForm> self(this);
    QTimer::singleShot(kHideAfterSuccessMs, this, [self] {
        if (self)
            self->hide();
    });
}

void SaleForm::setStatus(const QString &text, const QColor &colour)
{
    m_status->setText(text);
    m_statusColour = colour;
    m_status->setStyleSheet(QStringLiteral("color: %1; font-size: 13px; font-weight: bold;").arg(rgba(colour)));
}

void SaleForm::fitToScreen()
{
    const QScreen *s = windowHandle() && windowHandle()->screen() ? windowHandle()->screen() : QGuiApplication::primaryScreen();
    if (!s)
        return;
    const QRect room = s->availableGeometry().adjusted(kScreenInset, kScreenInset, -kScreenInset, -kScreenInset);
    // The window as the screen shows it, title bar and borders included.
    const QRect inner = geometry();
    QRect frame = frameGeometry();
    const QMargins borders(inner.left() - frame.left(), inner.top() - frame.top(), frame.right() - inner.right(), frame.bottom() - inner.bottom());
    frame.setSize(frame.size().boundedTo(room.size()));
    frame.moveLeft(std::clamp(frame.left(), room.left(), room.right() - frame.width() + 1));
    frame.moveTop(std::clamp(frame.top(), room.top(), room.bottom() - frame.height() + 1));
    if (frame.marginsRemoved(borders) != inner)
        setGeometry(frame.marginsRemoved(borders));
}
