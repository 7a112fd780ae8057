#pragma once

#include <string>
#include <string_view>

// The operator's secret: made at start, shown once as part of the page's address. The page keeps
// it in a cookie, scripts send it as a bearer token, the first visit carries it in the query.
class OperatorToken
{
public:
    /// Makes a fresh random token (32 hex digits).
    OperatorToken();
    /// Uses this token (tests).
    explicit OperatorToken(std::string token);
    /// The token itself.
    const std::string &text() const { return m_token; }
    /// True when the query, the Authorization header or the Cookie header carries the token.
    bool allows(std::string_view target, std::string_view authorization, std::string_view cookie) const;
    /// The Set-Cookie value that keeps the token for the page.
    std::string cookie() const;

    static constexpr std::string_view cookieName = "brava_token";

private:
    bool same(std::string_view candidate) const;
    std::string m_token;
};
