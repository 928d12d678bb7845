#pragma once

#include <QByteArray>

/// Whether a request with this Host field (empty when absent) is meant for a device, rather than a browser's request
/// to a public name that somebody pointed at the device's address (DNS rebinding).
///
/// Accepted: any IP address, bracketed when IPv6, with or without port; the names of the local host; names below
/// ".local"; names of a single label, the empty one included. Names are compared case-sensitively.
bool isAcceptedHost(const QByteArray& host);
