#include "SaleBook.h"

#include "Protocol.h"

#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <algorithm>

namespace {
QString L(const char *word)
{
    return QLatin1String(word);
}
} // namespace

bool SaleBook::recordOk(const QJsonObject &r)
{
    using namespace Protocol::Sale;
    const double agent = r.value(L(id)).toDouble(0);
    const QString m = r.value(L(method)).toString(), ref = r.value(L(referral)).toString(), who = r.value(L(lead)).toString();
    const double value = r.value(L(apv)).toDouble(-1);
    return agent >= 1 && agent <= 110 && agent == int(agent) && (m == QLatin1String("phone") || m == QLatin1String("computer"))
           && (ref == QLatin1String("yes") || ref == QLatin1String("no")) && !who.trimmed().isEmpty() && who.size() <= 200
           && value >= 0 && value <= 1e9;
}

SaleBook::SaleBook(const QDir &uploads)
    : m_uploads(uploads)
{
}

std::optional<QString> SaleBook::add(const QJsonObject &r, QString *why)
{
    using namespace Protocol::Sale;
    if (!recordOk(r)) {
        *why = QStringLiteral("a sale has id 1 to 110, method phone or computer, a lead, an apv and referral yes or no");
        return std::nullopt;
    }
    const int agent = r.value(L(id)).toInt();
    const QString m = r.value(L(method)).toString(), ref = r.value(L(referral)).toString(), who = r.value(L(lead)).toString();
    const double value = r.value(L(apv)).toDouble();
    const QString token = QStringLiteral("%1-%2").arg(++m_count, 4, 10, QLatin1Char('0')).arg(QRandomGenerator::system()->generate64(), 16, 16, QLatin1Char('0'));
    QJsonObject sale{{L(Protocol::Sale::token), token}, {L(id), agent}, {L(method), m}, {L(lead), who.trimmed()},
                     {L(apv), value}, {L(referral), ref},
                     {QStringLiteral("time"), QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)}};
    const QString folder = QStringLiteral("sales/") + token;
    QFile file(m_uploads.filePath(folder + QStringLiteral("/sale.json")));
    if (!m_uploads.mkpath(folder) || !file.open(QIODevice::WriteOnly)
        || file.write(QJsonDocument(sale).toJson()) <= 0) {
        *why = QStringLiteral("cannot store the sale: ") + file.errorString();
        return std::nullopt;
    }
    sale.insert(QStringLiteral("files"), QJsonArray{QString(folder + QStringLiteral("/sale.json"))});
    m_sales[token] = sale;
    m_order.append(token);
    return token;
}

std::optional<QString> SaleBook::filePlace(const QString &token, const QString &kind, const QString &ext, QString *why) const
{
    using namespace Protocol::SaleFileQuery;
    static const QRegularExpression extOk(QStringLiteral("^[a-z0-9]{1,8}$"));
    if (!m_sales.count(token))
        *why = QStringLiteral("unknown sale");
    else if (kind != L(confirm) && kind != L(call))
        *why = QStringLiteral("kind is confirm or call");
    else if (!extOk.match(ext).hasMatch())
        *why = QStringLiteral("ext is 1 to 8 lower-case letters or digits");
    else
        return QStringLiteral("sales/%1/%2.%3").arg(token, kind, ext);
    return std::nullopt;
}

void SaleBook::fileStored(const QString &token, const QString &path)
{
    auto it = m_sales.find(token);
    if (it == m_sales.end())
        return;
    QJsonArray files = it->second.value(QStringLiteral("files")).toArray();
    if (!files.contains(path))
        files.append(path);
    it->second.insert(QStringLiteral("files"), files);
}

int SaleBook::agentOf(const QString &token) const
{
    const auto it = m_sales.find(token);
    return it == m_sales.end() ? 0 : it->second.value(L(Protocol::Sale::id)).toInt();
}

QJsonObject SaleBook::sale(const QString &token) const
{
    const auto it = m_sales.find(token);
    return it == m_sales.end() ? QJsonObject() : it->second;
}

QJsonArray SaleBook::json() const
{
    QJsonArray out;
    for (const QString &token : m_order)
        out.append(m_sales.at(token));
    return out;
}

void SaleBook::learnStored(QStringList &skipped)
{
    static const QRegularExpression folderOk(QStringLiteral("^([0-9]{4,9})-[0-9a-f]{16}$"));
    const QDir sales(m_uploads.filePath(QStringLiteral("sales")));
    std::vector<std::pair<QString, QJsonObject>> found; // by the time it was made
    for (const QFileInfo &entry : sales.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name)) {
        const QString token = entry.fileName(), rel = QStringLiteral("sales/") + token;
        const auto number = folderOk.match(token);
        if (entry.isSymLink() || !entry.isDir() || !number.hasMatch()) {
            skipped.append(rel + QStringLiteral(": not a sale folder the room makes"));
            continue;
        }
        m_count = std::max(m_count, number.captured(1).toInt()); // even a spoilt one keeps its number
        QFile file(entry.filePath() + QStringLiteral("/sale.json"));
        QJsonParseError error{};
        const QJsonObject r = QFileInfo(file).isSymLink() || !file.open(QIODevice::ReadOnly)
                                  ? QJsonObject()
                                  : QJsonDocument::fromJson(file.read(64 << 10), &error).object();
        if (error.error != QJsonParseError::NoError || r.value(L(Protocol::Sale::token)).toString() != token || !recordOk(r)) {
            skipped.append(rel + QStringLiteral("/sale.json: not a sale record"));
            continue;
        }
        found.emplace_back(r.value(QStringLiteral("time")).toString() + token, r);
    }
    std::sort(found.begin(), found.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    for (auto &[_, r] : found) {
        const QString token = r.value(L(Protocol::Sale::token)).toString(), rel = QStringLiteral("sales/") + token;
        r.insert(QStringLiteral("files"), QJsonArray{QString(rel + QStringLiteral("/sale.json"))});
        m_sales[token] = r;
        m_order.append(token);
        for (const QFileInfo &entry : QDir(sales.filePath(token)).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name)) {
            const QString name = entry.fileName(), path = rel + QLatin1Char('/') + name;
            const qsizetype dot = name.indexOf(QLatin1Char('.'));
            QString why;
            if (name == QLatin1String("sale.json") || (name.startsWith(QLatin1Char('.')) && name.contains(QLatin1String(".part-"))))
                continue; // the record, and a partial upload (the scan of the pieces removes leftovers)
            if (!entry.isSymLink() && entry.isFile() && filePlace(token, name.left(dot), name.mid(dot + 1), &why) == path)
                fileStored(token, path);
            else
                skipped.append(path + QStringLiteral(": not a file of a sale"));
        }
    }
}
