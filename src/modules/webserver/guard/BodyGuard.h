#pragma once

#include <libsoup/soup.h>

struct Connection;
struct RequestHead;

/// Guards the body that follows an accepted head: to be called as soon as the head is parsed, and before the library
/// acts on it.
///
/// A body that is read into memory is held to the limit. An early handler that takes the body as it arrives says so
/// with Message::setAccumulate(false), see there: then the body may be as long as it likes, as long as it moves. The
/// connection does not outlive an answer that came before the end of the body.
void guardBody(SoupMessage* message, const RequestHead& head, Connection* connection);

/// Answers as soon as the head is read, and closes the connection.
void refuseUnread(SoupMessage* message, guint status);
