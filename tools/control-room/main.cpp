// brava-control-room: a small control room for trying the agent out.
//
//   brava-control-room [port] [uploads-folder]
//
// Commands on standard input, each to every agent or, with a leading "@N", to agent N:
//   start <session> | stop | listen on|off | cameras on|off | preview on|off [hd] | quality low|med|full
//   whisper <seat> <text> | release | json {...} | list | quit
#include "ControlRoomServer.h"
#include "StrictInt.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>
#include <QTextStream>

#include <utility>

#include <unistd.h>

namespace {
QJsonObject parse(const QStringList &w)
{
    const QString cmd = w.value(0);
    const bool on = w.value(1) == QLatin1String("on");
    if (cmd == QLatin1String("start"))
        return {{QStringLiteral("type"), QStringLiteral("start")}, {QStringLiteral("session"), w.value(1)}};
    if (cmd == QLatin1String("stop") || cmd == QLatin1String("release"))
        return {{QStringLiteral("type"), cmd}};
    if (cmd == QLatin1String("listen") || cmd == QLatin1String("cameras"))
        return {{QStringLiteral("type"), cmd}, {QStringLiteral("on"), on}};
    if (cmd == QLatin1String("preview"))
        return {{QStringLiteral("type"), QStringLiteral("preview")}, {QStringLiteral("on"), on}, {QStringLiteral("hd"), w.value(2) == QLatin1String("hd")}};
    if (cmd == QLatin1String("quality"))
        return {{QStringLiteral("type"), QStringLiteral("quality")}, {QStringLiteral("q"), w.value(1)}};
    if (cmd == QLatin1String("whisper"))
        return {{QStringLiteral("type"), QStringLiteral("whisper")}, {QStringLiteral("seat"), parseStrictInt(w.value(1), 0, 9999).value_or(0)}, {QStringLiteral("text"), w.mid(2).join(QLatin1Char(' '))}};
    return {};
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const std::optional<int> port = parseStrictInt(args.value(1, QStringLiteral("8080")), 0, 65535);
    if (!port) {
        QTextStream(stderr) << "not a port: " << args.value(1) << Qt::endl;
        return 2;
    }
    const QDir uploads(args.value(2, QStringLiteral("uploads")));
    QDir().mkpath(uploads.path());

    ControlRoomServer room(uploads);
    const quint16 bound = room.listen(quint16(*port));
    QTextStream out(stdout);
    if (!bound) {
        QTextStream(stderr) << "cannot listen on port " << *port << Qt::endl;
        return 1;
    }
    out << "control room on port " << bound << ", uploads in " << uploads.absolutePath() << Qt::endl;

    // Standard input is read in whatever pieces arrive and cut into lines here: several lines
    // can come in one piece, and the notifier only speaks again when more arrives.
    const auto run = [&](const QString &line) {
        QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (words.isEmpty())
            return;
        int target = 0;
        if (words.first().startsWith(QLatin1Char('@')))
            target = parseStrictInt(words.takeFirst().mid(1), 0, 9999).value_or(-1);
        if (words.value(0) == QLatin1String("quit"))
            return QCoreApplication::quit();
        if (words.value(0) == QLatin1String("list"))
            return room.list();
        QByteArray json;
        if (words.value(0) == QLatin1String("json"))
            json = line.mid(line.indexOf(QLatin1String("json")) + 4).trimmed().toUtf8();
        else if (const QJsonObject o = parse(words); !o.isEmpty())
            json = QJsonDocument(o).toJson(QJsonDocument::Compact);
        if (json.isEmpty()) {
            out << "unknown command" << Qt::endl;
            return;
        }
        out << "sent to " << room.send(target, json) << " agent(s)" << Qt::endl;
    };
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray pending;
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&] {
        char chunk[4096];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n <= 0) {
            input.setEnabled(false); // end of input: keep serving
            if (!pending.isEmpty())
                run(QString::fromUtf8(std::exchange(pending, {})));
            return;
        }
        pending.append(chunk, qsizetype(n));
        for (qsizetype end; (end = pending.indexOf('\n')) >= 0;) {
            const QString line = QString::fromUtf8(pending.left(end));
            pending.remove(0, end + 1);
            run(line);
        }
    });
    return app.exec();
}
