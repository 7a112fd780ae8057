#pragma once

#include <QJsonObject>
#include <QStringList>

#include <optional>

// The operator's commands as agents understand them: typed words ("start s1", "whisper 3 hi") or
// JSON from the page become one checked command; anything an agent would not understand is
// refused with a reason.
namespace CommandWords {
/// The command of one typed line's words (without a leading "@N"), or nothing with the reason.
std::optional<QJsonObject> fromWords(const QStringList &words, QString *why);
/// The command if it is one agents understand with arguments of the right kind and size.
std::optional<QJsonObject> checked(const QJsonObject &command, QString *why);
/// The compact text of a typed "json" line's object, or nothing with the reason.
std::optional<QByteArray> json(const QString &text, QString *why);
/// A checked command in words for the operator ("start s1", "whisper (seat 3): hi").
QString describe(const QJsonObject &command);
/// The usage text of the typed commands.
QString usage();
} // namespace CommandWords
