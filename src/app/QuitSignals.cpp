#include "QuitSignals.h"

#include "BravaLog.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The handler's only state: where it writes. Set while a QuitSignals object exists.
volatile sig_atomic_t g_writeFd = -1;
constexpr int kSignals[] = {SIGTERM, SIGINT, SIGHUP};

void onSignal(int number)
{
    const unsigned char byte = static_cast<unsigned char>(number);
    const ssize_t written = ::write(g_writeFd, &byte, 1); // async-signal-safe; a full socket drops it
    (void)written;
}

} // namespace

QuitSignals::QuitSignals(std::function<void(const QString &signal)> said, QObject *parent)
    : QObject(parent)
    , m_said(std::move(said))
{
    if (!m_said)
        m_said = [](const QString &signal) { bravaLog(QStringLiteral("stopped by ") + signal + QStringLiteral(": quitting as from the menu")); };
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, m_fds) != 0) {
        bravaLog(QStringLiteral("cannot watch for the signals that end the agent: ") + QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    g_writeFd = m_fds[0];
    m_notifier = new QSocketNotifier(m_fds[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &QuitSignals::readSignal);
    struct sigaction action{};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int s : kSignals)
        ::sigaction(s, &action, nullptr);
}

QuitSignals::~QuitSignals()
{
    if (m_fds[0] < 0)
        return;
    for (const int s : kSignals)
        std::signal(s, SIG_DFL);
    g_writeFd = -1;
    ::close(m_fds[0]);
    ::close(m_fds[1]);
}

void QuitSignals::readSignal()
{
    unsigned char byte = 0;
    int last = 0;
    while (::read(m_fds[1], &byte, 1) == 1)
        last = byte;
    if (last == 0)
        return;
    const char *name = ::sigabbrev_np(last);
    m_said(QStringLiteral("SIG") + QString::fromLatin1(name ? name : "?"));
    QCoreApplication::quit();
}
