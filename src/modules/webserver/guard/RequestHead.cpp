#include "RequestHead.h"

#include <algorithm>
#include <cstring>

#include "KeptNames.h"
#include "ServerLimits.h"
#include "WebserverLog.h"

namespace {

constexpr int MaximumContentLengthDigits = 15;

// The library pastes the field into a URI, where these would move the path elsewhere. All else it keeps within the
// host, escaped where a URI needs that.
bool movesThePath(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte <= ' ' || byte == 0x7F || strchr("/?#@\\", c);
}

bool isHost(const QByteArray& host)
{
    return std::none_of(host.begin(), host.end(), movesThePath);
}

bool isContentLength(const QByteArray& value)
{
    return !value.isEmpty() && value.size() <= MaximumContentLengthDigits
        && std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; });
}

} // namespace

RequestHead headOf(SoupMessage* message, bool isMalformed)
{
    RequestHead head;
    head.isMalformed = isMalformed;
    head.method = QByteArray(message->method);
    SoupMessageHeadersIter iterator;
    const char* name = nullptr;
    const char* value = nullptr;
    soup_message_headers_iter_init(&iterator, message->request_headers);
    while (soup_message_headers_iter_next(&iterator, &name, &value)) {
        ++head.fields;
        if (g_ascii_strcasecmp(name, "Host") == 0) {
            ++head.hostFields;
            head.host = QByteArray(value);
        } else if (g_ascii_strcasecmp(name, "Content-Length") == 0) {
            ++head.contentLengthFields;
            head.contentLength = QByteArray(value);
        } else if (g_ascii_strcasecmp(name, "Transfer-Encoding") == 0) {
            ++head.transferEncodingFields;
            head.transferEncoding = QByteArray(value);
        }
    }
    return head;
}

HeadVerdict examineHead(const RequestHead& head, const ServerLimits& limits)
{
    dbglog_scopedFunction(webserverLog());
    // These first: a refusal that reads on would let the library act on CONNECT, or on a body of another length.
    if (head.isMalformed || head.method.isEmpty() || head.method.size() > KeptNames::LongestMethod
        || head.method == "CONNECT")
        return HeadVerdict::BadRequest;
    if (head.fields > limits.headerCount)
        return HeadVerdict::FieldsTooLarge;
    if (head.hostFields > 1 || !isHost(head.host))
        return HeadVerdict::BadRequest;
    if (head.contentLengthFields > 1 || head.transferEncodingFields > 1
        || (head.contentLengthFields && head.transferEncodingFields))
        return HeadVerdict::BadRequest;
    if (head.contentLengthFields && !isContentLength(head.contentLength))
        return HeadVerdict::BadRequest;
    if (head.transferEncodingFields && head.transferEncoding.toLower() != "chunked")
        return HeadVerdict::BadRequest;
    return HeadVerdict::Accept;
}
