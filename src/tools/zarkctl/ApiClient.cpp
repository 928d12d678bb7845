#include "ApiClient.h"

#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QNetworkRequest>

namespace {

/// Longer than any poll and than the delay after failed authentications.
const int TransferTimeout = 60 * 1000;

QNetworkRequest requestTo(const QUrl& url, const QByteArray& authorization)
{
    QNetworkRequest request(url);
    request.setTransferTimeout(TransferTimeout);
    if (!authorization.isEmpty())
        request.setRawHeader("Authorization", authorization);
    return request;
}

/// Escapes all that a server could rewrite before it compares the signature; what is left stays readable.
QByteArray encodedQuery(const ApiClient::Query& query)
{
    QByteArrayList items;
    for (const auto& item : query)
        items.append(item.first.toLatin1() + '=' + QUrl::toPercentEncoding(item.second, "/:,@"));
    return items.join('&');
}

/// The URL exactly as the server rebuilds it from the request line and the Host header: that text is signed.
QUrl withoutDefaultPort(QUrl url)
{
    if (url.port() == (url.scheme() == QLatin1String("https") ? 443 : 80))
        url.setPort(-1);
    return url;
}

QJsonObject errorOf(const QByteArray& body)
{
    return QJsonDocument::fromJson(body).object().value(QLatin1String("error")).toObject();
}

} // namespace

QString ApiReply::errorName() const
{
    return errorOf(body).value(QLatin1String("name")).toString();
}

QString ApiReply::errorText() const
{
    if (status == 0)
        return networkError;
    QString text = errorOf(body).value(QLatin1String("message")).toString();
    if (text.isEmpty())
        text = QString::fromUtf8(body).simplified().left(500);
    const QString name = errorName();
    if (!name.isEmpty())
        text = name + QLatin1String(": ") + text;
    return QStringLiteral("%1 (HTTP %2)").arg(text.isEmpty() ? QStringLiteral("error") : text).arg(status);
}

ApiClient::ApiClient(const QUrl& base, std::optional<RequestSigner> signer)
    : m_base(withoutDefaultPort(base)), m_signer(std::move(signer))
{
}

QUrl ApiClient::url(const QString& path) const
{
    QString prefix = m_base.path(QUrl::FullyEncoded);
    if (prefix.endsWith(QLatin1Char('/')))
        prefix.chop(1);
    QUrl url = m_base;
    url.setPath(prefix + path, QUrl::StrictMode);
    return url;
}

ApiReply ApiClient::get(const QString& path, const Query& query)
{
    QUrl target = url(path);
    target.setQuery(QString::fromLatin1(encodedQuery(query)), QUrl::StrictMode);
    const QByteArray authorization = m_signer ? m_signer->authorization(target.toEncoded()) : QByteArray();
    return finish(m_network.get(requestTo(target, authorization)));
}

ApiReply ApiClient::post(const QString& path, const QByteArray& json)
{
    const QUrl target = url(path);
    const QByteArray authorization = m_signer ? m_signer->authorization(target.toEncoded() + '.' + json) : QByteArray();
    return post(target, json, authorization);
}

ApiReply ApiClient::postEncryptedValue(const QString& node, const QByteArray& value)
{
    const QJsonObject data{
        { QStringLiteral("path"), node },
        { QStringLiteral("role"), QStringLiteral("value") },
        { QStringLiteral("value"), QString::fromLatin1(m_signer->encrypt(value)) },
    };
    const QByteArray json = QJsonDocument(data).toJson(QJsonDocument::Compact);
    const QUrl target = url(QStringLiteral("/api/setData"));
    return post(target, json, m_signer->encryptedAuthorization(target.toEncoded() + '.' + json));
}

ApiReply ApiClient::post(const QUrl& url, const QByteArray& json, const QByteArray& authorization)
{
    QNetworkRequest request = requestTo(url, authorization);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    return finish(m_network.post(request, json));
}

ApiReply ApiClient::finish(QNetworkReply* reply)
{
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    ApiReply result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.body = reply->readAll();
    // A body cut short is no answer, whatever the status line said.
    const bool cutShort = reply->error() != QNetworkReply::NoError && result.status < 400;
    if (result.status == 0 || cutShort) {
        result.status = 0;
        result.networkError = reply->errorString();
    }
    reply->deleteLater();
    return result;
}
