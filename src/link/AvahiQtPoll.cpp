#include "AvahiQtPoll.h"

#include <QSocketNotifier>
#include <QTimer>

#include <avahi-common/timeval.h>
#include <avahi-common/watch.h>

#include <algorithm>

// Avahi declares these types and leaves their contents to the event-loop provider.
struct AvahiWatch
{
    int fd = -1;
    AvahiWatchEvent wanted = AvahiWatchEvent(0);
    AvahiWatchEvent happened = AvahiWatchEvent(0);
    AvahiWatchCallback callback = nullptr;
    void *userdata = nullptr;
    QSocketNotifier *read = nullptr;
    QSocketNotifier *write = nullptr;
};

struct AvahiTimeout
{
    QTimer *timer = nullptr;
    AvahiTimeoutCallback callback = nullptr;
    void *userdata = nullptr;
};

namespace {

void fire(AvahiWatch *w, AvahiWatchEvent event)
{
    w->happened = event;
    // The callback may free the watch: nothing touches it afterwards.
    w->callback(w, w->fd, event, w->userdata);
}

void applyEvents(AvahiWatch *w, AvahiWatchEvent event)
{
    w->wanted = event;
    w->read->setEnabled(event & AVAHI_WATCH_IN);
    w->write->setEnabled(event & AVAHI_WATCH_OUT);
}

AvahiWatch *watchNew(const AvahiPoll *, int fd, AvahiWatchEvent event, AvahiWatchCallback callback, void *userdata)
{
    auto *w = new AvahiWatch;
    w->fd = fd;
    w->callback = callback;
    w->userdata = userdata;
    w->read = new QSocketNotifier(fd, QSocketNotifier::Read);
    w->write = new QSocketNotifier(fd, QSocketNotifier::Write);
    QObject::connect(w->read, &QSocketNotifier::activated, w->read, [w] { fire(w, AVAHI_WATCH_IN); });
    QObject::connect(w->write, &QSocketNotifier::activated, w->write, [w] { fire(w, AVAHI_WATCH_OUT); });
    applyEvents(w, event);
    return w;
}

void watchUpdate(AvahiWatch *w, AvahiWatchEvent event)
{
    applyEvents(w, event);
}

AvahiWatchEvent watchGetEvents(AvahiWatch *w)
{
    return w->happened;
}

void watchFree(AvahiWatch *w)
{
    // May run inside the watch's own callback: the notifiers go later, the record now.
    for (QSocketNotifier *n : {w->read, w->write}) {
        n->setEnabled(false);
        QObject::disconnect(n, nullptr, nullptr, nullptr);
        n->deleteLater();
    }
    delete w;
}

void arm(AvahiTimeout *t, const struct timeval *tv)
{
    t->timer->stop();
    if (!tv)
        return;
    // avahi_age is the time since tv in microseconds; a time in the past fires at once.
    const AvahiUsec left = -avahi_age(tv);
    t->timer->start(int(std::clamp<AvahiUsec>((left + 999) / 1000, 0, 24LL * 3600 * 1000)));
}

AvahiTimeout *timeoutNew(const AvahiPoll *, const struct timeval *tv, AvahiTimeoutCallback callback, void *userdata)
{
    auto *t = new AvahiTimeout;
    t->callback = callback;
    t->userdata = userdata;
    t->timer = new QTimer;
    t->timer->setSingleShot(true);
    QObject::connect(t->timer, &QTimer::timeout, t->timer, [t] { t->callback(t, t->userdata); });
    arm(t, tv);
    return t;
}

void timeoutUpdate(AvahiTimeout *t, const struct timeval *tv)
{
    arm(t, tv);
}

void timeoutFree(AvahiTimeout *t)
{
    t->timer->stop();
    QObject::disconnect(t->timer, nullptr, nullptr, nullptr);
    t->timer->deleteLater();
    delete t;
}

} // namespace

AvahiQtPoll::AvahiQtPoll()
    : m_poll(new AvahiPoll)
{
    m_poll->userdata = this;
    m_poll->watch_new = watchNew;
    m_poll->watch_update = watchUpdate;
    m_poll->watch_get_events = watchGetEvents;
    m_poll->watch_free = watchFree;
    m_poll->timeout_new = timeoutNew;
    m_poll->timeout_update = timeoutUpdate;
    m_poll->timeout_free = timeoutFree;
}

AvahiQtPoll::~AvahiQtPoll()
{
    delete m_poll;
}

const AvahiPoll *AvahiQtPoll::poll() const
{
    return m_poll;
}
