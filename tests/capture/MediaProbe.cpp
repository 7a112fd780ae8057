#include "MediaProbe.h"

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
    p.start(tool, QStringList{"-v", "error"} + args);
    return p.waitForFinished(120000) && p.exitCode() == 0 ? p.readAllStandardOutput() : QByteArray();
}

QJsonObject probe(const QStringList &args) { return QJsonDocument::fromJson(run("ffprobe", args + QStringList{"-of", "json"})).object(); }

QJsonObject firstStream(const QString &path, const QString &which, const QString &fields)
{
    const QStringList count = which == "v:0" ? QStringList{"-count_frames"} : QStringList{};
    const QJsonObject doc = probe(count + QStringList{"-select_streams", which, "-show_entries", "stream=" + fields + ":format=duration", path});
    QJsonObject out = doc["streams"].toArray().first().toObject();
    if (!out.isEmpty())
        out.insert("format_duration", doc["format"]["duration"]);
    return out;
}
} // namespace

QJsonObject stream(const QString &path) { return firstStream(path, "a:0", "codec_name,sample_rate,channels,bit_rate"); }

QJsonObject video(const QString &path) { return firstStream(path, "v:0", "codec_name,width,height,pix_fmt,bit_rate,nb_read_frames,start_time"); }

double number(const QJsonObject &o, const char *key)
{
    const QJsonValue v = o.value(QLatin1String(key));
    return v.isString() ? v.toString().toDouble() : v.toDouble();
}

double firstBrightFrame(const QString &path)
{
    const QJsonObject doc = probe({"-f", "lavfi", "-i", "movie=" + QString(path).replace(',', "\\,") + ",signalstats",
                                   "-show_entries", "frame=pts_time:frame_tags=lavfi.signalstats.YAVG"});
    for (const QJsonValue &v : doc["frames"].toArray())
        if (v["tags"]["lavfi.signalstats.YAVG"].toString().toDouble() > 200)
            return v["pts_time"].toString().toDouble();
    return -1;
}

QVector<float> decode(const QString &path)
{
    // Keep the file's own time stamps and present what a player presents: from time 0 (the
    // encoder's priming carries negative times) to the end the file declares.
    const QJsonObject f = probe({"-show_entries", "format=start_time,duration", path})["format"].toObject();
    const double end = number(f, "start_time") + number(f, "duration");
    const QString trim = "atrim=start=0" + (end > 0 ? ":end=" + QString::number(end, 'f', 6) : QString());
    const QByteArray raw = run("ffmpeg", {"-copyts", "-i", path, "-af", trim, "-ac", "1", "-ar", "48000", "-f", "f32le", "-"});
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
