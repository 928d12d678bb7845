#include "ServerCounters.h"

#include <algorithm>

namespace {

// A body that the kernel sends from its file goes past the library.
qint64 bodyBytes(SoupMessage* message)
{
    if (message->method == SOUP_METHOD_HEAD || message->status_code == SOUP_STATUS_NOT_MODIFIED)
        return 0;
    // An exchange that failed has a status of the library's own: how much of its body was sent is not known.
    if (message->response_body->length > 0 || message->status_code < SOUP_STATUS_OK)
        return message->response_body->length;
    return soup_message_headers_get_content_length(message->response_headers);
}

} // namespace

void ServerCounters::add(SoupMessage* answered)
{
    ++answers[std::min(answered->status_code / 100, 5U)];
    sentBytes += bodyBytes(answered);
}

ServerCounters& ServerCounters::operator+=(const ServerCounters& other)
{
    requests += other.requests;
    for (int status = 0; status < 6; ++status)
        answers[status] += other.answers[status];
    receivedBytes += other.receivedBytes;
    sentBytes += other.sentBytes;
    malformedHeads += other.malformedHeads;
    longHeads += other.longHeads;
    longBodies += other.longBodies;
    foreignHosts += other.foreignHosts;
    accepted += other.accepted;
    displaced += other.displaced;
    return *this;
}
