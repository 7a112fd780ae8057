#include "HttpSession.h"

#include "FileWindow.h"
#include "Protocol.h"
#include "Room.h"
#include "UploadPlace.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QUrlQuery>

#include <charconv>
#include <cerrno>
#include <filesystem>
#include <vector>

namespace {
constexpr auto kLinger = std::chrono::seconds(10); // what a client still sends after the last answer is dropped this long
constexpr size_t kSmallBody = 64 << 10;

bool is(std::string_view path, const char *word)
{
    return path == std::string_view(word);
}

// The disk refused a write (full, over quota or a size limit, an I/O error): the room's fault, not a cut-off.
bool diskFault(const beast::error_code &ec)
{
    return ec.category() == beast::system_category()
           && (ec.value() == ENOSPC || ec.value() == EDQUOT || ec.value() == EFBIG || ec.value() == EIO || ec.value() == EROFS);
}
std::optional<std::uint64_t> number(std::string_view digits)
{
    std::uint64_t n = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), n);
    return !digits.empty() && ec == std::errc() && end == digits.data() + digits.size() ? std::optional(n) : std::nullopt;
}

// The bytes a Range header asks of a file of `size` bytes, as first and last: nothing when it
// asks for the whole file (no header, several ranges, a form not understood), first > last when
// the file has none of them.
std::optional<std::pair<std::uint64_t, std::uint64_t>> byteRange(std::string_view header, std::uint64_t size)
{
    if (!header.starts_with("bytes=") || header.find(',') != std::string_view::npos || header.find('-') == std::string_view::npos)
        return std::nullopt;
    const std::string_view asked = header.substr(6);
    const std::string_view a = asked.substr(0, asked.find('-')), b = asked.substr(asked.find('-') + 1);
    const auto first = number(a), last = number(b);
    if (a.empty() && last) // the last n bytes
        return *last == 0 || size == 0 ? std::pair<std::uint64_t, std::uint64_t>(1, 0) : std::pair(size - std::min(*last, size), size - 1);
    if (!first || (!b.empty() && (!last || *last < *first)))
        return std::nullopt;
    if (*first >= size)
        return std::pair<std::uint64_t, std::uint64_t>(1, 0);
    return std::pair(*first, std::min(last.value_or(size - 1), size - 1));
}
} // namespace

HttpSession::HttpSession(tcp::socket &&socket, Room &room)
    : m_stream(std::move(socket))
    , m_buffer(1 << 20)
    , m_room(room)
{
}

void HttpSession::start()
{
    asio::co_spawn(m_stream.get_executor(), [self = shared_from_this()] { return self->run(); }, asio::detached);
}

void HttpSession::abort()
{
    if (m_moved)
        return;
    beast::error_code ec;
    m_stream.socket().close(ec);
}

asio::awaitable<void> HttpSession::run()
{
    auto self = shared_from_this();
    for (;;) {
        beast::error_code ec;
        m_headOnly = false;
        m_clientKeeps = false; // a request that cannot be read ends the connection
        Head head;
        head.header_limit(16 << 10);
        head.body_limit(uploadLimit); // checked against Content-Length as the header ends; smaller per route
        m_stream.expires_after(kIdle);
        co_await http::async_read_header(m_stream, m_buffer, head, noThrow(ec));
        if (ec) {
            if (ec != http::error::end_of_stream && ec != asio::error::operation_aborted && ec != beast::error::timeout
                && ec != asio::error::connection_reset && ec != asio::error::bad_descriptor)
                co_await answer(http::status::bad_request, "bad request\n", "text/plain; charset=utf-8", false);
            break;
        }
        m_version = head.get().version();
        m_headOnly = head.get().method() == http::verb::head;
        m_clientKeeps = head.get().keep_alive();
        if (!co_await serve(head) || m_moved || !m_clientKeeps)
            break;
    }
    if (!m_moved) {
        // A lingering close: what the client still sends (the rest of a body refused half-way) is
        // read and dropped for a while, so that it reads the answer instead of a reset.
        beast::error_code ec;
        m_stream.socket().shutdown(tcp::socket::shutdown_send, ec);
        m_stream.expires_after(kLinger);
        std::vector<char> dropped(64 << 10);
        while (!ec)
            co_await m_stream.async_read_some(asio::buffer(dropped), noThrow(ec));
    }
}

