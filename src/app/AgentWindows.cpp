#include "AgentWindows.h"

#include "AgentActions.h"
#include "BravaLog.h"
#include "AgentState.h"
#include "ReviewWindow.h"
#include "SaleForm.h"
#include "SaleSubmission.h"
#include "SaleWidget.h"
#include "ScreenSnapper.h"
#include "Settings.h"

AgentWindows::AgentWindows(AgentActions &actions, QNetworkAccessManager &net, Settings &settings,
                           const AgentState &state, QObject *parent)
    : QObject(parent)
    , m_actions(actions)
    , m_net(net)
    , m_settings(settings)
    , m_state(state)
{
    m_actions.onReview = [this](qint64 secs) { openReview(secs); };
    m_actions.onSale = [this] { openSaleForm(); };
    connect(&m_state, &AgentState::changed, this, &AgentWindows::update);
}

AgentWindows::~AgentWindows()
{
    m_actions.onReview = nullptr;
    m_actions.onSale = nullptr;
}

void AgentWindows::update()
{
    const bool controls = m_state.setupDone() && m_state.agentID() >= 1 && m_state.camerasEnabled();
    const bool onCall = m_state.onCall();
    if (!m_floating)
        return;
    if (!controls) {
        if (m_widget)
            m_widget->hide();
        return;
    }
    if (!m_widget) {
        // The widget's frame lives beside the other settings, under its own key.
        m_widget = std::make_unique<SaleWidget>(SaleWidget::FrameStore{[this] { return m_settings.saleWidgetFrame(); },
                                                                       [this](const QString &text) { m_settings.setSaleWidgetFrame(text); }});
        connect(m_widget.get(), &SaleWidget::callPressed, this, [this] {
            m_actions.toggleCall();
            if (m_widget)
                m_widget->setCall(m_actions.onCall());
        });
        connect(m_widget.get(), &SaleWidget::helpPressed, this, [this] { m_actions.needHelp(); });
        connect(m_widget.get(), &SaleWidget::salePressed, this, [this] { m_actions.snapSale(); });
        connect(m_widget.get(), &SaleWidget::menuAsked, this, &AgentWindows::menuAsked);
        m_widget->setTip(m_tip);
    }
    m_widget->show(m_state.serverLocked());
    if (m_widget->callActive() != onCall)
        m_widget->setCall(onCall);
}

void AgentWindows::openReview(qint64 secs)
{
    if (!m_review)
        m_review = std::make_unique<ReviewWindow>();
    m_review->open([this, secs](const QString &outcome, const QString &ctype, const QString &why) {
        m_actions.postReview(secs, outcome, ctype, why);
    });
}

void AgentWindows::openSaleForm()
{
    if (!m_form) {
        m_submission = std::make_unique<SaleSubmission>(m_net);
        m_snapper = std::make_unique<ScreenSnapper>(ScreenSnapper::sessionNeedsPortal());
        m_form = std::make_unique<SaleForm>(*m_submission, *m_snapper, [this] { return m_settings.agentID(); },
                                            [this] { return m_settings.server(); });
        m_form->recording = [this] { return m_state.recording(); };
    }
    m_form->open();
}

void AgentWindows::disableFloating(const QString &note)
{
    m_floating = false;
    m_note = note;
    m_widget.reset();
    bravaLog(note);
}

void AgentWindows::setTip(const QString &tip)
{
    m_tip = tip;
    if (m_widget && m_widget->tip() != tip)
        m_widget->setTip(tip);
}

void AgentWindows::helpNotSent()
{
    if (m_widget)
        m_widget->flashHelpNotSent();
}

bool AgentWindows::isUploading() const
{
    return m_form && m_form->isUploading();
}
