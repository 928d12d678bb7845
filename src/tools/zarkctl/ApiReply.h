#pragma once

#include <QVariant>

#include "HttpSession.h"

/// Reads an answer of the API. Throws a Failure for an error of the device, with its own words, and for what is no
/// answer of this API at all; `url` is named then.
QVariant readApiReply(const HttpReply& reply, const QByteArray& url);

/// The Failure for an answer whose content is not what this API gives there.
[[noreturn]] void failForeign(const QByteArray& url, const QString& what);