asio::awaitable<bool> HttpSession::serve(Head &head)
{
    const auto &req = head.get();
    const std::string target(req.target());
    const std::string_view path = std::string_view(target).substr(0, target.find('?'));
    const QUrl url = QUrl::fromEncoded(QByteArray::fromStdString(target));
    const QUrlQuery query(url);
    const bool operatorIn = m_room.token().allows(target, req[http::field::authorization], req[http::field::cookie]);
    const bool post = req.method() == http::verb::post;
    const bool get = req.method() == http::verb::get || req.method() == http::verb::head;

    if (websocket::is_upgrade(req)) {
        if (is(path, Protocol::Path::agent) || (is(path, "/page") && operatorIn)) {
            m_moved = true;
            if (is(path, "/page"))
                m_room.acceptPage(std::move(m_stream), head.release());
            else
                m_room.acceptAgent(std::move(m_stream), head.release(),
                                   QUrl::fromEncoded("ws://" + QByteArray::fromStdString(std::string(req[http::field::host])) + url.toEncoded()));
            co_return false;
        }
        const http::status refusal = is(path, "/page") ? http::status::unauthorized : http::status::not_found;
        co_return co_await answer(refusal, "no\n", "text/plain", false);
    }

    if (post && is(path, Protocol::Path::upload)) {
        QString why;
        const auto place = UploadPlace::fromQuery(query, &why);
        if (!place)
            co_return co_await answer(http::status::bad_request, why.toStdString() + '\n', "text/plain; charset=utf-8", false);
        const QString name = place->folder + QLatin1Char('/') + place->file;
        m_room.uploadBegun(place->agent, 1);
        const bool whole = co_await receiveFile(head, name, uploadLimit, &why);
        m_room.uploadBegun(place->agent, -1);
        if (!whole && why.isEmpty())
            co_return false;
        if (!whole) {
            m_room.fault(place->agent, QStringLiteral("upload %1 not stored: %2").arg(name, why));
            co_return co_await answer(http::status::internal_server_error, why.toStdString() + '\n', "text/plain", false);
        }
        m_room.stored(*place, query, name, why == QLatin1String("duplicate"));
        co_return co_await answer(http::status::ok, "ok");
    }
    if (post && is(path, Protocol::Path::saleFile)) {
        using namespace Protocol::SaleFileQuery;
        QString why;
        const QString token = query.queryItemValue(QLatin1String(sale), QUrl::FullyDecoded);
        const auto name = m_room.sales().filePlace(token, query.queryItemValue(QLatin1String(kind), QUrl::FullyDecoded),
                                                  query.queryItemValue(QLatin1String(ext), QUrl::FullyDecoded), &why);
        if (!name)
            co_return co_await answer(http::status::bad_request, why.toStdString() + '\n', "text/plain; charset=utf-8", false);
        const bool whole = co_await receiveFile(head, *name, uploadLimit, &why);
        if (!whole && why.isEmpty())
            co_return false;
        if (!whole) {
            m_room.fault(m_room.sales().agentOf(token), QStringLiteral("sale file %1 not stored: %2").arg(*name, why));
            co_return co_await answer(http::status::internal_server_error, why.toStdString() + '\n', "text/plain", false);
        }
        m_room.saleFileStored(token, *name);
        co_return co_await answer(http::status::ok, "ok");
    }
    if (post && (is(path, Protocol::Path::event) || is(path, Protocol::Path::sale))) {
        const auto body = co_await receiveSmall(head);
        if (!body)
            co_return false;
        QString why;
        if (is(path, Protocol::Path::event)) {
            if (!m_room.event(query, &why))
                co_return co_await answer(http::status::bad_request, why.toStdString() + '\n');
            co_return co_await answer(http::status::ok, "ok");
        }
        const auto token = m_room.sales().add(QJsonDocument::fromJson(QByteArray::fromStdString(*body)).object(), &why);
        if (!token)
            co_return co_await answer(http::status::bad_request, why.toStdString() + '\n');
        m_room.saleAdded(*token);
        const QJsonObject reply{{QLatin1String(Protocol::Sale::token), *token}};
        co_return co_await answer(http::status::ok, QJsonDocument(reply).toJson(QJsonDocument::Compact).toStdString(), "application/json");
    }
    if (!get)
        co_return co_await answer(http::status::not_found, "not found\n", "text/plain", false);
    if (!head.is_done()) // a GET with a body: not read, so the connection cannot go on
        co_return co_await answer(http::status::bad_request, "a GET has no body\n", "text/plain", false);

    if (is(path, "/favicon.ico")) // what every browser asks for: no icon, and no error in its console
        co_return co_await answer(http::status::no_content, std::string(), "image/x-icon");
    if (!operatorIn) // the agents' liveness probe gets an answer too
        co_return co_await answer(http::status::unauthorized,
                                  "Brava control room. Open the page with the address printed when the room started (it holds the operator token).\n");
    if (is(path, "/api/state"))
        co_return co_await answer(http::status::ok, QJsonDocument(m_room.state(true)).toJson(QJsonDocument::Compact).toStdString(), "application/json");
    if (path.substr(0, 7) == "/files/") {
        const QString rel = url.path(QUrl::FullyDecoded).mid(7);
        if (!m_room.fileKnown(rel))
            co_return co_await answer(http::status::not_found, "no such file\n");
        co_return co_await sendFile(m_room.uploads().filePath(rel), req[http::field::range]);
    }
    if (const std::string *asset = m_room.asset(std::string(path))) {
        const char *type = path.ends_with(".js") ? "text/javascript; charset=utf-8"
                           : path.ends_with(".css") ? "text/css; charset=utf-8"
                                                    : "text/html; charset=utf-8";
        // The first visit brings the token in its query; from then on the cookie carries it.
        // (Arguments are plain variables here: GCC 12 destroys a temporary of a ?: inside co_await twice.)
        std::string cookie;
        if (query.hasQueryItem(QStringLiteral("token")))
            cookie = m_room.token().cookie();
        std::string body = *asset;
        co_return co_await answer(http::status::ok, std::move(body), type, true, std::move(cookie));
    }
    co_return co_await answer(http::status::not_found, "not found\n");
}

