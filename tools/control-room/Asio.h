#pragma once

// The network library of the control room: Boost.Beast over Asio, run on one thread of its own.
#include <utility> // before asio: its awaitable.hpp uses std::exchange without it
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;

/// Completion token of the room's coroutines: errors land in `ec`, nothing is thrown.
inline auto noThrow(beast::error_code &ec)
{
    return asio::redirect_error(asio::use_awaitable, ec);
}
