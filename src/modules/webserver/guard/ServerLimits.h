#pragma once

#include <QtGlobal>

/// How much one server lets clients ask of it. Each is a node under the web server's settings.
struct ServerLimits {
    qint64 bodyBytes = 1024 * 1024; ///< Of a body that is read into memory; beyond: 413.
    int headerCount = 100; ///< Fields of one request; beyond: 431.
    int headerSeconds = 10; ///< From the connection to its first complete head, TLS handshake included.
    int bodySeconds = 60; ///< From the head to the end of a body that is read into memory.
    int idleSeconds = 60; ///< From an answer to the next complete head on the same connection.
    int uploadSeconds = 3600; ///< From the head to the end of a streamed body.
    int stalledSeconds = 300; ///< Without a byte of an answer taken, or of a streamed body sent, by the client.
    int values = 20000; ///< JSON values of a body, inner ones included, or fields of a form.
    int rows = 1000; ///< In one answer of getRows.
    int connections = 2000; ///< At once; always kept well below the process's limit of open files.
    // Of the proxy, shared by all servers; beyond: 404.
    int proxyFetches = 32; ///< Under way or not yet sent.
    int proxyFetchesPerClient = 8; ///< Of those, for one client address; a browser asks for six things at once.
    qint64 proxyBytes = 32 * 1024 * 1024; ///< Held of their bodies; half of it for one client address.
    int queuesPerClient = 100; ///< Event queues of one client address outside the device, of all servers together.

    /// Reads the nodes; a missing, wrong or negative one keeps the default above.
    static ServerLimits fromSettings();
};
