#pragma once

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QString>

#include <optional>

class BuildInfo;
class QNetworkAccessManager;
class QNetworkReply;

// The event's mentors by seat number, so a whisper that carries only a seat can show who sent
// it. Fetched from the event web service at launch and whenever an unknown seat whispers; kept in
// memory only. Main thread only.
class MentorRoster : public QObject
{
    Q_OBJECT
public:
    /// Why the last download left the roster as it was.
    enum class Fault { None, NoAnswer, NotAnObject, TooLarge };
    /// Longest name kept, in characters (a longer one is cut after its last whole character).
    static constexpr qsizetype kMaxNameLength = 80;
    /// Largest answer read, in bytes; a larger one is cut off and leaves the roster as it was.
    static constexpr qint64 kMaxAnswerBytes = 64 * 1024;

    /// A roster fetched over `net` from this build's event web service.
    MentorRoster(QNetworkAccessManager &net, const BuildInfo &build, QObject *parent = nullptr);

    /// Starts one download of the roster unless one is in flight; returns at once.
    void fetch();
    /// The name stored for a seat, "" when unknown.
    QString name(int seat) const;
    /// The whole roster.
    QMap<int, QString> map() const { return m_map; }
    /// Whether a download is in flight.
    bool fetching() const { return m_fetching; }
    /// The kind of the last fault; None after a success.
    Fault fault() const { return m_fault; }
    /// Why the last download left the roster as it was; "" after a success.
    QString lastError() const { return m_lastError; }

    /// Reads an answer: members with a decimal integer key and a string value (cut to
    /// kMaxNameLength); nothing when the answer is not a JSON object.
    static std::optional<QMap<int, QString>> parse(const QByteArray &data);

private:
    void finished(QNetworkReply *reply);

    QNetworkAccessManager &m_net;
    const BuildInfo &m_build;
    QMap<int, QString> m_map;
    bool m_fetching = false;
    bool m_tooLarge = false; // the answer in flight passed kMaxAnswerBytes
    Fault m_fault = Fault::None;
    QString m_lastError;
};
