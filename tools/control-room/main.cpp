// brava-control-room: a control room for an event, on one port, with the operator's page.
//
//   brava-control-room [--port P] [--uploads DIR] [--name NAME] [--listen ADDRESS]
//
// Prints the page's address with its operator token on one line starting with "http://", then
// takes commands on standard input (see --help).
#include "CommandWords.h"
#include "QuitSignals.h"
#include "ControlRoomServer.h"
#include "RoomAnnouncer.h"
#include "StoredScan.h"
#include "StrictInt.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QHostInfo>
#include <QJsonDocument>
#include <QNetworkInterface>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSocketNotifier>
#include <QTextStream>

#include <utility>

#include <unistd.h>

namespace {
// An address the event's network reaches this computer at; loopback when there is none.
QString reachableHost()
{
    for (const QNetworkInterface &i : QNetworkInterface::allInterfaces()) {
        if (!(i.flags() & QNetworkInterface::IsUp) || (i.flags() & QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry &e : i.addressEntries())
            if (e.ip().protocol() == QAbstractSocket::IPv4Protocol)
                return e.ip().toString();
    }
    return QStringLiteral("127.0.0.1");
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    app.setApplicationVersion(QStringLiteral(BRAVA_ROOM_VERSION));
    QCommandLineParser options;
    options.setApplicationDescription(QStringLiteral("A control room for Brava Recorder agents: their links, uploads, events and "
                                                     "sales on one port, and the operator's page in a browser.\n\n")
                                      + CommandWords::usage());
    options.addHelpOption();
    options.addVersionOption();
    const QCommandLineOption portOption(QStringLiteral("port"), QStringLiteral("Port to listen on (default 8080; 0 picks one)."), QStringLiteral("port"),
                                        QStringLiteral("8080"));
    const QCommandLineOption uploadsOption(QStringLiteral("uploads"), QStringLiteral("Folder for uploads and sales (default ./uploads)."),
                                           QStringLiteral("folder"), QStringLiteral("uploads"));
    const QCommandLineOption nameOption(QStringLiteral("name"), QStringLiteral("Name announced to agents' setup (default: Control room on <host>)."),
                                        QStringLiteral("name"));
    const QCommandLineOption listenOption(QStringLiteral("listen"),
                                          QStringLiteral("Address to listen on (default: every IPv4 address). A loopback address keeps the room on "
                                                         "this computer: it is not announced."),
                                          QStringLiteral("address"));
    options.addOptions({portOption, uploadsOption, nameOption, listenOption});
    options.addPositionalArgument(QStringLiteral("[port [uploads]]"), QStringLiteral("The same as --port and --uploads."));
    options.process(app);

    QTextStream out(stdout);
    const QStringList rest = options.positionalArguments();
    const QString portText = rest.value(0, options.value(portOption));
    const std::optional<int> port = parseStrictInt(portText, 0, 65535);
    if (!port || rest.size() > 2) {
        QTextStream(stderr) << "not a port: " << portText << " (see --help)" << Qt::endl;
        return 2;
    }
    QHostAddress address(QHostAddress::AnyIPv4);
    if (options.isSet(listenOption) && !address.setAddress(options.value(listenOption))) {
        QTextStream(stderr) << "not an address: " << options.value(listenOption) << " (see --help)" << Qt::endl;
        return 2;
    }
    const QDir uploads(rest.value(1, options.value(uploadsOption)));
    const QString name = options.isSet(nameOption) ? options.value(nameOption).left(63) : QStringLiteral("Control room on ") + QHostInfo::localHostName();

    // The operator token of the last run on this folder, so that open pages and scripts keep working
    // over a restart; removing the file makes a new one.
    QString keptToken;
    if (QFile kept(uploads.filePath(QLatin1String(kTokenFile))); kept.open(QIODevice::ReadOnly))
        keptToken = QString::fromLatin1(kept.read(64)).trimmed();
    static const QRegularExpression tokenShape(QStringLiteral("^[0-9a-f]{32}$"));
    if (!tokenShape.match(keptToken).hasMatch())
        keptToken.clear();
    ControlRoomServer room(uploads, nullptr, keptToken);
    room.setName(name);
    const quint16 bound = room.listen(quint16(*port), address);
    if (!bound) // the room said why
        return 1;
    if (!QDir().mkpath(uploads.path())) { // only now: a room that cannot listen leaves no folder behind
        QTextStream(stderr) << "cannot make the uploads folder " << uploads.path() << Qt::endl;
        return 1;
    }
    out << "control room \"" << name << "\" on port " << bound << ", uploads in " << uploads.absolutePath() << Qt::endl;
    if (keptToken.isEmpty()) {
        QSaveFile tokenOut(uploads.filePath(QLatin1String(kTokenFile)));
        if (!tokenOut.open(QIODevice::WriteOnly) || !tokenOut.setPermissions(QFile::ReadOwner | QFile::WriteOwner)
            || tokenOut.write(room.token().toLatin1() + '\n') < 0 || !tokenOut.commit())
            out << "warning: the operator token is not kept for a restart: " << tokenOut.errorString() << Qt::endl;
    }
    QString host = address.toString();
    if (address == QHostAddress(QHostAddress::AnyIPv4))
        host = reachableHost();
    else if (address.protocol() == QAbstractSocket::IPv6Protocol)
        host = QLatin1Char('[') + host + QLatin1Char(']');
    out << "http://" << host << ':' << bound << "/?token=" << room.token() << Qt::endl;
    RoomAnnouncer announcer;
    announcer.onReport = [&app, &out](const QString &line) {
        QMetaObject::invokeMethod(&app, [&out, line] { out << line << Qt::endl; }, Qt::QueuedConnection);
    };
    QString why;
    if (address.isLoopback())
        out << "not announced: listening on " << address.toString() << " only" << Qt::endl;
    else if (!announcer.announce(name, bound, &why))
        out << "not announced (" << why << "): agents type this computer's address in their setup" << Qt::endl;
    out << "type \"help\" for the commands" << Qt::endl;

    const auto run = [&](const QString &line) {
        QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (words.isEmpty())
            return;
        int target = 0;
        if (words.first().startsWith(QLatin1Char('@'))) {
            const auto n = parseStrictInt(words.takeFirst().mid(1), 1, 110);
            if (!n) {
                out << "refused: @N names an agent number 1 to 110" << Qt::endl;
                return;
            }
            target = *n;
        }
        const QString cmd = words.value(0);
        if (cmd == QLatin1String("quit"))
            return QCoreApplication::quit();
        if (cmd == QLatin1String("list"))
            return room.list();
        if (cmd == QLatin1String("help")) {
            out << CommandWords::usage() << Qt::flush;
            return;
        }
        QString reason;
        if (cmd == QLatin1String("json")) {
            const auto json = CommandWords::json(line.mid(line.indexOf(QLatin1String("json")) + 4), &reason);
            if (const int sent = json ? room.send(target, *json) : 0; json)
                out << "sent to " << sent << " agent(s)" << (sent == 0 ? "; warning: no agent connected to take it" : "") << Qt::endl;
            else
                out << "refused: " << reason << Qt::endl;
            return;
        }
        const auto command = CommandWords::fromWords(words, &reason);
        out << (command ? room.command(target, *command) : QStringLiteral("refused: ") + reason) << Qt::endl;
    };
    // Standard input is read in whatever pieces arrive and cut into lines here: several lines
    // can come in one piece, and the notifier only speaks again when more arrives.
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray pending;
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&] {
        char chunk[4096];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n <= 0) {
            input.setEnabled(false); // end of input: keep serving
            out << "standard input closed: commands typed here are no longer read (the page still steers the room)" << Qt::endl;
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
    // A stop (a service manager, Ctrl-C, a closed terminal) goes down as "quit" does, and says so.
    const QuitSignals quitSignals([&out](const QString &signal) { out << "stopped by " << signal << ": the control room goes down" << Qt::endl; });
    const int code = app.exec();
    out << "control room stopped" << Qt::endl;
    return code;
}
