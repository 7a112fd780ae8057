#include "WsLink.h"

WsLink::WsLink(beast::tcp_stream &&stream, size_t maxMessage, size_t maxQueued)
    : m_ws(std::move(stream))
    , m_wake(m_ws.get_executor())
    , m_maxMessage(maxMessage)
    , m_maxQueued(maxQueued)
{
}

void WsLink::start(http::request<http::empty_body> upgrade, Handlers handlers)
{
    m_handlers = std::move(handlers);
    asio::co_spawn(m_ws.get_executor(), [self = shared_from_this(), up = std::move(upgrade)]() mutable { return self->reader(std::move(up)); },
                   asio::detached);
}

asio::awaitable<void> WsLink::reader(http::request<http::empty_body> upgrade)
{
    auto self = shared_from_this();
    beast::error_code ec;
    beast::get_lowest_layer(m_ws).expires_never(); // the WebSocket's own time-outs and pings from here
    // A peer that stops answering (an agent's laptop asleep, a page gone with the Wi-Fi) is pinged
    // and closed after 15 s of silence rather than the suggested 300 s: the operator then sees it away.
    websocket::stream_base::timeout timeouts = websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeouts.idle_timeout = std::chrono::seconds(15);
    timeouts.keep_alive_pings = true;
    m_ws.set_option(timeouts);
    m_ws.read_message_max(m_maxMessage);
    co_await m_ws.async_accept(upgrade, noThrow(ec));
    if (ec) {
        finish();
        co_return;
    }
    m_open = true;
    asio::co_spawn(m_ws.get_executor(), [self] { return self->writer(); }, asio::detached);
    if (m_handlers.opened)
        m_handlers.opened(*this);
    beast::flat_buffer buffer;
    while (m_open) {
        co_await m_ws.async_read(buffer, noThrow(ec));
        if (ec)
            break;
        std::string message = beast::buffers_to_string(buffer.data());
        buffer.consume(buffer.size());
        m_handlers.message(*this, std::move(message), !m_ws.got_text());
    }
    finish();
}

asio::awaitable<void> WsLink::writer()
{
    auto self = shared_from_this();
    beast::error_code ec;
    while (m_open) {
        if (m_queue.empty()) {
            m_wake.expires_at(asio::steady_timer::time_point::max());
            co_await m_wake.async_wait(noThrow(ec));
            continue;
        }
        Item item = std::move(m_queue.front());
        m_queue.pop_front();
        if (item.close) {
            co_await m_ws.async_close(websocket::close_code::normal, noThrow(ec));
            break;
        }
        m_queued -= item.data->size();
        m_ws.binary(item.binary);
        co_await m_ws.async_write(asio::buffer(*item.data), noThrow(ec));
        if (ec)
            break;
    }
    abort();
}

void WsLink::push(Item item)
{
    if (m_finished)
        return;
    m_queued += item.data ? item.data->size() : 0;
    m_queue.push_back(std::move(item));
    m_wake.cancel();
}

void WsLink::sendText(std::string text)
{
    if (m_queued > 16 * m_maxQueued) // a reader this far behind is gone in all but name
        return abort();
    push({std::make_shared<const std::string>(std::move(text))});
}

void WsLink::sendBinary(std::shared_ptr<const std::string> frame)
{
    if (m_queued + frame->size() <= m_maxQueued)
        push({std::move(frame), true});
}

void WsLink::close()
{
    push({nullptr, false, true});
}

void WsLink::abort()
{
    beast::error_code ec;
    beast::get_lowest_layer(m_ws).socket().close(ec);
    m_wake.cancel();
    finish();
}

void WsLink::finish()
{
    m_open = false;
    if (m_finished)
        return;
    m_finished = true;
    m_queue.clear();
    m_queued = 0;
    if (m_handlers.closed)
        m_handlers.closed(*this);
}
