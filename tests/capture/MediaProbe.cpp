#include "MediaProbe.h"
#include "TestLiterals.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>

#include <cmath>
#include <cstring>

namespace MediaProbe {

namespace {
QByteArray run(const QString &tool, const QStringList &args)
{
    QProcess p;
    p.start(tool, QStringList{QStringLiteral("-v"), QStringLiteral("error")} + args);
    return p.waitForFinished(120000) && p.exitCode() == 0 ? p.readAllStandardOutput() : QByteArray();
}

QJsonObject probe(const QStringList &args) { return QJsonDocument::fromJson(run(QStringLiteral("ffprobe"), args + QStringList{QStringLiteral("-of"), QStringLiteral("json")})).object(); }

QJsonObject firstStream(const QString &path, const QString &which, const QString &fields)
{
    const QStringList count = which == QLatin1String("v:0") ? QStringList{QStringLiteral("-count_frames")} : QStringList{};
    const QJsonObject doc = probe(count + QStringList{QStringLiteral("-select_streams"), which, QStringLiteral("-show_entries"), QLatin1String("stream=") + fields + QLatin1String(":format=duration"), path});
    QJsonObject out = doc[QLatin1String("streams")].toArray().first().toObject();
    if (!out.isEmpty())
        out.insert(QLatin1String("format_duration"), doc[QLatin1String("format")][QLatin1String("duration")]);
    return out;
}
} // namespace

QJsonObject stream(const QString &path) { return firstStream(path, QStringLiteral("a:0"), QStringLiteral("codec_name,sample_rate,channels,bit_rate")); }

QJsonObject video(const QString &path) { return firstStream(path, QStringLiteral("v:0"), QStringLiteral("codec_name,width,height,pix_fmt,bit_rate,nb_read_frames,start_time")); }

double number(const QJsonObject &o, const char *key)
{
    const QJsonValue v = o.value(QLatin1String(key));
    return v.isString() ? v.toString().toDouble() : v.toDouble();
}

double firstBrightFrame(const QString &path)
{
    const QJsonObject doc = probe({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"), QLatin1String("movie=") + QString(path).replace(QLatin1Char(','), QLatin1String("\\,")) + QLatin1String(",signalstats"),
                                   QStringLiteral("-show_entries"), QStringLiteral("frame=pts_time:frame_tags=lavfi.signalstats.YAVG")});
    for (const QJsonValue &v : doc[QLatin1String("frames")].toArray())
        if (v[QLatin1String("tags")][QLatin1String("lavfi.signalstats.YAVG")].toString().toDouble() > 200)
            return v[QLatin1String("pts_time")].toString().toDouble();
    return -1;
}

QVector<float> decode(const QString &path)
{
    // Keep the file's own time stamps and present what a player presents: from time 0 (the
    // encoder's priming carries negative times) to the end the file declares.
    const QJsonObject f = probe({QStringLiteral("-show_entries"), QStringLiteral("format=start_time,duration"), path})[QLatin1String("format")].toObject();
    const double end = number(f, "start_time") + number(f, "duration");
    const QString trim = QLatin1String("atrim=start=0") + (end > 0 ? QLatin1String(":end=") + QString::number(end, 'f', 6) : QString());
    const QByteArray raw = run(QStringLiteral("ffmpeg"), QStringList{QStringLiteral("-copyts"), QStringLiteral("-i"), path, QStringLiteral("-af"), trim}
                                                    + strings({"-ac", "1", "-ar", "48000", "-f", "f32le", "-"}));
    QVector<float> out(raw.size() / qsizetype(sizeof(float)));
    std::memcpy(out.data(), raw.constData(), size_t(out.size()) * sizeof(float));
    return out;
}

qsizetype firstAbove(const QVector<float> &samples, float threshold, qsizetype from)
{
    for (qsizetype i = std::max<qsizetype>(from, 0); i < samples.size(); ++i)
        if (std::fabs(samples[i]) >= threshold)
            return i;
    return -1;
}

} // namespace MediaProbe
