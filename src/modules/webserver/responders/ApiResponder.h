#pragma once

#include <QList>

#include "ApiRequests.h"
#include "CMPath.h"
#include "SignedResponder.h"
#include "ZarkRowsRoles.h"

/// Answers /api/getData, /api/getRows and /api/setData, GET and POST, in JSON.
///
/// identify → parse → ask the framework → check the node's permission with the answer → reply.
class ApiResponder : public SignedResponder {
    Q_OBJECT
public:
    using RequestType = ApiRequestType;
    using GetData = ApiGetData;
    using GetRows = ApiGetRows;
    using SetData = ApiSetData;

    ApiResponder(Request& request, const QString& documentRoot, const QSharedPointer<UserDatabase>& userDatabase,
        const QSharedPointer<ResponderConfiguration>& configuration, QObject* parent)
        : SignedResponder(request, documentRoot, userDatabase, configuration, parent)
    {
    }

    void respond() override;

private:
    void getData();
    void getRows();
    void setData();

    // False after the error was answered.
    template <class T> bool parseRequest(const char* (*parse)(const RequestParameters&, T*), T* request);
    bool parseSetDataRequest(SetData* request);
    bool parseSetDataRequestGet(SetData* request);
    bool parseSetDataRequestPost(SetData* request);
    bool decryptPostData(QVariantHash* body);
    bool accept(const char* fault);
    void respondInvalidMethod();

    void on_getData_finished(
        const GetData& request, const QStringList& roles, const QList<QVariant>& values, const CMError& error);
    void on_getRows_finished(
        const GetRows& request, const QStringList& roles, const ZarkRowsRoles& rows, const CMError& error);
    void on_permission_finished(
        const SetData& request, const CMPath& path, const QList<QVariant>& values, const CMError& error);
    void on_setData_finished(const QVariant& value, const CMError& error);

    static void hideRow(ZarkRowsRoles* rows, int row, const QStringList& roles, ZarkPermission::Enum permission);
    void reportUse(const QString& platform);
};
