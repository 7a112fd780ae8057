#include "PulseFixture.h"

#include <QDataStream>
#include <QFile>
#include <QProcess>

namespace PulseFixture {

bool available()
{
    return qEnvironmentVariableIntValue("BRAVA_TEST_PULSE") == 1;
}

bool writeWav(const QString &path, const QVector<float> &samples)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QDataStream out(&f);
    out.setByteOrder(QDataStream::LittleEndian);
    const quint32 data = quint32(samples.size() * 4);
    out.writeRawData("RIFF", 4);
    out << quint32(36 + data);
    out.writeRawData("WAVEfmt ", 8);
    out << quint32(16) << quint16(3) << quint16(1) << quint32(48000) << quint32(48000 * 4) << quint16(4) << quint16(32);
    out.writeRawData("data", 4);
    out << data;
    out.setFloatingPointPrecision(QDataStream::SinglePrecision);
    for (float s : samples)
        out << s;
    return out.status() == QDataStream::Ok;
}

bool play(const QString &sink, const QString &wavPath)
{
    QProcess p;
    p.start(QStringLiteral("paplay"), {QStringLiteral("-d"), sink, wavPath});
    return p.waitForFinished(30000) && p.exitCode() == 0;
}

qint64 playDetached(const QString &sink, const QString &wavPath)
{
    qint64 pid = 0;
    QProcess::startDetached(QStringLiteral("paplay"), {QStringLiteral("-d"), sink, wavPath}, QString(), &pid);
    return pid;
}

} // namespace PulseFixture
