#pragma once

/// From now on a client of TLS 1.2 that asks for another handshake on its connection loses the connection. A handshake
/// costs the device a thousand times what it costs the client, and the TLS library grants as many as are asked for; it
/// has no setting for that.
///
/// Handshakes pass as records of a type of their own (RFC 5246, section 6.2.1), which nobody encrypts, so it takes no
/// more than the five bytes in front of each record to tell. TLS 1.3 has no such handshakes and hides the type of what
/// it has (RFC 8446, section 5.2).
///
/// For the whole process; once. Without TLS, nothing happens.
void refuseRenegotiation();
