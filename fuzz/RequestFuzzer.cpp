#include <cstdint>
#include <cstdlib>

#include <libsoup/soup.h>

#include "ByteRange.h"
#include "CMPath.h"
#include "HostFilter.h"
#include "LegacyPathHelper.h"
#include "QueryItems.h"
#include "ResponderCrypto.h"

namespace {

void expect(bool holds)
{
    if (!holds)
        std::abort();
}

/// Of nodes, in the data API and behind /api/stream/: what is a path can be taken apart and put together again.
void readPath(const QByteArray& text)
{
    const CMPath path = LegacyPathHelper::resolve(QString::fromUtf8(text));
    if (path.isValid() && !path.worker().isEmpty())
        expect(CMPath::fromSegments(path.worker(), path.segments()) == path);
}

/// What is sent lies inside the file, whatever was asked for.
void readRangeField(const QByteArray& field)
{
    constexpr qint64 Length = 1000;
    SoupMessageHeaders* fields = soup_message_headers_new(SOUP_MESSAGE_HEADERS_REQUEST);
    soup_message_headers_append(fields, "Range", field.constData());
    const RangeRequest request = readRange(fields, Length);
    const ByteRange& range = request.range;
    expect(
        request.kind != RangeRequest::Single || (range.first >= 0 && range.first <= range.last && range.last < Length));
    soup_message_headers_free(fields);
}

void readCredentials(const QByteArray& field)
{
    const auto fields = ResponderCrypto::splitAuthorizationHeader(field);
    expect(!ResponderCrypto::create(fields, ZarkWebserverUser(fields.user, QStringLiteral("x")))->authenticate(field));
}

} // namespace

/// The texts of a request that the server reads by itself: a node's path, a query, Host, Range and Authorization.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    readPath(text);
    QueryItems(QLatin1String(text)).find(QStringLiteral("path"));
    isAcceptedHost(text);
    if (!text.contains('\0') && !text.contains('\r') && !text.contains('\n')) {
        readRangeField(text);
        readCredentials(text);
    }
    return 0;
}
