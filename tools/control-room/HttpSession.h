#pragma once

#include "Asio.h"

#include <QString>
#include <QUrl>

#include <memory>
#include <optional>

class Room;

// One HTTP connection to the room: reads each request's header, then routes it. Bodies of
// uploads stream into a hidden temporary file in their folder as they arrive (memory does not
// follow the file size) and take their name only once whole; small bodies (events, sales) are
// read whole under a small limit. WebSocket upgrades are handed to the room.
class HttpSession : public std::enable_shared_from_this<HttpSession>
{
public:
    /// Serves the connection on `socket` for `room`.
    HttpSession(tcp::socket &&socket, Room &room);
    /// Starts reading requests.
    void start();
    /// Drops the connection (a partial upload is thrown away).
    void abort();

    static constexpr std::uint64_t uploadLimit = std::uint64_t(8) << 30; ///< a 30-minute full-quality segment is under 2 GB
    /// Longest silence between two pieces of one request, and between requests.
    static constexpr auto kIdle = std::chrono::seconds(60);

private:
    using Head = http::request_parser<http::empty_body>;
    asio::awaitable<void> run();
    asio::awaitable<bool> serve(Head &head);
    asio::awaitable<bool> receiveFile(Head &head, const QString &path, std::uint64_t limit, QString *why);
    asio::awaitable<std::optional<std::string>> receiveSmall(Head &head);
    asio::awaitable<bool> answer(http::status status, std::string body, const char *type = "text/plain; charset=utf-8",
                                 bool keep = true, std::string cookie = {});
    asio::awaitable<bool> sendFile(const QString &path, std::string_view range);
    /// Writes `res` (only its header when the request was a HEAD); false when the write failed.
    template<class Body>
    asio::awaitable<bool> send(http::response<Body> &res);

    beast::tcp_stream m_stream;
    beast::flat_buffer m_buffer;
    Room &m_room;
    unsigned m_version = 11;
    bool m_moved = false;
    bool m_headOnly = false; ///< the request being answered is a HEAD
    bool m_clientKeeps = true; ///< the client did not ask to close after this request
};
