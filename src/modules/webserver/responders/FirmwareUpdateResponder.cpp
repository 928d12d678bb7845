#include "FirmwareUpdateResponder.h"

#include <QSocketNotifier>

#include <algorithm>
#include <cerrno>

#include <unistd.h>

#include "CMNodeTree.h"
#include "CMRoot.h"
#include "Request.h"
#include "WebserverLog.h"
#include "ZarkPaths.h"

namespace {

constexpr qint64 DefaultLimit = 1024LL * 1024 * 1024;
constexpr qint64 MaximumOverhead = 64 * 1024; ///< What stands around an image; the image itself is counted later.
constexpr int SumDigits = 64;
constexpr int MaximumSumLength = 256; ///< With whatever stands around the digits.

qint64 imageLimit()
{
    const ZarkValue limit(CMRoot()->getValue(ZarkWebserverUpdateBytesPath()));
    return limit.type() == ZarkValueType::I64 ? limit.i64() : DefaultLimit;
}

/// The sum in bytes; empty for what is none. The form of sha256sum, "digits  name", is taken too.
QByteArray sumOf(const QByteArray& text)
{
    const QByteArray digits = text.trimmed().left(SumDigits);
    const QByteArray sum = QByteArray::fromHex(digits);
    const bool valid = digits.size() == SumDigits && sum.toHex() == digits.toLower()
        && (text.trimmed().size() == SumDigits || text.trimmed().at(SumDigits) == ' ');
    return valid ? sum : QByteArray();
}

const char* faultOf(MultipartParser::Error error)
{
    switch (error) {
    case MultipartParser::BadBoundary:
        return "The boundary of the multipart body is missing or invalid.";
    case MultipartParser::PreambleTooLong:
        return "There is too much in front of the first part.";
    case MultipartParser::HeaderTooLong:
        return "The header of a part is too long.";
    case MultipartParser::HeaderMalformed:
        return "The header of a part is malformed.";
    case MultipartParser::EpilogueTooLong:
        return "There is too much behind the last part.";
    case MultipartParser::TooManyParts:
        return "There are too many parts.";
    default:
        return "The body ended before its last boundary.";
    }
}

} // namespace

FirmwareUpdateResponder::~FirmwareUpdateResponder() = default; // Here, where the notifier's class is known.

bool FirmwareUpdateResponder::wants(const Message& message)
{
    return message.isMethod("POST") && message.path() == "/firmware/update"
        && (message.isMultipart() || message.requestContentType().isEmpty());
}

void FirmwareUpdateResponder::respond()
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(
        webserverLog(), "FirmwareUpdateResponder: request " << requestId() << " '" << request().fullUri() << "'");
    identify(UriAlone);
    const auto* node = dynamic_cast<CMUpdateNode*>(CMRoot()->tree()->node(ZarkFirmwareUpdatePath()));
    const ZarkPermission::Enum permission = node ? node->permission() : ZarkPermission::Protected;
    if (!canRespond(ZarkFirmwareUpdatePath().toEncoded(), ApiRequestType::SetData, permission)) {
        m_answered = true;
        return;
    }
    if (!node)
        return refuse(SOUP_STATUS_NOT_FOUND, CMError::NotSupported, "This device takes no updates.");
    if (node->isBusy())
        return refuse(SOUP_STATUS_CONFLICT, CMError::Busy, "Another image is on its way.");
    m_limit = imageLimit();
    const QByteArray length = request().header("Content-Length");
    m_expected = length.isEmpty() ? -1 : length.toLongLong();
    if (m_expected <= 0 && request().header("Transfer-Encoding").isEmpty())
        return refuse(SOUP_STATUS_BAD_REQUEST, CMError::InvalidType, "There is no body.");
    if (m_expected > m_limit + MaximumOverhead)
        refuse(SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE, CMError::OutOfRange, "The image is too large.");
}

void FirmwareUpdateResponder::refuse(int status, const char* name, const char* message)
{
    if (m_answered)
        return;
    m_answered = true;
    if (m_writable)
        m_writable->setEnabled(false);
    m_update.reset(); // Tells the reader that the image is incomplete.
    m_unwritten.clear();
    respondWithError(CMError(name, message), status);
}

void FirmwareUpdateResponder::partBegan(const MultipartPart& part)
{
    if (m_answered)
        return;
    m_part = part.name == "firmware" ? Image : part.name == "sha256" ? Sum : Other;
    if (m_part != Image)
        return;
    if (m_hadImage)
        return refuse(SOUP_STATUS_BAD_REQUEST, CMError::InvalidType, "There are two images.");
    m_hadImage = true;
    beginImage(part);
}

