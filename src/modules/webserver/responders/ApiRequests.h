#pragma once

#include <QStringList>
#include <QUrlQuery>
#include <QVariant>

/// What the requests of the data API ask for, read from a query or from a decoded body. The last two flags are filled
/// by authentication.

struct ApiGetData {
    QString path;
    QStringList roles;
    bool structure = false; ///< Answer an object instead of a list.
    bool credentials = false;
    bool verified = false;
};

struct ApiGetRows : ApiGetData {
    int from = 0;
    int to = 0;
    qint64 version = 0; ///< 0: any.
};

struct ApiSetData {
    QString path;
    QString role;
    QVariant value; ///< JSON.
    QString platform; ///< Of the client, for analytics.
    bool deprecatedRoles = false; ///< The role came as "roles".
    bool credentials = false;
    bool verified = false;
};

/// Read the parameters into `request`. Null on success; otherwise the text of the 400 answer, and what `request`
/// holds is undefined.
const char* parseGetData(const QUrlQuery& query, ApiGetData* request);
const char* parseGetData(const QVariantHash& body, ApiGetData* request);
const char* parseGetRows(const QUrlQuery& query, ApiGetRows* request);
const char* parseGetRows(const QVariantHash& body, ApiGetRows* request);
/// `request->value` is the text as sent, not yet parsed.
const char* parseSetData(const QUrlQuery& query, ApiSetData* request);
const char* parseSetData(const QVariantHash& body, ApiSetData* request);
