#pragma once

#include <QByteArray>

#include <libsoup/soup.h>

class ConnectionTable;

/// Stands between the socket and the first handler: sees each head as soon as the library has parsed it, and before the
/// library acts on it, and defuses what the library would not survive or would get wrong. A well-formed request passes
/// as it was.
///
/// | request                                       | the library alone              | here                      |
/// | a line that is no field (HeadScanner)         | dropped, or made another field | 400, closed               |
/// | CONNECT                                       | null pointer                   | 400, closed               |
/// | thousands pipelined on one connection         | recursion, stack overflow      | one at a time, all        |
/// | several Host, or one that is no host          | the last, pasted into the URI  | 400, closed               |
/// | several or malformed Content-Length           | the last, or until the end     | 400, closed               |
/// | Content-Length and Transfer-Encoding          | smuggling                      | 400, closed               |
/// | chunked                                       | lax about where it ends        | closed after the answer   |
/// | refused before its body was read              | the body passes for a request  | closed after the answer   |
/// | POST, PUT, PATCH without a length             | the same                       | closed after the answer   |
/// | a body over the limit, held in memory         | read into memory               | 413 unread, closed        |
/// | too many fields                               | each name kept for good        | 431, closed               |
/// | a method or scheme that nobody uses           | kept for good                  | 400, closed               |
/// | HTTP/1.0 without Host                         | path neither split nor cleaned | the address asked, as Host |
class RequestGuard {
public:
    /// Neither is owned; both outlive this object.
    RequestGuard(SoupServer* server, ConnectionTable* connectionTable);
    ~RequestGuard();
    RequestGuard(const RequestGuard&) = delete;
    RequestGuard& operator=(const RequestGuard&) = delete;

    /// All answers from now on say that the next `seconds` are for HTTPS alone (RFC 6797); 0: they do not. For a server
    /// of HTTPS: over plain HTTP nobody may say so.
    void setStrictTransport(int seconds);

private:
    static void onRequestStarted(GClosure* closure, GValue* nothing, guint count, const GValue* serverMessageClient,
        gpointer hint, gpointer data);

    SoupServer* m_server;
    ConnectionTable* m_connectionTable;
    gulong m_requestStartedId = 0;
    QByteArray m_strictTransport; ///< The field's value; empty: none.
};
