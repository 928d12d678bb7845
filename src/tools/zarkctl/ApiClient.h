#pragma once

#include <optional>

#include <QList>
#include <QNetworkAccessManager>
#include <QPair>
#include <QUrl>

#include "RequestSigner.h"

/// What came back for one request.
struct ApiReply {
    int status = 0; ///< The HTTP status; 0 when there was no answer.
    QByteArray body;
    QString networkError; ///< Why there was no answer.

    bool isOk() const { return status == 200; }
    /// The error in one line: the device's own words where it gave any.
    QString errorText() const;
    /// The name of the device's error, such as "outdatedVersion"; empty when it gave none.
    QString errorName() const;
};

/// The device's HTTP API, one request at a time. Every call blocks (in an event loop) until the answer is complete or
/// a minute has passed without a byte. Requests are signed when there is a signer.
class ApiClient {
public:
    using Query = QList<QPair<QString, QString>>;

    ApiClient(const QUrl& base, std::optional<RequestSigner> signer);

    ApiReply get(const QString& path, const Query& query);
    ApiReply post(const QString& path, const QByteArray& json);
    /// A setData whose value (JSON text) travels encrypted. Needs a signer.
    ApiReply postEncryptedValue(const QString& node, const QByteArray& value);

private:
    QUrl url(const QString& path) const;
    ApiReply post(const QUrl& url, const QByteArray& json, const QByteArray& authorization);
    static ApiReply finish(QNetworkReply* reply);

    QUrl m_base;
    std::optional<RequestSigner> m_signer;
    QNetworkAccessManager m_network;
};
