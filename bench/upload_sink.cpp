// A loopback HTTP server that reads request bodies and throws them away, answering 200 (with the
// first argument as the answer's body, when given). Prints its port on the first line of its
// output. Used by the upload and sale benchmarks as the control room.
#include "HttpStub.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    HttpStub sink;
    sink.keepBodyBytes = 0;
    if (argc > 1)
        sink.setDefault(HttpStub::status(200, QByteArray(argv[1])));
    if (!sink.listen())
        return 1;
    QObject::connect(&sink, &HttpStub::requestReceived, &sink, [&sink] { sink.requests.clear(); });
    QTextStream(stdout) << sink.port() << Qt::endl;
    return app.exec();
}
