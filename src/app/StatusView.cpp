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

void StatusView::refresh()
{
    if (!m_tray)
        return;
    const StatusMenu::State state = menuState();
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
    if (m_tray)
        m_tray->flash(text);
    QTimer::singleShot(kFlashMs, this, [this] { redraw(); });
}

void StatusView::showCallTime(qint64 seconds)
{
    if (m_onCall() && m_tray && m_tray->hasCallItem())
        m_tray->setCallTitle(StatusMenu::callTimer(seconds));
}
