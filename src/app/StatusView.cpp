#include "StatusView.h"

#include "Config.h"
#include "Connection.h"
#include "Recorder.h"
#include "TrayView.h"
#include "Uploader.h"

#include <QTimer>

StatusView::StatusView(Recorder &rec, Connection &conn, Uploader &uploader, std::function<bool()> live,
                       std::function<bool()> onCall, QObject *parent)
    : QObject(parent)
    , m_rec(rec)
    , m_conn(conn)
    , m_uploader(uploader)
    , m_live(std::move(live))
    , m_onCall(std::move(onCall))
{
    Q_ASSERT(m_live && m_onCall);
}

StatusView::~StatusView() = default;

void StatusView::show(std::function<bool(StatusMenu::Action)> isAvailable,
                      std::function<void(StatusMenu::Action)> onAction)
{
    Q_ASSERT(!m_tray);
    m_tray = new TrayView(this);
    m_tray->isAvailable = std::move(isAvailable);
    m_tray->onAction = std::move(onAction);
}

StatusMenu::State StatusView::menuState() const
{
    StatusMenu::State s;
    s.camerasEnabled = m_rec.camerasEnabled();
    s.isRecording = m_rec.isRecording();
    s.live = m_live();
    s.connected = m_conn.connected();
    s.replaced = m_conn.replaced();
    s.agentID = Config::agentID();
    s.setupDone = Config::setupDone();
    s.pendingCount = m_uploader.pendingCount();
    s.lastError = m_rec.lastError().value_or(QString());
    s.onCall = m_onCall();
    s.serverLocked = Config::serverLocked();
    s.version = Config::version();
    return s;
}

TrayTip::Facts StatusView::tipFacts() const
{
    TrayTip::Facts f;
    f.address = Config::server();
    f.linkFailure = m_conn.lastFailure();
    f.session = m_rec.session();
    f.previewing = m_rec.previewing;
    f.callSeconds = m_onCall() ? m_callSeconds : -1;
    f.flash = m_tray ? m_tray->flashText() : QString();
    return f;
}

void StatusView::refresh()
{
    if (!m_tray)
        return;
    const StatusMenu::State state = menuState();
    m_tray->setTip(TrayTip::text(state, tipFacts()));
    const QString key = StatusMenu::fingerprint(state);
    if (key == m_menuKey)
        return;
    m_menuKey = key;
    m_tray->draw(state);
}

void StatusView::redraw()
{
    m_menuKey.clear();
    refresh();
}

void StatusView::flashStatus(const QString &text)
{
    if (!m_tray)
        return;
    m_tray->flash(text);
    refresh(); // the tooltip says it too
    QTimer::singleShot(kFlashMs, this, [this, text] {
        if (m_tray->flashText() == text)
            m_tray->flash(QString());
        redraw();
    });
}

void StatusView::showCallTime(qint64 seconds)
{
    m_callSeconds = seconds;
    if (m_onCall() && m_tray && m_tray->hasCallItem())
        m_tray->setCallTitle(StatusMenu::callTimer(seconds));
}
