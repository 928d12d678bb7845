#include "HttpSession.h"

#include "Failure.h"
#include "TransferFailure.h"

namespace {

/// Of an answer that is kept in memory: more is no device's.
const int LongestBody = 256 * 1024 * 1024;

} // namespace

HttpSession::HttpSession(const Settings& settings) : m_settings(settings), m_curl(curl_easy_init()) { }

HttpSession::~HttpSession()
{
    curl_slist_free_all(m_fields);
    curl_easy_cleanup(m_curl);
}

void HttpSession::prepare(const QByteArray& url, const QByteArray& authorization, int waitSeconds)
{
    curl_easy_reset(m_curl); // Keeps the connection.
    curl_slist_free_all(std::exchange(m_fields, nullptr));
    m_url = url;
    m_body.clear();
    m_sink = nullptr;
    m_progress = nullptr;
    m_silence = { m_settings.silenceSeconds + waitSeconds, false };
    m_error[0] = '\0';
    curl_easy_setopt(m_curl, CURLOPT_URL, url.constData());
    curl_easy_setopt(m_curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(m_curl, CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(m_curl, CURLOPT_PATH_AS_IS, 1L); // The signature covers the path as it is written.
    curl_easy_setopt(m_curl, CURLOPT_PROXY, "");
    curl_easy_setopt(m_curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(m_curl, CURLOPT_ERRORBUFFER, m_error);
    curl_easy_setopt(m_curl, CURLOPT_CONNECTTIMEOUT, long(m_settings.connectSeconds));
    curl_easy_setopt(m_curl, CURLOPT_TCP_KEEPALIVE, 1L);
    if (!m_settings.caFile.isEmpty())
        curl_easy_setopt(m_curl, CURLOPT_CAINFO, m_settings.caFile.constData());
    curl_easy_setopt(m_curl, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(m_curl, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(m_curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(m_curl, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(m_curl, CURLOPT_XFERINFODATA, this);
    if (!authorization.isEmpty())
        addField("Authorization: " + authorization);
}

void HttpSession::addField(const QByteArray& field)
{
    m_fields = curl_slist_append(m_fields, field.constData());
    curl_easy_setopt(m_curl, CURLOPT_HTTPHEADER, m_fields);
}

HttpReply HttpSession::get(const QByteArray& url, const QByteArray& authorization)
{
    prepare(url, authorization);
    return perform();
}

HttpReply HttpSession::post(
    const QByteArray& url, const QByteArray& json, const QByteArray& authorization, int waitSeconds)
{
    prepare(url, authorization, waitSeconds);
    addField("Content-Type: application/json");
    addField("Expect:");
    curl_easy_setopt(m_curl, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(json.size()));
    curl_easy_setopt(m_curl, CURLOPT_POSTFIELDS, json.constData());
    return perform();
}

HttpReply HttpSession::upload(
    const QByteArray& url, const UploadFile& file, const QByteArray& authorization, const Progress& progress)
{
    prepare(url, authorization);
    addField("Expect: 100-continue"); // Whoever is refused has sent nothing.
    m_progress = progress;
    const std::unique_ptr<curl_mime, decltype(&curl_mime_free)> form(curl_mime_init(m_curl), &curl_mime_free);
    curl_mimepart* const sum = curl_mime_addpart(form.get());
    curl_mime_name(sum, "sha256");
    curl_mime_data(sum, file.sha256.constData(), CURL_ZERO_TERMINATED);
    curl_mimepart* const image = curl_mime_addpart(form.get());
    curl_mime_name(image, "firmware");
    if (const CURLcode code = curl_mime_filedata(image, file.name.constData()))
        fail(code);
    curl_mime_type(image, "application/octet-stream");
    curl_easy_setopt(m_curl, CURLOPT_MIMEPOST, form.get());
    return perform();
}

HttpReply HttpSession::stream(const QByteArray& url, const QByteArray& authorization, const Sink& sink)
{
    prepare(url, authorization);
    m_sink = sink;
    m_silence.allowed = true; // Once there is a head.
    return perform();
}

QList<QByteArray> HttpSession::certificates(const QByteArray& url)
{
    prepare(url, {});
    curl_easy_setopt(m_curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(m_curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(m_curl, CURLOPT_CERTINFO, 1L);
    curl_easy_setopt(m_curl, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(m_curl, CURLOPT_CONNECT_ONLY, 1L);
    if (const CURLcode code = curl_easy_perform(m_curl))
        fail(code);
    curl_certinfo* shown = nullptr;
    curl_easy_getinfo(m_curl, CURLINFO_CERTINFO, &shown);
    QList<QByteArray> result;
    for (int i = 0; shown && i < shown->num_of_certs; ++i) {
        for (const curl_slist* item = shown->certinfo[i]; item; item = item->next) {
            const QByteArray field = item->data;
            if (field.startsWith("Cert:"))
                result.append(field.mid(5));
        }
    }
    return result;
}

HttpReply HttpSession::perform()
{
    const CURLcode code = curl_easy_perform(m_curl);
    const HttpReply reply = readReply();
    // Who is refused is told so at once and cut off in the middle of a body: the answer counts, not the cut.
    const bool isCut = code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR;
    if (code != CURLE_OK && !(isCut && reply.status >= 400 && !reply.body.isEmpty()))
        fail(code);
    return reply;
}

HttpReply HttpSession::readReply() const
{
    HttpReply reply;
    long status = 0;
    curl_easy_getinfo(m_curl, CURLINFO_RESPONSE_CODE, &status);
    reply.status = int(status);
    curl_header* field = nullptr;
    if (curl_easy_header(m_curl, "Content-Type", 0, CURLH_HEADER, -1, &field) == CURLHE_OK)
        reply.contentType = QByteArray(field->value).split(';').first().trimmed().toLower();
    if (curl_easy_header(m_curl, "Date", 0, CURLH_HEADER, -1, &field) == CURLHE_OK)
        reply.date = field->value;
    reply.body = m_body;
    return reply;
}

void HttpSession::fail(CURLcode code) const
{
    long verification = 0;
    curl_easy_getinfo(m_curl, CURLINFO_SSL_VERIFYRESULT, &verification);
    const TransferEnd end{ m_silence.isOver ? CURLE_OPERATION_TIMEDOUT : code, verification, m_error, m_url,
        readReply().status != 0 };
    throw Failure{ code == CURLE_SSL_CACERT_BADFILE ? ExitUsage : ExitUnreachable, transferFailure(end) };
}

size_t HttpSession::onBody(char* data, size_t size, size_t count, void* self)
{
    auto* const session = static_cast<HttpSession*>(self);
    const size_t bytes = size * count;
    long status = 0;
    curl_easy_getinfo(session->m_curl, CURLINFO_RESPONSE_CODE, &status);
    if (session->m_sink && status == 200)
        return session->m_sink(data, bytes) ? bytes : 0;
    if (bytes > size_t(LongestBody - session->m_body.size()))
        return 0;
    session->m_body.append(data, int(bytes));
    return bytes;
}

int HttpSession::onProgress(void* self, curl_off_t, curl_off_t down, curl_off_t upTotal, curl_off_t up)
{
    auto* const session = static_cast<HttpSession*>(self);
    if (session->m_progress && upTotal > 0)
        session->m_progress(up, upTotal);
    return session->isSilent(down + up) || (session->m_givingUp && session->m_givingUp()) ? 1 : 0;
}

/// Whether the server has been silent for too long since the request. libcurl's own limit is one of the mean speed of
/// some seconds, in which the request counts.
bool HttpSession::isSilent(qint64 bytes)
{
    long sent = 0;
    long status = 0;
    curl_easy_getinfo(m_curl, CURLINFO_REQUEST_SIZE, &sent);
    curl_easy_getinfo(m_curl, CURLINFO_RESPONSE_CODE, &status);
    if (sent == 0 || bytes != m_silence.bytes || (m_silence.allowed && status != 0)) {
        m_silence.bytes = bytes;
        m_silence.since.start();
    }
    m_silence.isOver = m_silence.since.elapsed() >= m_silence.seconds * 1000LL;
    return m_silence.isOver;
}