asio::awaitable<std::optional<std::string>> HttpSession::receiveSmall(Head &head)
{
    beast::error_code ec;
    if (head.content_length().value_or(0) > kSmallBody) {
        co_await answer(http::status::payload_too_large, "too large\n", "text/plain", false);
        co_return std::nullopt;
    }
    http::request_parser<http::string_body> parser(std::move(head));
    parser.body_limit(kSmallBody);
    m_stream.expires_after(kIdle);
    co_await http::async_read(m_stream, m_buffer, parser, noThrow(ec));
    if (ec) {
        if (ec == http::error::body_limit)
            co_await answer(http::status::payload_too_large, "too large\n", "text/plain", false);
        co_return std::nullopt;
    }
    co_return parser.release().body();
}

asio::awaitable<bool> HttpSession::receiveFile(Head &head, const QString &name, std::uint64_t limit, QString *why)
{
    // A hidden name in the same folder until the body is whole: a cut-off upload never looks like a piece.
    const QString folder = QFileInfo(name).path();
    if (!m_room.uploads().mkpath(folder)) {
        *why = QStringLiteral("cannot make the folder ") + folder;
        co_return false;
    }
    const QString temp = folder + QStringLiteral("/.") + QFileInfo(name).fileName()
                         + QStringLiteral(".part-%1").arg(QRandomGenerator::global()->generate64(), 0, 16);
    const std::string tempPath = m_room.uploads().filePath(temp).toStdString();
    const std::string finalPath = m_room.uploads().filePath(name).toStdString();
    beast::error_code ec;
    http::request_parser<http::file_body> parser(std::move(head));
    parser.body_limit(limit);
    parser.get().body().open(tempPath.c_str(), beast::file_mode::write, ec);
    if (ec) {
        *why = QStringLiteral("cannot write ") + temp + QStringLiteral(": ") + QString::fromStdString(ec.message());
        co_return false;
    }
    if (beast::iequals(parser.get()[http::field::expect], "100-continue")) {
        static const std::string goOn = "HTTP/1.1 100 Continue\r\n\r\n";
        m_stream.expires_after(kIdle);
        co_await asio::async_write(m_stream, asio::buffer(goOn), noThrow(ec));
    }
    while (!ec && !parser.is_done()) {
        m_stream.expires_after(kIdle);
        co_await http::async_read_some(m_stream, m_buffer, parser, noThrow(ec));
    }
    beast::error_code closed;
    parser.get().body().file().close(closed);
    std::error_code fs;
    if (!parser.is_done()) { // cut off, too large, or the disk refused: nothing is kept
        std::filesystem::remove(tempPath, fs);
        *why = diskFault(ec) ? QStringLiteral("cannot write ") + temp + QStringLiteral(": ") + QString::fromStdString(ec.message()) : QString();
        co_return false;
    }
    // The same piece again (its answer was lost): the copy already stored stays.
    if (std::filesystem::exists(finalPath, fs) && std::filesystem::file_size(finalPath, fs) == std::filesystem::file_size(tempPath, fs)) {
        std::filesystem::remove(tempPath, fs);
        *why = QStringLiteral("duplicate");
        co_return true;
    }
    std::filesystem::rename(tempPath, finalPath, fs);
    if (fs) {
        std::filesystem::remove(tempPath, fs);
        *why = QStringLiteral("cannot store ") + name;
        co_return false;
    }
    why->clear();
    co_return true;
}

