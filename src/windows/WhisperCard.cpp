#include "WhisperCard.h"

#include "BravaLog.h"
#include "CardPicture.h"
#include "WhisperPage.h"
#include "X11Desktop.h"

#include <QGuiApplication>
#include <QScreen>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineScript>
#include <QWebEngineSettings>
#include <QWebEngineView>

namespace {

// The margin of the page around the card (its glow) and the card's corner radius.
constexpr int kGlow = 46;
constexpr int kRadius = 18;

} // namespace

WhisperCard::WhisperCard(QObject *parent)
    : QObject(parent)
{
    m_hide.setSingleShot(true);
    m_hide.setTimerType(Qt::PreciseTimer);
    m_release.setSingleShot(true);
    connect(&m_hide, &QTimer::timeout, this, &WhisperCard::dismiss);
    connect(&m_release, &QTimer::timeout, this, &WhisperCard::release);
}

QString WhisperCard::prepareEngine(bool root)
{
    if (!root || !qEnvironmentVariableIsEmpty("QTWEBENGINE_DISABLE_SANDBOX"))
        return QString();
    qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    return QStringLiteral("running as root: the whisper card's browser engine runs without its sandbox");
}

WhisperCard::~WhisperCard()
{
    release();
}

void WhisperCard::build()
{
    m_picture = CardPicture::dataUrl();
    // A private profile that keeps nothing on disk; released with the view.
    m_profile = new QWebEngineProfile(this);
    QWebEngineSettings *s = m_profile->settings();
    s->setAttribute(QWebEngineSettings::JavascriptEnabled, false);
    s->setAttribute(QWebEngineSettings::JavascriptCanOpenWindows, false);
    s->setAttribute(QWebEngineSettings::LocalStorageEnabled, false);
    s->setAttribute(QWebEngineSettings::PluginsEnabled, false);
    s->setAttribute(QWebEngineSettings::ErrorPageEnabled, false);
    s->setAttribute(QWebEngineSettings::LocalContentCanAccessRemoteUrls, false);
    s->setAttribute(QWebEngineSettings::ShowScrollBars, false);

    m_view = new QWebEngineView;
    m_view->setPage(new QWebEnginePage(m_profile, m_view));
    m_view->page()->setBackgroundColor(Qt::transparent);
    m_view->setAttribute(Qt::WA_TranslucentBackground);
    m_view->setAttribute(Qt::WA_ShowWithoutActivating);
    m_view->setContextMenuPolicy(Qt::NoContextMenu);
    // Not managed by the window manager (whose frame would catch the clicks the card lets
    // through), so on every workspace and above the windows it manages.
    m_view->setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowTransparentForInput
                           | Qt::WindowDoesNotAcceptFocus | Qt::NoDropShadowWindowHint | Qt::X11BypassWindowManagerHint);
    m_view->setWindowTitle(QStringLiteral("Brava Recorder whisper"));
    m_view->resize(812, 320);
    connect(m_view->page(), &QWebEnginePage::renderProcessTerminated, this, [this](QWebEnginePage::RenderProcessTerminationStatus status) {
        if (status != QWebEnginePage::NormalTerminationStatus && !m_release.isActive()) // a card loading or up
            failed(QStringLiteral("its renderer stopped"));
    });
    connect(m_view->page(), &QWebEnginePage::loadFinished, this, [this](bool ok) {
        if (!ok)
            return failed(QStringLiteral("its page did not load"));
        const quint64 generation = m_generation;
        m_view->page()->runJavaScript(WhisperPage::measureScript(), QWebEngineScript::ApplicationWorld,
                                      [this, generation](const QVariant &answer) { measured(generation, answer); });
    });
}

void WhisperCard::show(const QString &text, int seat, const QString &from)
{
    m_release.stop();
    m_hide.stop(); // a card up stays until the new page is placed, which starts its time again
    if (!m_view)
        build();
    ++m_generation;
    m_view->page()->setHtml(WhisperPage::html(text, seat, from, m_picture), QUrl());
}

void WhisperCard::measured(quint64 generation, const QVariant &answer)
{
    if (generation != m_generation || !m_view)
        return; // a newer page replaced this one
    const QScreen *screen = QGuiApplication::primaryScreen();
    m_frame = WhisperPage::place(screen ? screen->availableGeometry() : QRect(0, 0, 1280, 800), WhisperPage::parseSize(answer));
    m_view->setGeometry(m_frame);
    // Without a compositor the see-through glow around the card would show black: only the card is shown.
    X11Desktop::cutToRoundedShape(m_view, QRectF(QPointF(0, 0), m_frame.size()).adjusted(kGlow, kGlow, -kGlow, -kGlow), kRadius);
    m_view->show();
    m_view->raise();
    m_hide.start(hideMs);
    m_note.clear();
    Q_EMIT placed(m_frame);
}

void WhisperCard::failed(const QString &why)
{
    if (m_failed == m_generation)
        return; // told already
    m_failed = ++m_generation; // an answer still on its way places nothing
    m_note = QStringLiteral("whisper card not shown: ") + why;
    bravaLog(m_note);
    dismiss();
}

void WhisperCard::dismiss()
{
    m_hide.stop();
    if (!m_view)
        return;
    m_release.start(releaseMs);
    if (!m_view->isVisible())
        return;
    m_view->hide();
    Q_EMIT hidden();
}

bool WhisperCard::visible() const
{
    return m_view && m_view->isVisible();
}

void WhisperCard::release()
{
    m_hide.stop();
    m_release.stop();
    if (!m_view)
        return;
    m_view->page()->disconnect(this);
    delete m_view; // its page first, then the profile the page used
    m_view = nullptr;
    delete m_profile;
    m_profile = nullptr;
    Q_EMIT released();
}
