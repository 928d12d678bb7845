#pragma once

struct Connection;

/// Connections by what they are at.
struct Census {
    int opening = 0; ///< Without a first head yet, a TLS handshake included.
    int idle = 0; ///< Between an answer and the next head.
    int receiving = 0; ///< A request's body.
    int answering = 0;

    void add(const Connection& connection);
    Census& operator+=(const Census& other);
};