void FirmwareUpdateResponder::beginImage(const MultipartPart& part)
{
    const auto* node = dynamic_cast<CMUpdateNode*>(CMRoot()->tree()->node(ZarkFirmwareUpdatePath()));
    CMError error(CMError::NotSupported, "This device takes no updates.");
    if (node)
        m_update = node->begin(QString::fromUtf8(part.fileName), m_expected, &error);
    if (m_update) {
        m_writable = std::make_unique<QSocketNotifier>(m_update->descriptor(), QSocketNotifier::Write);
        m_writable->setEnabled(false);
        connect(m_writable.get(), &QSocketNotifier::activated, this, [this] { writeRest(); });
        return;
    }
    m_answered = true;
    const bool busy = error.name() == QLatin1String(CMError::Busy);
    respondWithError(error, busy ? SOUP_STATUS_CONFLICT : SOUP_STATUS_INTERNAL_SERVER_ERROR);
}

void FirmwareUpdateResponder::partData(const char* data, qsizetype length)
{
    if (m_answered)
        return;
    if (m_part != Image) {
        // Or a chunked body could go on for ever, and nobody else could update.
        m_otherReceived += length;
        if (m_otherReceived > MaximumOverhead)
            return refuse(SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE, CMError::OutOfRange, "The other parts are too large.");
        if (m_part == Sum && m_sum.size() < MaximumSumLength)
            m_sum.append(data, static_cast<int>(length));
        return;
    }
    m_received += length;
    if (m_received > m_limit)
        return refuse(SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE, CMError::OutOfRange, "The image is too large.");
    const qsizetype written = m_unwritten.isEmpty() ? write(data, length) : 0;
    m_unwritten.append(data + written, static_cast<int>(length - written));
    m_writable->setEnabled(!m_unwritten.isEmpty());
    if (m_bodyEnded)
        finishIfWritten();
}

void FirmwareUpdateResponder::partEnded()
{
    if (m_part == Sum && sumOf(m_sum).isEmpty())
        refuse(SOUP_STATUS_BAD_REQUEST, CMError::InvalidType, "The sum is no SHA-256 sum in hexadecimal digits.");
}

// Gives how much the pipe takes now; the rest waits until it has room again, and until then no more of the body is
// read.
qsizetype FirmwareUpdateResponder::write(const char* data, qsizetype length)
{
    const ssize_t written = ::write(m_update->descriptor(), data, static_cast<size_t>(length));
    if (written >= 0 || errno == EAGAIN || errno == EINTR)
        return std::max<ssize_t>(written, 0);
    m_bodyEnded = true; // The reader has given up, and knows why.
    return length;
}

void FirmwareUpdateResponder::writeRest()
{
    m_unwritten.remove(0, static_cast<int>(write(m_unwritten.constData(), m_unwritten.size())));
    if (!m_unwritten.isEmpty())
        return;
    m_writable->setEnabled(false);
    if (m_bodyEnded)
        finishIfWritten();
    else
        Q_EMIT ready();
}

void FirmwareUpdateResponder::bodyEnded(MultipartParser::Error error)
{
    if (m_answered)
        return;
    if (error != MultipartParser::NoError)
        return refuse(SOUP_STATUS_BAD_REQUEST, CMError::InvalidType, faultOf(error));
    if (!m_hadImage)
        return refuse(SOUP_STATUS_BAD_REQUEST, CMError::InvalidType, "There is no part \"firmware\".");
    if (m_received == 0)
        return refuse(SOUP_STATUS_BAD_REQUEST, CMError::InvalidType, "The image is empty.");
    m_bodyEnded = true;
    finishIfWritten();
}

void FirmwareUpdateResponder::finishIfWritten()
{
    if (!m_unwritten.isEmpty() || m_answered)
        return;
    m_answered = true; // But for the reader's word.
    m_writable->setEnabled(false);
    CMReply<CMUpdateResult> reply;
    reply.onFinished(this, [this](const CMUpdateResult& result, const CMError& error) { conclude(result, error); });
    m_update->finish(sumOf(m_sum), reply);
    m_update.reset();
}

void FirmwareUpdateResponder::conclude(const CMUpdateResult& result, const CMError& error)
{
    if (!error.isEmpty())
        return respondWithError(error, SOUP_STATUS_INTERNAL_SERVER_ERROR);
    respondWithJson(QVariantHash{ { QStringLiteral("bytes"), result.bytes },
        { QStringLiteral("sha256"), QString::fromLatin1(result.sha256.toHex()) } });
}
