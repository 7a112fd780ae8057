#pragma once

#include <QObject>
#include <QString>

#include <functional>

class QSocketNotifier;

// Ends the application's event loop on SIGTERM, SIGINT and SIGHUP as the menu's Quit does, so
// that after a logout, a service manager's stop or Ctrl-C the segments being written are closed
// whole and the log says so. The handler only writes the signal's number to a socket; the event
// loop reads it. Children started later get the default handlers back when they execute. The
// control room tool uses it too, with its own words.
class QuitSignals : public QObject
{
    Q_OBJECT
public:
    /// Installs the handlers (one object at a time); `said` tells of the signal ("SIGTERM" …)
    /// before the loop ends, in the agent's log unless given.
    explicit QuitSignals(std::function<void(const QString &signal)> said = {}, QObject *parent = nullptr);
    /// Puts the default handlers back.
    ~QuitSignals() override;

private:
    void readSignal();

    std::function<void(const QString &)> m_said;
    int m_fds[2] = {-1, -1};
    QSocketNotifier *m_notifier = nullptr;
};
