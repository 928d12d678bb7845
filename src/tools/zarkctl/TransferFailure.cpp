#include "TransferFailure.h"

#include <QUrl>

#include <openssl/x509_vfy.h>

namespace {

QString untrusted(const TransferEnd& end)
{
    switch (end.verification) {
    case X509_V_OK:
    case X509_V_ERR_UNSPECIFIED: // libcurl, when it is the name alone.
        return QStringLiteral("its certificate is for another name; `zarkctl cert show` tells which names it has: use "
                              "one of them in --url");
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return QStringLiteral(
            "its certificate has expired, or this machine's clock is wrong; `zarkctl cert show` tells "
            "the dates. No option mends that: the device needs a new certificate");
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return QStringLiteral("its certificate is not valid yet: this machine's clock or the device's is wrong; "
                              "`zarkctl cert show` tells the dates");
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        return QStringLiteral("its certificate is of an authority that this machine does not know; --ca FILE trusts "
                              "one, and `zarkctl cert trust` keeps the one that the device shows");
    default:
        return QStringLiteral("its certificate cannot be trusted: ")
            + QString::fromUtf8(X509_verify_cert_error_string(end.verification));
    }
}

/// A server that waits for TLS cuts whoever speaks HTTP.
QString httpsHint(const TransferEnd& end)
{
    return end.url.startsWith("http:") ? QStringLiteral("; is it https:// and not http://?") : QString();
}

QString reason(const TransferEnd& end)
{
    switch (end.code) {
    case CURLE_PEER_FAILED_VERIFICATION:
        return untrusted(end);
    case CURLE_SSL_CACERT_BADFILE:
        return QStringLiteral("the file of --ca cannot be read, or holds no certificate in PEM");
    case CURLE_SSL_CONNECT_ERROR:
        return QStringLiteral("no TLS there, or none that this machine speaks; is it http:// and not https://? (%1)")
            .arg(QString::fromUtf8(end.detail));
    case CURLE_GOT_NOTHING:
        return QStringLiteral("the connection was closed without an answer") + httpsHint(end);
    case CURLE_OPERATION_TIMEDOUT:
        if (end.detail.contains("SSL"))
            return QStringLiteral("no answer to TLS in time; is it http:// and not https://?");
        return QStringLiteral("no answer in time; --timeout SECONDS waits longer");
    case CURLE_COULDNT_RESOLVE_HOST:
        return QStringLiteral("no machine is known by this name");
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
        return QStringLiteral("the connection broke off") + (end.answered ? QString() : httpsHint(end));
    case CURLE_READ_ERROR:
        return QStringLiteral("the file cannot be read");
    default:
        return QString::fromUtf8(end.detail.isEmpty() ? QByteArray(curl_easy_strerror(end.code)) : end.detail);
    }
}

} // namespace

QString transferFailure(const TransferEnd& end)
{
    const QUrl url = QUrl::fromEncoded(end.url);
    const QString place = url.toString(QUrl::RemoveUserInfo | QUrl::RemovePath | QUrl::RemoveQuery);
    return place + QStringLiteral(": ") + reason(end);
}
