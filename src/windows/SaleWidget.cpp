#include "SaleWidget.h"

#include "SaleWidgetModel.h"
#include "ScreenChanges.h"
#include "X11Desktop.h"

#include <QContextMenuEvent>
#include <QFrame>
#include <QGuiApplication>
#include <QLabel>
#include <QMouseEvent>
#include <QPushButton>
#include <QScreen>
#include <QWidget>
#include <QWindow>

namespace M = SaleWidgetModel;

namespace {

QString rgba(const QColor &c)
{
    return QStringLiteral("rgba(%1, %2, %3, %4)").arg(c.red()).arg(c.green()).arg(c.blue()).arg(c.alpha());
}

QString buttonStyle(const QColor &colour, int pixelSize)
{
    return QStringLiteral("QPushButton { background-color: %1; color: white; border: none; border-radius: %2px;"
                          " font-weight: bold; font-size: %3px; }")
        .arg(rgba(colour))
        .arg(M::kButtonRadius)
        .arg(pixelSize);
}

// The screens, the main one first: it is also the snap's fallback.
QList<M::Screen> screens()
{
    QList<M::Screen> out;
    if (QScreen *main = QGuiApplication::primaryScreen())
        out.append({main->geometry(), main->availableGeometry()});
    for (QScreen *s : QGuiApplication::screens())
        if (s != QGuiApplication::primaryScreen())
            out.append({s->geometry(), s->availableGeometry()});
    return out;
}

} // namespace

SaleWidget::SaleWidget(FrameStore store, QObject *parent)
    : QObject(parent)
    , m_store(std::move(store))
{
    Q_ASSERT(m_store.load && m_store.save);
    m_snapJob.setSingleShot(true);
    m_snapJob.setInterval(M::kSnapDelayMs);
    connect(&m_snapJob, &QTimer::timeout, this, &SaleWidget::snapToEdge);
    m_snapEnd.setSingleShot(true);
    m_snapEnd.setInterval(M::kSnappingMs);
    connect(&m_snapEnd, &QTimer::timeout, this, [this] { m_snapping = false; });
    m_flashEnd.setSingleShot(true);
    connect(&m_flashEnd, &QTimer::timeout, this, [this] { setCall(m_callActive); });

    // A screen unplugged, added or resized (a laptop leaving its dock) brings the panel back onto
    // the screens as they are now, snapped and saved like a move of the agent's.
    ScreenChanges::follow(this, [this] {
        if (m_window) {
            m_placed = QRect();
            m_snapJob.start();
        }
    });
}

SaleWidget::~SaleWidget()
{
    delete m_window;
}

void SaleWidget::show(bool withSale)
{
    if (!m_window)
        build(withSale);
    m_window->show();
    m_window->raise();
    X11Desktop::showOnAllDesktops(m_window);
}

void SaleWidget::build(bool withSale)
{
    m_showSale = withSale;
    const int h = M::height(withSale);
    auto *w = new QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint
                                       | Qt::WindowDoesNotAcceptFocus);
    w->setObjectName(QStringLiteral("saleWidget"));
    w->setWindowTitle(QStringLiteral("Brava Recorder"));
    w->setAttribute(Qt::WA_TranslucentBackground);
    w->setAttribute(Qt::WA_ShowWithoutActivating);
    w->setFocusPolicy(Qt::NoFocus);
    w->setFixedSize(M::kWidth, h);
    X11Desktop::cutToRoundedShape(w, QRectF(0, 0, M::kWidth, h), M::kPanelRadius); // no black corners

    auto *panel = new QFrame(w);
    panel->setObjectName(QStringLiteral("panel"));
    panel->setGeometry(0, 0, M::kWidth, h);
    panel->setStyleSheet(QStringLiteral("QFrame#panel { background-color: %1; border-radius: %2px; }")
                             .arg(rgba(M::navy()))
                             .arg(M::kPanelRadius));
    panel->installEventFilter(this);
    panel->setToolTip(m_tip);
    m_panel = panel;

    auto *handle = new QLabel(M::handleText(), panel);
    handle->setGeometry(M::handleFrame());
    handle->setAlignment(Qt::AlignCenter);
    handle->setStyleSheet(QStringLiteral("color: rgba(255, 255, 255, 115); font-size: 9px; background: transparent;"));
    handle->setAttribute(Qt::WA_TransparentForMouseEvents);

    for (const M::Button &b : M::buttons(withSale)) {
        auto *button = new QPushButton(b.title, panel);
        button->setGeometry(b.frame);
        button->setFocusPolicy(Qt::NoFocus);
        button->setCursor(Qt::PointingHandCursor);
        button->setStyleSheet(buttonStyle(b.colour, 15));
        switch (b.kind) {
        case M::Button::Call:
            m_callBtn = button;
            // While it reads "Help sent" (or "not sent"), a press only puts the call's own title back:
            // pressing the help answer never ends the call.
            connect(button, &QPushButton::clicked, this, [this] {
                if (!m_flashEnd.isActive())
                    return Q_EMIT callPressed();
                m_flashEnd.stop();
                setCall(m_callActive);
            });
            break;
        case M::Button::Sale:
            m_saleBtn = button;
            connect(button, &QPushButton::clicked, this, &SaleWidget::salePressed);
            break;
        case M::Button::Help:
            connect(button, &QPushButton::clicked, this, [this] {
                Q_EMIT helpPressed();
                flashHelp();
            });
            break;
        }
    }

    // The saved frame keeps its place, brought onto a screen (one may have gone since); its size
    // is always the panel's own.
    QRect frame;
    if (const std::optional<QRect> saved = M::parseFrame(m_store.load()))
        frame = M::snap(QRect(saved->topLeft(), QSize(M::kWidth, h)), screens()).value_or(QRect(saved->topLeft(), QSize(M::kWidth, h)));
    else if (const QScreen *main = QGuiApplication::primaryScreen())
        frame = M::firstFrame(main->availableGeometry(), withSale);
    w->setGeometry(frame);
    m_placed = frame;
    w->installEventFilter(this);
    m_window = w;
    setCall(m_callActive);
}

