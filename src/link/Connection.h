#pragma once

#include "LogOnce.h"
#include "Protocol.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QObject>

#include <atomic>
#include <functional>

class BuildInfo;
class OrderedJson;
class Settings;
class QTimer;
class QWebSocket;

// The agent's single WebSocket link to the control room: ws://<server>/agent?id&os&v&name.
// Hands every JSON object received to onCommand, sends status JSON and binary frames, and
// reconnects 2 s after a drop unless the control room said this agent number was replaced.
// State lives on the thread that owns the object (the main thread); sends from other threads are
// forwarded to it.
class Connection : public QObject
{
    Q_OBJECT
public:
    /// A link that identifies itself with the settings' agent and this build's version.
    Connection(const Settings &settings, const BuildInfo &build, QObject *parent = nullptr);
    ~Connection() override;

    /// (Re)opens the link with the identity in the settings; an agent without a number never connects.
    void open();
    /// Closes the link (code 1001) and stops any pending retry.
    void close();
    /// Sends one JSON text message while connected; dropped otherwise.
    void sendJSON(const OrderedJson &message);
    /// Sends one JSON text message while connected; dropped otherwise.
    void sendJSON(const QJsonObject &message);
    /// Sends one binary message while connected; dropped otherwise. Callable from any thread.
    void sendBinary(const QByteArray &data);
    /// Sends live PCM of one source (kMicSource or kComputerAudioSource) as a binary frame; any thread.
    void sendLiveAudio(quint8 source, const QByteArray &pcm);
    /// Sends one preview JPEG as a binary frame; any thread.
    void sendPreview(const QByteArray &jpeg);

    /// True between the open of the current socket and its drop.
    bool connected() const { return m_connected; }
    /// Why the link last failed to open (the socket's reason, without the address); "" once a link has opened.
    QString lastFailure() const { return m_lastFailure; }
    /// True after the control room said another computer took this agent number.
    bool replaced() const { return m_replaced; }
    /// Incremented on every open() and close().
    qint64 generation() const { return m_generation; }
    /// The URL open() would open now (empty when it cannot be built).
    QUrl linkURL() const;

    /// Delay before an automatic reconnection, in milliseconds (2000).
    static constexpr int kRetryMs = 2000;
    /// The delay in use; tests shorten it.
    int retryMs = kRetryMs;
    /// Longest silence of an open link, in milliseconds, before it counts as lost (a room that stops
    /// answering without closing: frozen, or gone with the Wi-Fi); the link is pinged meanwhile.
    static constexpr int kSilenceMs = 15000;
    /// The silence in use; tests shorten it (pings go out every second, or every third of a shorter one).
    int silenceMs = kSilenceMs;
    /// How often an open link with `silenceMs` is pinged and its silence checked.
    static int watchMs(int silenceMs);
    /// First byte of a binary frame: live microphone audio.
    static constexpr quint8 kMicSource = Protocol::Frame::micAudio;
    /// First byte of a binary frame: live computer audio.
    static constexpr quint8 kComputerAudioSource = Protocol::Frame::computerAudio;
    /// First byte of a binary frame: a preview JPEG.
    static constexpr quint8 kPreviewFrame = Protocol::Frame::preview;
    /// Largest incoming message accepted; larger ones make the socket close.
    static constexpr qint64 kMaxMessageBytes = 8 * 1024 * 1024;

    /// Called on the main thread with every JSON object received.
    std::function<void(const QJsonObject &)> onCommand;
    /// Called on the main thread whenever connected() may have changed.
    std::function<void()> onChange;

private:
    bool writable() const;
    void opened(qint64 gen, QWebSocket *socket);
    void received(qint64 gen, const QString &text);
    void dropped(qint64 gen);
    void noteFailure(const QString &reason);
    void watch();
    void cancelSocket();
    void sendText(const QByteArray &text);
    void sendFrame(quint8 kind, const QByteArray &payload);

    const Settings &m_settings;
    const BuildInfo &m_build;
    QWebSocket *m_socket = nullptr;
    qint64 m_generation = 0;
    std::atomic<bool> m_connected{false}; // read by capture threads before they forward a frame
    bool m_replaced = false;
    QString m_lastFailure; // why the link last failed to open (the socket's reason); cleared when a link opens
    LogOnce m_failureLog;  // retries every 2 s meet the same refusal: logged once until it changes
    QTimer *m_watch = nullptr; // pings the open link and notices its silence
    QElapsedTimer m_heard;     // since the room last sent anything, a pong included
    QElapsedTimer m_watched;   // since the watch last ran
};
