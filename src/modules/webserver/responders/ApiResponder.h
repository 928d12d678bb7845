#pragma once

#include <QList>
#include <QSharedPointer>

#include "ApiAuthorization.h"
#include "ApiRequests.h"
#include "CMError.h"
#include "CMPath.h"
#include "Responder.h"
#include "ResponderConfiguration.h"
#include "ResponderCrypto.h"
#include "UserDatabase.h"
#include "ZarkRowsRoles.h"

/// Answers /api/getData, /api/getRows and /api/setData, GET and POST, in JSON.
///
/// parse → authenticate → ask the framework → check the node's permission with the answer → reply. Errors are
/// {"error": {"name", "message"}} and leave through respondWithError() alone.
class ApiResponder : public Responder {
    Q_OBJECT
public:
    using RequestType = ApiRequestType;
    using GetData = ApiGetData;
    using GetRows = ApiGetRows;
    using SetData = ApiSetData;

    ApiResponder(Request& request, const QString& documentRoot, const QSharedPointer<UserDatabase>& userDatabase,
        const QSharedPointer<ResponderConfiguration>& configuration, QObject* parent);

    void respond() override;
    bool respondWillBlock() override { return false; }
    void setRequestId(int id) override { m_requestId = id; }

private:
    void getData();
    void getRows();
    void setData();

    // False after the error was answered.
    bool parseGetDataRequest(GetData* request);
    bool parseGetRowsRequest(GetRows* request);
    bool parseSetDataRequest(SetData* request);
    bool parseSetDataRequestGet(SetData* request);
    bool parseSetDataRequestPost(SetData* request);
    bool accept(const char* fault);

    ResponderCrypto::AuthorizationHeaderFields authorization() const;
    bool verify(const ResponderCrypto::AuthorizationHeaderFields& fields, const QByteArray& signedData) const;
    template <class T> bool authenticateGetRequest(T* request);
    template <class T> bool authenticatePostRequest(T* request);
    bool authenticateAndDecryptPostRequest(SetData* request, QVariantHash* body);
    QByteArray signedPostData() const;

    /// The gate. When the answer is no and `respondOnError` is set, the client has been told.
    bool canRespond(const QString& path, RequestType type, ZarkPermission::Enum permission, bool credentials,
        bool verified, bool respondOnError);

    void on_getData_finished(
        const GetData& request, const QStringList& roles, const QList<QVariant>& values, const CMError& error);
    void on_getRows_finished(
        const GetRows& request, const QStringList& roles, const ZarkRowsRoles& rows, const CMError& error);
    void on_permission_finished(
        const SetData& request, const CMPath& path, const QList<QVariant>& values, const CMError& error);
    void on_setData_finished(const QVariant& value, const CMError& error);

    void hideRow(QVariantList* row, const QStringList& roles, ZarkPermission::Enum permission) const;
    void reportUse(const QString& platform);
    bool isMethod(const char* method) const;
    void respondWithJson(const QVariant& value);
    void respondWithError(const CMError& error, int status, bool throttle);

    int m_requestId = 0;
    QSharedPointer<UserDatabase> m_userDatabase;
    QSharedPointer<ResponderConfiguration> m_configuration;
};
