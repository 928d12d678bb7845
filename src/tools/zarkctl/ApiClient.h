#pragma once

#include <QVariant>

#include <optional>

#include "HttpSession.h"
#include "RequestSigner.h"
#include "Target.h"

/// The device's HTTP API, typed. Requests are signed when the target has a user. Every call throws a Failure when the
/// device refuses or cannot be reached, and when the answer is not one that this API gives: a captive portal's page, or
/// another server's. JSON objects are QVariantHash, arrays QVariantList, as ZarkJson reads them.
class ApiClient {
public:
    using Query = QList<QPair<QString, QString>>;

    explicit ApiClient(const Target& target);

    /// The roles' values, in the order asked.
    QVariantList getData(const QString& path, const QStringList& roles);
    /// One page, {"rows", "rowsCount", "rowsVersion", ...}.
    QVariantHash getRows(const QString& path, const QStringList& roles, qint64 from, qint64 to, qint64 version);
    /// All rows from `from` to `to` (-1: the last), of one version of the list.
    QVariantList allRows(const QString& path, const QStringList& roles, qint64 from = 0, qint64 to = -1);
    /// What the node holds afterwards, or what the command returns. Signed over plain HTTP the value travels encrypted.
    QVariant setData(const QString& path, const QString& role, const QVariant& value);
    void changePassword(const QString& oldPassword, const QString& newPassword);

    /// The id of a new queue.
    QString openQueue(const QVariantList& subscriptions);
    QVariantList poll(const QString& queue, int seconds, qint64 received);

    /// {"bytes", "sha256"}.
    QVariantHash upload(const UploadFile& file, const HttpSession::Progress& progress);
    /// Until the stream ends or `sink` returns false, which is no failure.
    void stream(const QString& path, const HttpSession::Sink& sink);

    /// The URL of an endpoint, as it is sent and signed.
    QByteArray url(const QString& endpoint, const Query& query = {}) const;
    HttpSession& http() { return m_http; }
    const RequestSigner* signer() const { return m_signer ? &*m_signer : nullptr; }

private:
    QByteArray authorization(const QByteArray& data) const;
    QVariant get(const QString& endpoint, const Query& query);
    QVariant post(const QString& endpoint, const QVariantHash& body, int waitSeconds = 0);
    QVariant writtenValue(const QVariant& answer) const;
    QVariant postEncrypted(const QVariantHash& body);
    bool readRows(QVariantList* rows, const QString& path, const QStringList& roles, qint64 from, qint64 to);

    Target m_target;
    HttpSession m_http;
    std::optional<RequestSigner> m_signer;
};
