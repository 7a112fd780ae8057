#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

// The sale form's rules without its widgets: which files it takes, the checks a sale must pass
// before it is sent (each with the message the agent reads), the annual premium value read from
// what was typed, and the sale record sent to the control room. Pure.
namespace SaleFormModel {

/// Longest lead name sent, in characters.
constexpr int kMaxLeadLength = 200;
/// Longest APV text read, in characters.
constexpr int kMaxApvLength = 32;
/// Largest APV accepted, in dollars.
constexpr qint64 kMaxApv = 1000000000;

/// What the agent entered.
struct Entry {
    int agentID = 0;
    bool phone = true; ///< how the call was placed: phone (else computer)
    QString lead;
    QString apv;
    bool referral = false;
    bool hasConfirm = false; ///< a confirmation file or snapshot
    bool hasCall = false;    ///< a call recording
};

/// File types taken as a confirmation and as a call recording (lower case, without dot).
QStringList confirmTypes();
QStringList callTypes();

/// The lead name as sent: trimmed of blanks and line ends.
QString lead(const QString &typed);
/// The APV as sent: only the digits and dots of the text, read as a decimal number and rounded to
/// the nearest whole number; nothing when that fails, is not above 0, is out of range or the text
/// holds other letters than a dollar sign, thousands commas and blanks.
std::optional<qint64> apv(const QString &typed);
/// The message of the first check the entry fails, "" when it passes.
QString check(const Entry &e);
/// The sale record: JSON object with "id", "method", "lead", "apv" and "referral", in that order.
/// Only for an entry that passes check().
QByteArray record(const Entry &e);

} // namespace SaleFormModel
