#pragma once

#include "Connection.h"

/// Whether the client had its time. `now` is of the monotonic clock, in microseconds.
bool isOverdue(const Connection& connection, gint64 now);
/// Whether a client that has ended its side is gone while its answer is made or sent. Remembers what it saw.
bool isAbandoned(Connection* connection, gint64 now);
/// Answers 408 in the middle of a body.
void tellOfTimeout(const Connection& connection);
