#pragma once

#include <QStringList>
#include <QVariant>

class RequestParameters;

/// What the requests of the data API ask for.

struct ApiGetData {
    QString path;
    QStringList roles;
    bool structure = false; ///< Answer an object instead of a list.
};

struct ApiGetRows : ApiGetData {
    int from = 0;
    int to = 0;
    qint64 version = 0; ///< 0: any.
};

struct ApiSetData {
    QString path;
    QString role;
    QVariant value; ///< As sent: in a query, a JSON text that is not yet parsed.
    QString platform; ///< Of the client, for analytics.
    bool deprecatedRoles = false; ///< The role came as "roles".
};

/// Read the parameters into `request`. Null on success; otherwise the text of the 400 answer, and what `request`
/// holds is undefined.
const char* parseGetData(const RequestParameters& parameters, ApiGetData* request);
const char* parseGetRows(const RequestParameters& parameters, ApiGetRows* request);
const char* parseSetData(const RequestParameters& parameters, ApiSetData* request);
