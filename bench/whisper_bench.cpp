// bench_whisper: the agent's memory, all its processes together (the agent and the browser
// engine's helper processes), idle, with a whisper card up, and a minute after the card went.
//
//   QTWEBENGINE_DISABLE_SANDBOX=1 xvfb-run -a build/bench_whisper
//
// Prints the proportional set size (PSS: shared pages split between the processes that share
// them) and the resident set size (RSS) summed over the process tree, in MB.
#include "AgentFixture.h"
#include "SyntheticAudioBackend.h"
#include "WhisperCard.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <cstdio>

namespace {

struct Memory {
    double pssMB = 0, rssMB = 0;
    int processes = 0;
};

qint64 field(const QByteArray &rollup, const char *name)
{
    for (const QByteArray &line : rollup.split('\n'))
        if (line.startsWith(name))
            return line.mid(qstrlen(name)).trimmed().split(' ').value(0).toLongLong();
    return 0;
}

// This process and every process below it.
Memory treeMemory()
{
    QMap<qint64, qint64> parentOf;
    for (const QString &pid : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        QFile stat(QStringLiteral("/proc/") + pid + QStringLiteral("/stat"));
        if (pid.toLongLong() > 0 && stat.open(QIODevice::ReadOnly)) {
            const QByteArray s = stat.readAll();
            parentOf[pid.toLongLong()] = s.mid(s.lastIndexOf(')') + 2).split(' ').value(1).toLongLong();
        }
    }
    QList<qint64> tree{QCoreApplication::applicationPid()};
    for (int i = 0; i < tree.size(); ++i)
        for (auto it = parentOf.cbegin(); it != parentOf.cend(); ++it)
            if (it.value() == tree[i])
                tree.append(it.key());
    Memory m;
    for (qint64 pid : tree) {
        QFile rollup(QStringLiteral("/proc/%1/smaps_rollup").arg(pid));
        if (!rollup.open(QIODevice::ReadOnly))
            continue;
        const QByteArray r = rollup.readAll();
        m.pssMB += field(r, "Pss:") / 1024.0;
        m.rssMB += field(r, "Rss:") / 1024.0;
        ++m.processes;
    }
    return m;
}

void print(const char *when, const Memory &m)
{
    std::printf("%-34s PSS %7.1f MB   RSS %7.1f MB   processes %d\n", when, m.pssMB, m.rssMB, m.processes);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    TestHome home;
    SyntheticAudioBackend audio;
    AgentFixture agent(home, &audio);
    WhisperCard &card = agent.app->whisper();
    QTest::qWait(3000);
    print("idle", treeMemory());

    QSignalSpy placed(&card, &WhisperCard::placed);
    agent.room.send({{QStringLiteral("type"), QStringLiteral("whisper")}, {QStringLiteral("text"), QStringLiteral("Ask about the warranty")}, {QStringLiteral("seat"), 3}});
    if (!placed.wait(30000))
        return 1;
    QTest::qWait(2000);
    print("card shown", treeMemory());

    QSignalSpy released(&card, &WhisperCard::released);
    if (!released.wait(card.hideMs + card.releaseMs + 10000))
        return 1;
    QTest::qWait(5000); // the engine's helper processes end
    print("a minute after the card (released)", treeMemory());
    return 0;
}
