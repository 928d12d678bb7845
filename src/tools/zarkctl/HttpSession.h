#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>

#include <curl/curl.h>

#include <functional>
#include <memory>

/// What came back for one request.
struct HttpReply {
    int status = 0;
    QByteArray contentType; ///< Without parameters.
    QByteArray date; ///< The field Date, as it came.
    QByteArray body; ///< Empty when it went to a sink.
};

/// The file that an upload sends, and its sum.
struct UploadFile {
    QByteArray name; ///< As the file system has it.
    QByteArray sha256; ///< Hexadecimal.
};

/// Requests to one server, one at a time, on a connection that is kept; libcurl inside. Straight to the server,
/// whatever proxy the environment names, and without following redirects: a device does neither. For one thread at a
/// time.
///
/// Every call blocks until the answer is complete, and throws a Failure of status ExitUnreachable when none came, with
/// a sentence that says why and, where one exists, which option mends it.
class HttpSession {
public:
    struct Settings {
        QByteArray caFile; ///< PEM to trust besides the system's authorities; may be empty.
        int connectSeconds = 10;
        int silenceSeconds = 60; ///< Without a byte in either direction.
    };
    /// Takes a piece of the body; false ends the transfer.
    using Sink = std::function<bool(const char* data, size_t size)>;
    using Progress = std::function<void(qint64 done, qint64 total)>;

    explicit HttpSession(const Settings& settings);
    ~HttpSession();
    HttpSession(const HttpSession&) = delete;
    HttpSession& operator=(const HttpSession&) = delete;

    HttpReply get(const QByteArray& url, const QByteArray& authorization);
    /// `waitSeconds`: how long the server may take longer than it takes for others.
    HttpReply post(const QByteArray& url, const QByteArray& json, const QByteArray& authorization, int waitSeconds = 0);
    /// A multipart form: the sum first, then the file, read while it is sent.
    HttpReply upload(
        const QByteArray& url, const UploadFile& file, const QByteArray& authorization, const Progress& progress);
    /// The body of a 200 goes to `sink`; that of another status is kept.
    HttpReply stream(const QByteArray& url, const QByteArray& authorization, const Sink& sink);

    /// What the server shows of itself, its own certificate first, PEM. Trusts nobody; sends no request.
    QList<QByteArray> certificates(const QByteArray& url);

    /// Asked about once a second while a request waits; true ends it with a Failure.
    void setGivingUp(const std::function<bool()>& givingUp) { m_givingUp = givingUp; }

private:
    void prepare(const QByteArray& url, const QByteArray& authorization, int waitSeconds = 0);
    void addField(const QByteArray& field);
    HttpReply perform();
    HttpReply readReply() const;
    [[noreturn]] void fail(CURLcode code) const;

    bool isSilent(qint64 bytes);
    static size_t onBody(char* data, size_t size, size_t count, void* self);
    static int onProgress(void* self, curl_off_t downTotal, curl_off_t down, curl_off_t upTotal, curl_off_t up);

    const Settings m_settings;
    CURL* m_curl;
    curl_slist* m_fields = nullptr;
    char m_error[CURL_ERROR_SIZE] = "";
    QByteArray m_url;
    QByteArray m_body;
    /// Of the request under way.
    struct Silence {
        int seconds = 0; ///< The longest.
        bool allowed = false; ///< Without an end, in a body.
        bool isOver = false; ///< It was longer.
        qint64 bytes = -1; ///< When something came last.
        QElapsedTimer since = {};
    } m_silence;
    Sink m_sink;
    Progress m_progress;
    std::function<bool()> m_givingUp;
};