asio::awaitable<bool> HttpSession::answer(http::status status, std::string body, const char *type, bool keep, std::string cookie)
{
    http::response<http::string_body> res{status, m_version};
    res.set(http::field::server, "brava-control-room");
    res.set(http::field::content_type, type);
    res.set(http::field::cache_control, "no-store");
    if (!cookie.empty())
        res.set(http::field::set_cookie, cookie);
    res.keep_alive(keep && m_clientKeeps);
    res.body() = std::move(body);
    res.prepare_payload();
    m_stream.expires_after(kIdle);
    co_return co_await send(res) && keep;
}

template<class Body>
asio::awaitable<bool> HttpSession::send(http::response<Body> &res)
{
    beast::error_code ec;
    if (m_headOnly) { // the length of what a GET would bring, and no body
        http::response_serializer<Body> head(res);
        co_await http::async_write_header(m_stream, head, noThrow(ec));
    } else {
        co_await http::async_write(m_stream, res, noThrow(ec));
    }
    co_return !ec;
}

asio::awaitable<bool> HttpSession::sendFile(const QString &path, std::string_view range)
{
    // A player seeks in a long recording by asking for one range of its bytes at a time.
    http::response<http::basic_file_body<FileWindow>> res{http::status::ok, m_version};
    beast::error_code ec;
    FileWindow file;
    file.open(path.toStdString().c_str(), beast::file_mode::scan, ec);
    if (ec) // known to the room but gone from the disk
        co_return co_await answer(http::status::not_found, "no such file\n");
    const std::uint64_t size = file.size(ec);
    res.set(http::field::accept_ranges, "bytes");
    if (const auto part = byteRange(range, size)) {
        if (part->first > part->second) {
            http::response<http::string_body> refusal{http::status::range_not_satisfiable, m_version};
            refusal.set(http::field::server, "brava-control-room");
            refusal.set(http::field::content_range, "bytes */" + std::to_string(size));
            refusal.keep_alive(m_clientKeeps);
            refusal.prepare_payload();
            m_stream.expires_after(kIdle);
            co_return co_await send(refusal);
        }
        file.narrow(part->first, part->second - part->first + 1, ec);
        if (ec)
            co_return co_await answer(http::status::internal_server_error, "cannot read the file\n");
        res.result(http::status::partial_content);
        res.set(http::field::content_range, "bytes " + std::to_string(part->first) + '-' + std::to_string(part->second) + '/' + std::to_string(size));
    }
    res.body().reset(std::move(file), ec);
    const QString suffix = QFileInfo(path).suffix();
    res.set(http::field::content_type, suffix == QLatin1String("json") ? "application/json"
                                       : suffix == QLatin1String("m4a") ? "audio/mp4"
                                       : suffix == QLatin1String("mp4") ? "video/mp4"
                                       : suffix == QLatin1String("png") ? "image/png"
                                       : suffix == QLatin1String("pdf") ? "application/pdf"
                                                                          : "application/octet-stream");
    res.prepare_payload();
    res.keep_alive(m_clientKeeps);
    m_stream.expires_never();
    co_return co_await send(res);
}
