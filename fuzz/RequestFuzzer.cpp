#include <algorithm>
#include <cstdint>

#include <QHostAddress>

#include <libsoup/soup.h>

#include "ApiRequests.h"
#include "ByteRange.h"
#include "CMPath.h"
#include "EventRequests.h"
#include "EventRewriting.h"
#include "Expect.h"
#include "HeadScanner.h"
#include "HostFilter.h"
#include "LegacyPathHelper.h"
#include "RequestHead.h"
#include "RequestParameters.h"
#include "ResponderCrypto.h"
#include "ReverseProxyHandler.h"
#include "SameOrigin.h"
#include "ServerLimits.h"
#include "dbglog.h"

namespace {

bool isFieldText(const QByteArray& text)
{
    return !text.contains('\0') && !text.contains('\r') && !text.contains('\n');
}

int countOf(SoupMessageHeaders* fields)
{
    int count = 0;
    SoupMessageHeadersIter iterator;
    const char* name = nullptr;
    const char* value = nullptr;
    soup_message_headers_iter_init(&iterator, fields);
    while (soup_message_headers_iter_next(&iterator, &name, &value))
        ++count;
    return count;
}

/// What passes, the library's parser reads as it stands there: each line as one field, and the same length.
void compareWithLibrary(const QByteArray& head, qint64 contentLength)
{
    SoupMessageHeaders* fields = soup_message_headers_new(SOUP_MESSAGE_HEADERS_REQUEST);
    if (soup_headers_parse_request(head.constData(), head.size(), fields, nullptr, nullptr, nullptr)
        == SOUP_STATUS_OK) {
        expect(countOf(fields) == head.trimmed().count('\n'));
        const char* length = soup_message_headers_get_one(fields, "Content-Length");
        expect(contentLength == (length ? QByteArray(length).toLongLong() : -1));
    }
    soup_message_headers_free(fields);
}

/// The first head is the same in one piece and byte by byte.
void readHead(const QByteArray& sent)
{
    QByteArray text = sent; // Field names that are too many or too long are written over.
    HeadScanner cut;
    int end = 0;
    bool isShown = true;
    for (QByteArray bytes = text; isShown && end < bytes.size() && cut.wellFormed() == 0;)
        isShown = cut.feed(bytes.data() + end++, 1);
    HeadScanner whole;
    if (!whole.feed(text.data(), end) || !isShown)
        return;
    expect(whole.wellFormed() == cut.wellFormed() && whole.contentLength() == cut.contentLength());
    if (whole.wellFormed() == 1)
        compareWithLibrary(text.left(end - (text.mid(end - 2, 1) == "\r" ? 2 : 1)), whole.contentLength());
}

/// No name that anybody can register passes, however it is written.
void readHost(const QByteArray& text)
{
    if (!isFieldText(text))
        return;
    expect(text.contains(':') || text.contains('[') || !isAcceptedHost(text + ".example"));
    expect(!isAcceptedHost(text) || text.contains(':') || isAcceptedHost(text + ":80"));
    isSameOrigin(text, {}, text);
    expect(!isSameOrigin({}, {}, text) && !isSameOrigin("null", text, text));
    const RequestHead head{ false, "GET", text, 1, {}, 0, {}, 0, 1 };
    if (examineHead(head, ServerLimits()) == HeadVerdict::Accept)
        expect(!text.contains('/') && !text.contains('?') && !text.contains('@') && isFieldText(text));
}

void readRequests(const RequestParameters& parameters)
{
    ApiGetRows rows;
    if (!parseGetRows(parameters, &rows))
        expect(rows.roles.size() <= 64 && !parseGetData(parameters, &rows));
    ApiSetData set;
    if (!parseSetData(parameters, &set))
        expect(set.value.isValid());
    EventSubscribeData events;
    if (parseSubscribeData(parameters, &events)) {
        expect(events.received >= CMEventQueue::NotCounted);
        addCurrentPaths(&events.subscribe);
    }
}

/// Of a URI, or a form: what is found under a name is the first of that name.
void readQuery(const QByteArray& text)
{
    const QueryItems items{ QLatin1String(text) };
    const auto& all = items.all();
    for (const auto& item : all) {
        const auto first =
            std::find_if(all.cbegin(), all.cend(), [&](const auto& other) { return other.first == item.first; });
        expect(items.find(item.first) == &first->second);
    }
    readRequests(RequestParameters(items, 1000));
}

void readBody(const QByteArray& text)
{
    readRequests(RequestParameters(ZarkJson::parse(text, nullptr, ZarkJson::NoFlags, 1000).toHash(), 1000));
}

void readSubscriptions(const QByteArray& text)
{
    const QString list = QString::fromUtf8(text);
    readRequests(RequestParameters(QVariantHash{ { "subscribe", list }, { "unsubscribe", list } }, 1000));
}

/// Of nodes, in the data API and behind /api/stream/: what is a path can be taken apart and put together again.
void readPath(const QByteArray& text)
{
    const QString encoded = QString::fromUtf8(text);
    expect(CMPath::fromEncoded(encoded).toEncoded() == encoded);
    const CMPath path = LegacyPathHelper::resolve(encoded);
    if (path.isValid() && !path.worker().isEmpty())
        expect(CMPath::fromSegments(path.worker(), path.segments()) == path);
}

/// What is sent lies inside the file, whatever was asked for.
void readRangeField(const QByteArray& text)
{
    constexpr qint64 Length = 1000;
    if (!isFieldText(text))
        return;
    SoupMessageHeaders* fields = soup_message_headers_new(SOUP_MESSAGE_HEADERS_REQUEST);
    soup_message_headers_append(fields, "Range", text.constData());
    const RangeRequest request = readRange(fields, Length);
    const ByteRange& range = request.range;
    expect(
        request.kind != RangeRequest::Single || (range.first >= 0 && range.first <= range.last && range.last < Length));
    soup_message_headers_free(fields);
}

void readCredentials(const QByteArray& text)
{
    const auto fields = ResponderCrypto::splitAuthorizationHeader(text);
    const auto crypto = ResponderCrypto::create(fields, ZarkWebserverUser(fields.user, QStringLiteral("x")), 1000);
    expect(!crypto->authenticate(text));
    bool ok = false;
    expect(crypto->decrypt(QString::fromUtf8(text), &ok).isValid() || !ok);
}

/// Of the proxy: what the device may fetch for others is neither itself nor near.
void readTarget(const QByteArray& text)
{
    const QString target = ReverseProxyHandler::extractOriginalUrl("http://x/proxy/" + QString::fromUtf8(text));
    for (const QString& host : { ZarkUrl(target).host(), QString::fromUtf8(text) }) {
        const QHostAddress address(host);
        if (ReverseProxyHandler::isFetchableForRemote(address, { QHostAddress("192.0.2.1") }))
            expect(!address.isNull() && !address.isLoopback() && !address.isLinkLocal()
                && address != QHostAddress("192.0.2.1"));
    }
}

constexpr struct {
    char letter;
    void (*read)(const QByteArray& text);
} Readers[] = {
    { 'a', readCredentials },
    { 'b', readBody },
    { 'e', readSubscriptions },
    { 'f', readTarget },
    { 'h', readHost },
    { 'p', readPath },
    { 'q', readQuery },
    { 'r', readRangeField },
    { 'v', readHead },
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    DbgLogger::configure(QStringLiteral("off"), false);
    return 0;
}

/// The texts of a request that the server reads by itself. The first byte says which of them the rest is.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray text(reinterpret_cast<const char*>(data) + 1, static_cast<int>(size - 1));
    for (const auto& reader : Readers) {
        if (reader.letter == static_cast<char>(data[0]))
            reader.read(text);
    }
    return 0;
}
