#pragma once

#include <gio/gio.h>

class HeadScanner;

/// Lets somebody see what the library reads from a connection, before its parser does and without a copy: over TLS what
/// was decrypted.
///
/// Over TLS it also ends a connection whose client asks for another handshake, which TLS 1.2 has: one costs the device
/// a thousand times what it costs the client, and the TLS library grants as many as are asked for, without a setting
/// for that. And it closes without waiting for a client that does not read: the TLS library says good-bye first, on the
/// thread that closes, which is the event loop's.
///
/// The library makes its connections by itself and shows them to nobody; what can be reached are their classes. So the
/// classes of GIO's connections get another get_input_stream(), for the whole process. (GIO has a registry of
/// connection types as well, but frees the entry of a second type for the same protocol, and then uses it.) What nobody
/// watches reads as ever.
namespace WatchedConnection {

/// Connections that are made from now on can be watched; those over TLS with `overTls`, which loads GIO's TLS library.
/// For good.
void install(bool overTls);
/// What sees all that is read from now on; it lives as long as the socket does. Null when that socket's connection
/// cannot be watched.
HeadScanner* watch(GSocket* socket);
/// Whether a TLS handshake was brought to its end there. For a connection that the library has not given up.
bool hasShakenHands(GSocket* socket);

} // namespace WatchedConnection
