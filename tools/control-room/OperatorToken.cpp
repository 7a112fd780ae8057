#include "OperatorToken.h"

#include <random>

OperatorToken::OperatorToken()
{
    std::random_device random;
    static constexpr char hex[] = "0123456789abcdef";
    for (int i = 0; i < 32; ++i)
        m_token += hex[random() % 16];
}

OperatorToken::OperatorToken(std::string token)
    : m_token(std::move(token))
{
}

bool OperatorToken::same(std::string_view candidate) const
{
    if (candidate.size() != m_token.size() || m_token.empty())
        return false;
    unsigned char diff = 0; // the same time whatever matches
    for (size_t i = 0; i < candidate.size(); ++i)
        diff |= static_cast<unsigned char>(candidate[i] ^ m_token[i]);
    return diff == 0;
}

namespace {
// The value of `key` in a list such as "a=1&b=2" or "a=1; b=2", or "" when absent.
std::string_view item(std::string_view list, std::string_view key, char separator)
{
    while (!list.empty()) {
        const size_t end = list.find(separator);
        std::string_view part = list.substr(0, end);
        while (!part.empty() && part.front() == ' ')
            part.remove_prefix(1);
        if (part.size() > key.size() && part.substr(0, key.size()) == key && part[key.size()] == '=')
            return part.substr(key.size() + 1);
        if (end == std::string_view::npos)
            break;
        list.remove_prefix(end + 1);
    }
    return {};
}
} // namespace

bool OperatorToken::allows(std::string_view target, std::string_view authorization, std::string_view cookie) const
{
    const size_t q = target.find('?');
    if (q != std::string_view::npos && same(item(target.substr(q + 1), "token", '&')))
        return true;
    if (authorization.substr(0, 7) == "Bearer " && same(authorization.substr(7)))
        return true;
    return same(item(cookie, cookieName, ';'));
}

std::string OperatorToken::cookie() const
{
    return std::string(cookieName) + '=' + m_token + "; Path=/; HttpOnly; SameSite=Strict";
}
