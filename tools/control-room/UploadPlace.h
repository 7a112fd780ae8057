#pragma once

#include <QString>
#include <QUrlQuery>

#include <optional>

// Where one upload is stored, built only from checked query values: agent<N>/<session>/ and
// <track>_<take>_<index>[_final].<ext>. Nothing that could leave the uploads folder gets through.
struct UploadPlace
{
    int agent = 0;
    QString session;
    QString folder; ///< "agent<N>/<session>"
    QString file;   ///< the file name within folder
    qint64 take = 0; ///< the take's number (its start in milliseconds since the epoch)
    int index = 0;   ///< the piece's number within the take

    /// The place named by an upload's query, or nothing with the reason in `why`.
    static std::optional<UploadPlace> fromQuery(const QUrlQuery &query, QString *why);
    /// The place of a stored piece by its path under the uploads folder, when fromQuery would name it so.
    static std::optional<UploadPlace> fromPath(const QString &path);
    /// A session word this room starts and stores: 1 to 64 of letters, digits, "_.+-%", not starting with ".".
    static bool sessionOk(const QString &session);
    /// An agent number: 1 to 110.
    static std::optional<int> agentNumber(const QString &text);
};
