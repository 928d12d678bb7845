#pragma once

#include <QtGlobal>

/// How much one server lets clients ask of it. Each is a node under the web server's settings.
struct ServerLimits {
    qint64 bodyBytes = 1024 * 1024; ///< Of a request that is read into memory; beyond: 413.
    int headerCount = 100; ///< Fields of one request; beyond: 431.
    int headerSeconds = 10; ///< From the connection to its first complete head, TLS handshake included.
    int bodySeconds = 60; ///< From the head to the end of the body.
    int idleSeconds = 60; ///< From an answer to the next complete head on the same connection.
    int connections = 2000; ///< At once; always kept well below the process's limit of open files.

    /// Reads the nodes; a missing, wrong or negative one keeps the default above.
    static ServerLimits fromSettings();
};