void SaleWidget::hide()
{
    m_snapJob.stop();
    m_flashEnd.stop();
    delete m_window;
}

void SaleWidget::setCall(bool active)
{
    m_callActive = active;
    drawCall(false);
}

void SaleWidget::drawCall(bool helpFlash)
{
    drawLook(M::callLook(m_callActive, helpFlash));
}

void SaleWidget::drawLook(const M::CallLook &look)
{
    if (!m_callBtn)
        return;
    m_callBtn->setText(look.title);
    m_callBtn->setStyleSheet(buttonStyle(look.colour, look.pixelSize));
}

void SaleWidget::flashHelp()
{
    drawCall(true);
    m_flashEnd.start(M::kHelpFlashMs);
}

void SaleWidget::flashHelpNotSent()
{
    drawLook(M::helpNotSentLook());
    m_flashEnd.start(M::kHelpFailedMs);
}

void SaleWidget::setTip(const QString &tip)
{
    m_tip = tip;
    if (m_panel)
        m_panel->setToolTip(tip);
}

void SaleWidget::snap()
{
    show(m_showSale);
    Q_EMIT salePressed();
}

bool SaleWidget::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_window && event->type() == QEvent::Move) {
        moved();
    } else if (m_window && watched != m_window) {
        // Dragging the background moves the panel: by the window manager when it can, else here.
        if (event->type() == QEvent::ContextMenu) { // the agent's menu, where a desktop has no tray to open it
            Q_EMIT menuAsked(static_cast<QContextMenuEvent *>(event)->globalPos());
            return true;
        }
        auto *mouse = static_cast<QMouseEvent *>(event);
        if (event->type() == QEvent::MouseButtonPress && mouse->button() == Qt::LeftButton) {
            QWindow *handle = m_window->windowHandle();
            m_dragging = !(handle && handle->startSystemMove());
            m_dragOffset = mouse->globalPosition().toPoint() - m_window->pos();
            return true;
        }
        if (event->type() == QEvent::MouseMove && m_dragging) {
            m_window->move(mouse->globalPosition().toPoint() - m_dragOffset);
            return true;
        }
        if (event->type() == QEvent::MouseButtonRelease)
            m_dragging = false;
    }
    return QObject::eventFilter(watched, event);
}

void SaleWidget::moved()
{
    if (!m_window || m_snapping || M::frameText(m_window->geometry()) == m_store.load())
        return; // the snap's own move, or where it was put: not a move of the agent's
    m_snapJob.start(); // restarted by every move: one snap, and one save, after the last
}

void SaleWidget::snapToEdge()
{
    // Back where it was built (the window manager moves a window it maps, then puts it where
    // asked): no move of the agent's.
    if (!m_window || m_window->geometry() == std::exchange(m_placed, QRect()))
        return;
    // The rule takes the first screen holding the centre (screens do not overlap).
    const QRect to = M::snap(m_window->geometry(), screens()).value_or(m_window->geometry());
    m_snapping = true;
    m_window->setGeometry(to);
    m_store.save(M::frameText(to));
    m_snapEnd.start();
}
