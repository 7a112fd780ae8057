// A loopback HTTP server that reads request bodies and throws them away, answering 200. Prints
// its port on the first line of its output. Used by the upload benchmark as the control room.
#include "HttpStub.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    HttpStub sink;
    sink.keepBodyBytes = 0;
    if (!sink.listen())
        return 1;
    QObject::connect(&sink, &HttpStub::requestReceived, &sink, [&sink] { sink.requests.clear(); });
    QTextStream(stdout) << sink.port() << Qt::endl;
    return app.exec();
}
