#pragma once

#include "Asio.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>

// One WebSocket link (an agent's or an operator page's) on the room's thread: reads messages and
// hands them over, writes from a queue one message at a time. Binary frames are dropped while
// more than `maxQueued` bytes wait (live audio and pictures are worth nothing late); a reader
// that falls far behind on text is cut off.
class WsLink : public std::enable_shared_from_this<WsLink>
{
public:
    struct Handlers
    {
        std::function<void(WsLink &)> opened;
        std::function<void(WsLink &, std::string &&, bool binary)> message;
        std::function<void(WsLink &)> closed; ///< once, whoever ended the link
    };
    /// Takes over the connection; messages above maxMessage bytes end the link.
    WsLink(beast::tcp_stream &&stream, size_t maxMessage, size_t maxQueued);
    /// Answers the upgrade request and runs until the link ends.
    void start(http::request<http::empty_body> upgrade, Handlers handlers);
    /// Queues one text message.
    void sendText(std::string text);
    /// Queues one binary frame unless too much is waiting already.
    void sendBinary(std::shared_ptr<const std::string> frame);
    /// Closes politely once what is queued has gone out.
    void close();
    /// Drops the connection at once.
    void abort();
    /// Bytes waiting to be written.
    size_t queued() const { return m_queued; }

private:
    struct Item
    {
        std::shared_ptr<const std::string> data;
        bool binary = false;
        bool close = false;
    };
    asio::awaitable<void> reader(http::request<http::empty_body> upgrade);
    asio::awaitable<void> writer();
    void push(Item item);
    void finish();

    websocket::stream<beast::tcp_stream> m_ws;
    asio::steady_timer m_wake;
    std::deque<Item> m_queue;
    Handlers m_handlers;
    size_t m_maxMessage;
    size_t m_maxQueued;
    size_t m_queued = 0;
    bool m_open = false;
    bool m_finished = false;
};
