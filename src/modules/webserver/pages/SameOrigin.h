#pragma once

#include <QByteArray>

/// Whether a browser sent a request from a page of this very server (RFC 6454, section 7): its Origin field, or, when
/// it has none, its Referer, names https and what the Host field does. False when neither tells.
bool isSameOrigin(const QByteArray& origin, const QByteArray& referer, const QByteArray& host);
