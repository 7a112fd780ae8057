#pragma once

#include <QDir>
#include <QJsonArray>
#include <QJsonObject>

#include <map>
#include <optional>

// The sales agents submitted: each record gets a token <number>-<16 hex digits> and a folder
// sales/<token>/ under the uploads folder holding "sale.json" and the sale's files
// ("confirm.<ext>", "call.<ext>").
class SaleBook
{
public:
    /// Keeps sales under uploads/sales.
    explicit SaleBook(const QDir &uploads);
    /// Checks and stores one sale record; its token, or nothing with the reason in `why`.
    std::optional<QString> add(const QJsonObject &record, QString *why);
    /// The path under the uploads folder for a file of a known sale, or nothing with the reason.
    std::optional<QString> filePlace(const QString &token, const QString &kind, const QString &ext, QString *why) const;
    /// Notes a stored file of a sale.
    void fileStored(const QString &token, const QString &path);
    /// The agent number of a known sale (0 when unknown).
    int agentOf(const QString &token) const;
    /// The stored record of a known sale (empty when unknown).
    QJsonObject sale(const QString &token) const;
    /// Every sale with its files, oldest first.
    QJsonArray json() const;
    /// Takes back the sales an earlier run stored, oldest first, so that numbering goes on after
    /// them; a line per entry skipped (not a sale folder, not a sale record, a link) in `skipped`.
    void learnStored(QStringList &skipped);

private:
    static bool recordOk(const QJsonObject &record);

    QDir m_uploads;
    std::map<QString, QJsonObject> m_sales;
    QStringList m_order;
    int m_count = 0;
};
